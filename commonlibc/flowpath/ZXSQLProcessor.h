// The database side of a flowpath: how deep the host is inside database
// calls and which backend it called last. Nested calls of one kind count
// once: the call-out is recorded when the outermost call ends.
#pragma once

struct ZXPerThreadData_t;

struct ZXSQLProperties_t {
  int dbCallDepth = 0;
  int lastDbBackendId = 0;  // method id of the backend of the last finished call
};

// A database call begins on the record's flowpath.
void dbMethodEntry(ZXPerThreadData_t *record, const char *query, const char *host);
