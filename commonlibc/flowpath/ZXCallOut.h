// Call-outs of a flowpath: the host's calls to a backend (an HTTP service, a
// database) as the SDK reports them, each a begin and an end.
//
// A begin finds the backend's method record in the flowpath's method-table
// node (made, with the kind's type, when new), makes room for its counters
// in the backend monitor and notes the call's start on the record. Calls of
// one kind nest: each end advances the flowpath's sequence number, and only
// the outermost one writes the call-out entry into the blob and adds the call
// to the backend's counters. The record is the owner's, so none of this
// takes a lock beyond what the blob and the method table take.
#pragma once

struct ZXAppTracing;
struct ZXPerThreadData_t;
struct methodPropProperties;

// The kinds, by the backend's method type.
enum class ZXCallOutKind { Http = 1, Database = 2 };

// The backend's record (the call-out handle), or null without a method-table
// node or memory (the call then is not traced). `query` is the database
// call's text, unused for HTTP.
methodPropProperties *beginCallOut(ZXAppTracing *app, ZXPerThreadData_t *record, ZXCallOutKind kind,
                                   const char *host, const char *query);

// The end of a call begun with `backend`. An end without its begin is
// counted as the outermost end and never leaves later calls looking nested.
void endCallOut(ZXAppTracing *app, ZXPerThreadData_t *record, ZXCallOutKind kind,
                methodPropProperties *backend);

// A whole call-out reported after the fact (the proxy replaying an
// application process's call): the same blob entry, sequence step and
// backend counters as a begin and end in process, but timed by the call's
// absolute end (ms, <= 0: now) and its duration rather than by the clock.
void replayCallOut(ZXAppTracing *app, ZXPerThreadData_t *record, ZXCallOutKind kind,
                   const char *host, const char *query, long long endTime, long long duration);
