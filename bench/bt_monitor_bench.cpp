// Counting a finished transaction whose thread already has a block for its
// BT: the per-transaction cost of the BT monitor (one uncontended lock, no
// allocation). Threads count into their own models, so two threads should
// each run as fast as one; a reporter thread merging every millisecond shows
// what its lock hold costs the counters.
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "ZXBTMonitor.h"
#include "ZXProxyInstance.h"

namespace {

std::unique_ptr<ZXProxyInstance_t> app;
std::unique_ptr<std::vector<BTObject>> objects;

void setup(const benchmark::State &) {
  app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  ZXBTMonitorInit(app->btMonitor, *app);
  objects = std::make_unique<std::vector<BTObject>>(64);
  for (int i = 0; i < 64; ++i) {
    (*objects)[i].bt_id = i + 2;
    checkAndIncrementAggrBTDataArray(*tlzxApplication, &(*objects)[i]);
  }
}

void teardown(const benchmark::State &) {
  publishApplication(nullptr);
  app.reset();
  objects.reset();
}

ZXBTTransaction_t transaction(int i) {
  ZXBTTransaction_t tx;
  tx.btObj = &(*objects)[i % 64];
  tx.duration = 100 + i % 900;
  tx.category = static_cast<char>(ZXBT_CATEGORY_NORMAL + i % 4);
  tx.cpuTime = 1000000 + i;
  tx.waitTime = i % 7;
  tx.syncTime = i % 5;
  tx.queueTime = i % 3;
  return tx;
}

void BM_UpdateExistingBlock(benchmark::State &state) {
  for (int i = 0; i < 64; ++i) updateCounterAndDurationForBT(*tlzxApplication, transaction(i));
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(updateCounterAndDurationForBT(*tlzxApplication, transaction(i)));
    ++i;
  }
}
BENCHMARK(BM_UpdateExistingBlock)->Setup(setup)->Teardown(teardown)->Threads(1)->Threads(2);

void BM_UpdateWhileReporting(benchmark::State &state) {
  for (int i = 0; i < 64; ++i) updateCounterAndDurationForBT(*tlzxApplication, transaction(i));
  std::atomic<bool> stop{false};
  std::thread reporter;
  if (state.thread_index() == 0)
    reporter = std::thread([&stop] {
      std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
      while (!stop) {
        int len = 0;
        generateAndDumpBTMonitoringRecord(*app, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(updateCounterAndDurationForBT(*tlzxApplication, transaction(i)));
    ++i;
  }
  stop = true;
  if (reporter.joinable()) reporter.join();
}
BENCHMARK(BM_UpdateWhileReporting)->Setup(setup)->Teardown(teardown);

}  // namespace
