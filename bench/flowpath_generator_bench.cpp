// Method entry and exit on a captured flowpath, against an empty call in the
// same run. Each pair reads the clock as a host does, resolves the method by
// id and appends two blob entries; every ~600 pairs the blob goes out as
// record 3 into a small send-buffer pool that drops once full, as it would
// with no data connection.
#include <benchmark/benchmark.h>

#include "ZXDataDispatcher.h"
#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "flowpath/ZXFlowpathGenerator.h"
#include "flowpath/zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

struct BenchApp {
  BenchApp() {
    tlzxApplication = ZXProxyInstance = &app;
    ZXSysInit(app.ZXSys);
    app.ZXSys.dataBuffMaxCount = 4;
    buff_list_init(&app);
    app.methodEntryLock.create(app.control_pool.get());
    app.methodIDGlobal = 1;
    initPerThreadSlots(&app);
    setMethodHashMapNode(&app, "com.shop.Cart.add|0\n");
  }
  ~BenchApp() { tlzxApplication = ZXProxyInstance = nullptr; }
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
  methodPropProperties *m = getMethodPropFromMethodName("com.shop.Cart.add", node);
  const int id = m->methodId;
  b.app.ZXSys.bciMaxNonServiceMethodsPerFP = 1LL << 62;
  for (auto _ : state) {
    const methodPropProperties *p = getMethodPropFromMethodId(id, node);
    long long start = my_gettimeofday();
    zxMethodEntryEx(&b.app, r, p, start);
    zxMethodExitEx(&b.app, r, p, my_gettimeofday() - start, -1);
  }
  releaseMethodHashMapNode(node);
  free_tls_slot(&b.app, r);
}
BENCHMARK(BM_MethodEntryExit);

}  // namespace
