#include "zxlb_mem_pool.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

#include "ZXAppTracing.h"
#include "ZXDataThread.h"
#include "zxlb_mt_log.h"

#define ZX_FP_LOG(app, above, severity, ...) \
  ZX_LOG_IF((app)->ZXSys.fpTraceLevel > (above), "FLOWPATH", severity, __VA_ARGS__)

namespace {

bool hotspotCaptureOn(const ZXAppTracing *app) {
  return app->ZXSys.zxEnableTxHotspot == 1;
}

// Makes tlsdatastruct hold g_tlsidx entries, keeping the old ones. Caller
// holds tlsMutex. On failure the array is dropped, as the sampler then has
// nothing to read rather than a short array.
void growTlsDataStruct(ZXAppTracing *app, const char *what) {
  const int want = app->g_tlsidx;
  if (app->tlsdatastruct && app->size_array >= want) return;
  std::unique_ptr<TLSDataStruct[]> grown(new (std::nothrow) TLSDataStruct[want]());
  if (!grown) {
    ZX_LOG_OOM(static_cast<long long>(want) * sizeof(TLSDataStruct), what, -1);
    app->tlsdatastruct.reset();
    app->size_array = 0;
    return;
  }
  if (app->tlsdatastruct) std::copy_n(app->tlsdatastruct.get(), app->size_array, grown.get());
  app->tlsdatastruct = std::move(grown);
  app->size_array = want;
}

}  // namespace

ZXPerThreadData_t *create_tls_pool(ZXAppTracing *app, int loc_BusyTLSCnt) {
  if (!app) return nullptr;
  if (hotspotCaptureOn(app) && !app->tlsdatastruct)
    growTlsDataStruct(app, "Create tls data structure for hotspot");

  std::unique_ptr<ZXTlsBlock> made(new (std::nothrow) ZXTlsBlock());
  if (!made) {
    ZX_LOG_OOM(sizeof(ZXPerThreadData_t) * ZX_TLS_BLOCK_SIZE,
               "Create TLS pool of ZXPerThreadData_t", -1);
    return nullptr;
  }
  auto &block = made->records;
  for (int i = 0; i < ZX_TLS_BLOCK_SIZE; ++i) {
    ZXPerThreadData_t &r = block[i];
    r.tlsIdx = app->g_tlsidx++;
    r.owner = app;
    r.free_next = i + 1 < ZX_TLS_BLOCK_SIZE ? &block[i + 1] : nullptr;
    r.tlThreadId = static_cast<long long>(loc_BusyTLSCnt) + i + 1;
    r.tlStatusCode = 200;
    r.qTimeInMS = -1;
  }
  app->gFreeTLSTail = &block[ZX_TLS_BLOCK_SIZE - 1];
  app->gFreeTLSCnt += ZX_TLS_BLOCK_SIZE;
  ZXPerThreadData_t *head = &block[0];
  try {
    app->tlsBlocks.push_back(std::move(made));
  } catch (const std::bad_alloc &) {
    // The block stays reachable through the free list; only its owner slot
    // is missing, so it is kept alive on purpose rather than freed under use.
    (void)made.release();
  }
  return head;
}

ZXPerThreadData_t *get_free_tls_slot(ZXAppTracing *app) {
  if (!app) return nullptr;
  std::lock_guard lk(app->tlsMutex);
  bool made = false;
  if (!app->gFreeTLSHead) {
    app->gFreeTLSHead = create_tls_pool(app, app->gBusyTLSCnt);
    made = app->gFreeTLSHead != nullptr;
  }
  if (hotspotCaptureOn(app) && (made || !app->tlsdatastruct))
    growTlsDataStruct(app, "Reallocating tlsdata");
  ZXPerThreadData_t *r = app->gFreeTLSHead;
  if (!r) return nullptr;

  // gFreeTLSTail stays where it is, even when this empties the list.
  app->gFreeTLSHead = r->free_next;
  r->free_next = r->free_prev = nullptr;
  app->gFreeTLSCnt -= 1;

  if (app->gBusyTLSTail) {
    app->gBusyTLSTail->busy_next = r;
    r->busy_prev = app->gBusyTLSTail;
    r->busy_next = nullptr;
    app->gBusyTLSTail = r;
  } else {
    r->busy_next = r->busy_prev = nullptr;
    app->gBusyTLSHead = app->gBusyTLSTail = r;
  }
  r->isBusy = 1;
  r->fpPhase.store(ZX_FP_IDLE, std::memory_order_relaxed);
  app->gBusyTLSCnt += 1;
  if (!app->tlsdatastruct) app->size_array = app->g_tlsidx;
  return r;
}

void free_tls_slot(ZXAppTracing *app, ZXPerThreadData_t *r) {
  if (!app || !r) {
    ZX_LOG_IF(true, "FLOWPATH", "Error", "Null argument is passed, hence returning");
    return;
  }
  std::lock_guard lk(app->tlsMutex);
  if (!r->isBusy) {
    ZX_FP_LOG(app, 0, "Warning", "Slot %lld is not busy, hence not freed again", r->tlsIdx);
    return;
  }
  // Cleared here, under the lock, so that no taker finds it half cleared and
  // its hotspot entry goes in the same hold.
  clearTransactionFields(r);
  if (app->tlsdatastruct && r->tlsIdx >= 0 && r->tlsIdx < app->size_array)
    app->tlsdatastruct[r->tlsIdx] = TLSDataStruct{};
  r->isBusy = 0;
  app->gFreeTLSCnt += 1;
  app->gBusyTLSCnt -= 1;

  // Behind the tail, which may be a busy record (see the header): then this
  // slot is out of reach until the pool is gone.
  ZXPerThreadData_t *oldTail = app->gFreeTLSTail;
  if (oldTail) oldTail->free_next = r;
  r->free_prev = oldTail;
  r->free_next = nullptr;
  app->gFreeTLSTail = r;
  if (!app->gFreeTLSHead && !oldTail) app->gFreeTLSHead = r;

  if (app->gBusyTLSHead == r) app->gBusyTLSHead = r->busy_next;
  if (app->gBusyTLSTail == r) app->gBusyTLSTail = r->busy_prev;
  if (r->busy_prev) r->busy_prev->busy_next = r->busy_next;
  if (r->busy_next) r->busy_next->busy_prev = r->busy_prev;
  r->busy_next = r->busy_prev = nullptr;
}

void dumpFpFromBusyList(ZXAppTracing *app, ZXIncompleteFPWriter writer, void *user) {
  if (!app) return;
  // A snapshot, as owners give records back (and unlink them) meanwhile. Its
  // records stay valid memory: blocks are never freed. A record given back
  // and taken again before the writer reaches it is the new flowpath's, also
  // busy at the stop, and the writer's own lock decides for it.
  std::vector<ZXPerThreadData_t *> busy;
  int count = 0;
  try {
    std::lock_guard lk(app->tlsMutex);
    count = app->gBusyTLSCnt;
    busy.reserve(static_cast<std::size_t>(std::max(count, 0)));
    for (ZXPerThreadData_t *r = app->gBusyTLSHead; r; r = r->busy_next) busy.push_back(r);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(static_cast<long long>(count) * sizeof(void *), "busy slot snapshot", -1);
    return;
  }
  if (busy.empty()) {
    ZX_FP_LOG(app, 0, "Info", "gBusyTLSHead is null. Hence returning.");
    return;
  }
  if (writer)
    for (ZXPerThreadData_t *r : busy) writer(r, user);
  flushCommonData(app);
}

void initPerThreadSlots(ZXAppTracing *app) {
  if (!app || app->ZXSys.proxyServerFlag) return;
  std::lock_guard lk(app->tlsMutex);
  if (!app->gFreeTLSHead) app->gFreeTLSHead = create_tls_pool(app, app->gBusyTLSCnt);
}
