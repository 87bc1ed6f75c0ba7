// Producer cost of dumpData: the hot path every record of the agent takes.
#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "ZXDataDispatcher.h"
#include "ZXProxyInstance.h"

namespace {

const std::string kRecord = std::string(199, 'r') + "\n";

std::unique_ptr<ZXProxyInstance_t> makeApp(int size, int count) {
  auto app = std::make_unique<ZXProxyInstance_t>();
  app->ZXSys.bciDataBufferMaxSize = size;
  app->ZXSys.dataBuffMaxCount = count;
  publishApplication(app.get());
  if (buff_list_init(app.get()) != 0) return nullptr;
  return app;
}

// Sends (discards) every queued buffer, as an infinitely fast data thread.
void drain(ZXSendBufferPool &pool) {
  while (nioSettings_t *b = sendBufferHead(pool)) markBufferSent(pool, b, b->use_len);
}

// Default-sized pool; the producer itself drains once per filled buffer
// (about every 500 records), so the amortised cost of that is in the figure.
void BM_DumpFreeBuffer(benchmark::State &state) {
  auto app = makeApp(102400, 1000);
  ZXSendBufferPool &pool = app->sendBuffers;
  for (auto _ : state) {
    if (dumpData(tlzxApplication, kRecord.data(), static_cast<int>(kRecord.size())) != 0)
      state.SkipWithError("drop");
    if (pool.readList) drain(pool);  // racy peek is fine: one thread
  }
  state.SetBytesProcessed(state.iterations() * static_cast<long long>(kRecord.size()));
}
BENCHMARK(BM_DumpFreeBuffer);

// Every buffer is queued and nothing drains: each record is a counted drop.
void BM_DumpPoolFull(benchmark::State &state) {
  auto app = makeApp(102400, 4);
  while (dumpData(tlzxApplication, kRecord.data(), static_cast<int>(kRecord.size())) == 0) {
  }
  for (auto _ : state)
    benchmark::DoNotOptimize(
        dumpData(tlzxApplication, kRecord.data(), static_cast<int>(kRecord.size())));
}
BENCHMARK(BM_DumpPoolFull);

// Two producers and a background sender that keeps buffers free.
std::unique_ptr<ZXProxyInstance_t> gApp;
std::thread gSender;
std::atomic<bool> gStop{false};

void startShared(const benchmark::State &) {
  gApp = makeApp(102400, 1000);
  gStop = false;
  gSender = std::thread([] {
    while (!gStop.load(std::memory_order_relaxed)) drain(gApp->sendBuffers);
  });
}
void stopShared(const benchmark::State &) {
  gStop = true;
  gSender.join();
  gApp.reset();
  publishApplication(nullptr);
}

void BM_DumpTwoProducers(benchmark::State &state) {
  long long dropped = 0;
  for (auto _ : state)
    dropped += dumpData(tlzxApplication, kRecord.data(), static_cast<int>(kRecord.size())) != 0;
  state.counters["dropped"] =
      benchmark::Counter(static_cast<double>(dropped), benchmark::Counter::kAvgThreads);
}
BENCHMARK(BM_DumpTwoProducers)->Threads(2)->Setup(startShared)->Teardown(stopShared)->UseRealTime();

}  // namespace
