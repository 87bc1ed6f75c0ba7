// Hot paths of transaction tracing: taking and giving back a slot, and
// resolving a method by id (entry and exit) or by name (first sight).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "zxlb_mem_pool.h"

namespace {

struct BenchApp {
  BenchApp() {
    publishApplication(&app);
    app.methodIDGlobal = 1;
    initPerThreadSlots(&app);
  }
  ~BenchApp() { publishApplication(nullptr); }
  ZXProxyInstance_t app;
};

void BM_SlotTakeGive(benchmark::State &state) {
  BenchApp b;
  for (auto _ : state) {
    ZXPerThreadData_t *r = get_free_tls_slot(&b.app);
    benchmark::DoNotOptimize(r);
    free_tls_slot(&b.app, r);
  }
}
BENCHMARK(BM_SlotTakeGive);

// A realistic profile: 2,000 methods; lookups spread over all of them.
std::string profileText(int n) {
  std::string text;
  for (int i = 0; i < n; ++i) text += "com.shop.Service" + std::to_string(i) + ".handle|0\n";
  return text;
}

void BM_MethodById(benchmark::State &state) {
  BenchApp b;
  setMethodHashMapNode(&b.app, profileText(2000).c_str());
  node_t *node = acquireMethodHashMapNode(&b.app);
  int id = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(getMethodPropFromMethodId(id, node));
    id = id == 2000 ? 1 : id + 1;
  }
  releaseMethodHashMapNode(node);
}
BENCHMARK(BM_MethodById);

void BM_MethodByName(benchmark::State &state) {
  BenchApp b;
  setMethodHashMapNode(&b.app, profileText(2000).c_str());
  node_t *node = acquireMethodHashMapNode(&b.app);
  std::vector<std::string> names;
  for (int i = 0; i < 2000; ++i)
    names.push_back("com.shop.Service" + std::to_string(i) + ".handle");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(getMethodPropFromMethodName(tlzxApplication, names[i].c_str(), node));
    i = i + 1 == names.size() ? 0 : i + 1;
  }
  releaseMethodHashMapNode(node);
}
BENCHMARK(BM_MethodByName);

}  // namespace
