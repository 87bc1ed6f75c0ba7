// Method entry and exit on a captured flowpath, and a whole flowpath from
// start to end and reset, against an empty call in the same run. Each pair
// reads the clock as a host does, resolves the method by id and appends two
// blob entries; every ~600 pairs the blob goes out as record 3 into a small
// send-buffer pool that drops once full, as it would with no data
// connection.
#include <benchmark/benchmark.h>

#include "ZXDataDispatcher.h"
#include "ZXFlowpathGenerator.h"
#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "zxbt_bt_object.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

struct BenchApp {
  BenchApp() {
    publishApplication(&app);
    app.ZXSys.dataBuffMaxCount = 4;
    buff_list_init(&app);
    app.methodIDGlobal = 1;
    initPerThreadSlots(&app);
    setMethodHashMapNode(&app, "com.shop.Cart.add|0\n");
  }
  ~BenchApp() { publishApplication(nullptr); }
  ZXProxyInstance_t app;
};

__attribute__((noinline)) void emptyCall(ZXPerThreadData_t *r, int mid) {
  benchmark::DoNotOptimize(r);
  benchmark::DoNotOptimize(mid);
}

void BM_EmptyCallBaseline(benchmark::State &state) {
  ZXPerThreadData_t r;
  for (auto _ : state) {
    emptyCall(&r, 2);
    emptyCall(&r, 2);
  }
}
BENCHMARK(BM_EmptyCallBaseline);

void BM_MethodEntryExit(benchmark::State &state) {
  BenchApp b;
  ZXPerThreadData_t *r = get_free_tls_slot(&b.app);
  r->tlIsFPCaptured = 1;
  r->flowpathInstance = 1001;
  r->tlFlowPathTimeStampInMS = my_gettimeofday();
  node_t *node = acquireMethodHashMapNode(&b.app);
  methodPropProperties *m = getMethodPropFromMethodName(tlzxApplication, "com.shop.Cart.add", node);
  const int id = m->methodId;
  b.app.ZXSys.bciMaxNonServiceMethodsPerFP = 1LL << 62;
  for (auto _ : state) {
    const methodPropProperties *p = getMethodPropFromMethodId(id, node);
    long long start = my_gettimeofday();
    zxMethodEntryEx(&b.app, r, p, start);
    zxMethodExitEx(&b.app, r, p, my_gettimeofday() - start, -1);
  }
  if (r->seqNum != state.iterations() || r->tlNonServiceMethodCount != state.iterations())
    state.SkipWithError("method events were not written");
  releaseMethodHashMapNode(node);
  free_tls_slot(&b.app, r);
}
BENCHMARK(BM_MethodEntryExit);

// Slot, id, BT by URL, method-table reference, records 2 and 4, BT counters.
void BM_FlowpathStartEnd(benchmark::State &state) {
  BenchApp b;
  b.app.maxStates = 128;
  b.app.allSlow = 3000;
  b.app.allVerySlow = 5000;
  ZXBTConfigModelInit(*tlzxApplication);
  b.app.Server.testRunRunning = 1;
  for (auto _ : state) {
    ZXPerThreadData_t *r =
        startFP(&b.app, nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
    if (!r) {
      state.SkipWithError("no flowpath");
      break;
    }
    endFP(&b.app, r, 200, 0, 0);
    if (!r->tlIsFPHeaderDumped) {
      state.SkipWithError("records 2 and 4 were not written");
      break;
    }
    reset(&b.app, r);
  }
}
BENCHMARK(BM_FlowpathStartEnd);

}  // namespace
