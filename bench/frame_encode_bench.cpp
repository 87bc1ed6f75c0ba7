// An application process in proxy mode: what a method entry and exit cost
// the host when each is encoded as a frame and queued for the proxy.
#include <benchmark/benchmark.h>

#include <memory>

#include "ZXDataDispatcher.h"
#include "ZXFlowpathGenerator.h"
#include "ZXProxyInstance.h"
#include "zxlb_mem_pool.h"

namespace {

[[gnu::noinline]] void emptyCall(ZXPerThreadData_t *) { benchmark::ClobberMemory(); }
void (*volatile gEmpty)(ZXPerThreadData_t *) = emptyCall;

struct ProxyApp {
  std::unique_ptr<ZXProxyInstance_t> app = std::make_unique<ZXProxyInstance_t>();
  ZXPerThreadData_t *record = nullptr;
  ProxyApp() {
    app->ZXSys.proxyMode = 1;
    app->ZXSys.bciDataBufferMaxSize = 102400;
    app->ZXSys.dataBuffMaxCount = 1000;
    app->Server.testRunRunning = 1;
    publishApplication(app.get());
    initPerThreadSlots(app.get());
    if (buff_list_init(app.get()) == 0)
      record = startFP(app.get(), nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr,
                       0, 0);
  }
  ~ProxyApp() {
    if (record) releaseFP(app.get(), record);
    publishApplication(nullptr);
  }
  // Sends (discards) every queued buffer, as an infinitely fast data thread.
  void drain() {
    ZXSendBufferPool &pool = app->sendBuffers;
    while (nioSettings_t *b = sendBufferHead(pool)) markBufferSent(pool, b, b->use_len);
  }
};

void BM_EmptyCallBaseline(benchmark::State &state) {
  ProxyApp p;
  for (auto _ : state) gEmpty(p.record);
}
BENCHMARK(BM_EmptyCallBaseline);

// zxMethodEntry + zxMethodExit by name, as the SDK calls them, per pair: two
// frames (73 + 96 bytes with a 9-byte name) queued; the producer drains once
// per filled buffer, so that share is in the figure too.
void BM_EntryExitPairEncoded(benchmark::State &state) {
  ProxyApp p;
  if (!p.record) return state.SkipWithError("no flowpath");
  ZXProxyInstance_t *app = p.app.get();
  ZXSendBufferPool &pool = app->sendBuffers;
  const unsigned long long before = readSendCounts(pool).records;
  for (auto _ : state) {
    zxMethodEntry(app, nullptr, p.record, "Cart.load", nullptr, nullptr, 1, nullptr, 0, 0);
    zxMethodExit(app, nullptr, p.record, "Cart.load", -1, 200, nullptr, -1, 1, 0, 0, 1, 0, 0);
    if (pool.readList) p.drain();  // racy peek is fine: one thread
  }
  const ZXSendCounts c = readSendCounts(pool);
  if (c.records - before != 2 * static_cast<unsigned long long>(state.iterations()) ||
      c.lost() != 0)
    state.SkipWithError("a frame was not queued");
}
BENCHMARK(BM_EntryExitPairEncoded);

}  // namespace
