#include "ZXPerThreadData.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <mutex>
#include <thread>

#include "ZXAppTracing.h"

void ZXBlobLock::lockSlow() noexcept {
  for (int tries = 0;; ++tries) {
    if (!taken_.load(std::memory_order_relaxed) &&
        !taken_.exchange(true, std::memory_order_acquire))
      return;
    if (tries < 64) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    } else if (tries < 128) {
      std::this_thread::yield();
    } else {
      // The holder was descheduled: let it run rather than compete with it.
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
}

void clearTransactionFields(ZXPerThreadData_t *r) {
  r->flowpathInstance = r->firstFlowpathInstance = r->prevFlowpathInstance = 0;
  r->fpStartTimeforReset = 0;
  r->httpCallOutDepth = 0;
  r->tlSQLObj = ZXSQLProperties_t{};
  r->methodStackDepth = 0;
  std::fill(std::begin(r->nameCache), std::end(r->nameCache), nullptr);
  r->tlTierStartTime = r->tierCallOutSeqNum = 0;
  r->tlBTObj = nullptr;
  r->tlBeginRequestMethod = nullptr;
  r->seqNum = r->tlTestRunNumber = 0;
  r->tlServiceMethodCount = r->tlNonServiceMethodCount = 0;
  r->sequenceBlobLen = 0;
  r->tlFlowPathTimeStampInMS = r->tlFpCPUTime = r->tlDuration = 0;
  r->agentThreadID = r->syncTime = r->waitTime = 0;
  r->bitFlags = r->tlFlowpathType = 0;
  r->tlIsFPCaptured = r->tlIsBTExcluded = r->tlIsForceDump = 0;
  r->tlIsFPHeaderDumped = r->tlLogCompleteFlowPath = r->tlCategory = r->setEndFPFlag = 0;
  r->tlCorrelationIdHeader[0] = '\0';
  r->sequenceBlob[0] = '\0';
  r->tlURL[0] = r->tlURLParameters[0] = '\0';
  r->flowpathInstanceStr[0] = '\0';
  r->flowpathInstanceStrLen = 0;
  r->flowpathInstanceStrOf = 0;
  r->tlStatusCode = 200;
  r->qTimeInMS = -1;
  // The text is the record's own copy (setTierCallOut made it), so it is freed
  // here rather than dropped: a dropped copy would leak once per chained
  // flowpath.
  r->prevTierSeq.reset();
  for (ZXPerThreadData_t::ProxiedCallOut &c : r->proxiedCallOuts) c.depth = 0;
}

void resetAllThreadLocals(ZXPerThreadData_t *r, ZXAppTracing *app) {
  if (!r) return;
  clearTransactionFields(r);
  if (!app) return;
  std::lock_guard lk(app->tlsMutex);
  if (app->tlsdatastruct && r->tlsIdx >= 0 && r->tlsIdx < app->size_array)
    app->tlsdatastruct[r->tlsIdx] = TLSDataStruct{};
}
