#include "ZXSQLProcessor.h"

#include "ZXPerThreadData.h"

void dbMethodEntry(ZXPerThreadData_t *record, const char *query, const char *host) {
  (void)query, (void)host;
  if (record) ++record->tlSQLObj.dbCallDepth;
}
