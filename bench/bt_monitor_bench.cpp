// Counting a finished transaction whose thread already has a block for its
// BT: the per-transaction cost of the BT monitor, beside a call that builds
// the same transaction and does nothing. Threads count different BTs in
// their own models, so two threads should each run as fast as one; a
// reporter merging every millisecond shows what taking the counts costs the
// counters. With the response-time feed on (argument 1) each update also
// appends a point to the thread's ring, drained into the digests with the
// clock paused whenever it could be full. Each benchmark checks that every
// update was counted, and with the feed every point queued and none dropped.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "ZXBTMonitor.h"
#include "ZXProxyInstance.h"

namespace {

constexpr int kBTsPerThread = 32;
constexpr int kMaxThreads = 2;

std::unique_ptr<ZXProxyInstance_t> app;
std::unique_ptr<std::vector<BTObject>> objects;

void setup(const benchmark::State &state) {
  app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  ZXBTMonitorInit(app->btMonitor, *app);
  // Small digests: the drains run with the clock paused, the ring is what counts.
  app->tDigest.TDigestPercentileBT.delta = 1.0;
  app->tDigest.TDigestPercentileBT.is_enabled = state.range(0);
  objects = std::make_unique<std::vector<BTObject>>(kBTsPerThread * kMaxThreads);
  for (int i = 0; i < kBTsPerThread * kMaxThreads; ++i) {
    (*objects)[i].bt_id = i + 2;
    checkAndIncrementAggrBTDataArray(*app, &(*objects)[i]);
  }
}

void teardown(const benchmark::State &) {
  publishApplication(nullptr);
  app.reset();
  objects.reset();
}

// Thread t counts only BTs t * kBTsPerThread ... + kBTsPerThread - 1.
ZXBTTransaction_t transaction(int thread, int i) {
  ZXBTTransaction_t tx;
  tx.btObj = &(*objects)[thread * kBTsPerThread + i % kBTsPerThread];
  tx.duration = 100 + i % 900;
  tx.category = static_cast<char>(ZXBT_CATEGORY_NORMAL + i % 4);
  tx.cpuTime = 1000000 + i;
  tx.waitTime = i % 7;
  tx.syncTime = i % 5;
  tx.queueTime = i % 3;
  return tx;
}

void warmUp(int thread) {
  for (int i = 0; i < kBTsPerThread; ++i)
    updateCounterAndDurationForBT(*app, transaction(thread, i));
}

ZXMonitorDataModel *modelHere() {
  const long tid = static_cast<long>(syscall(SYS_gettid));
  std::lock_guard models(app->controlThreadTmpLock);
  const auto it = app->btMonitor.threadModels.find(tid);
  return it == app->btMonitor.threadModels.end() ? nullptr : it->second.get();
}

// Transactions the calling thread's model holds; read by the owner.
long long countedHere() {
  ZXMonitorDataModel *m = modelHere();
  if (!m) return -1;
  ZXMonitorDataModel &model = *m;
  std::lock_guard blocks(model.lockForBT);
  long long n = 0;
  for (const auto &block : model.btmDataArray)
    if (block) n += block->counted();
  return n;
}

// The overall count of one report, 0 when it made none.
long long report(std::vector<char> &buf) {
  int len = 0;
  if (!generateAndDumpBTMonitoringRecord(*app, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE)) return 0;
  buf[static_cast<std::size_t>(len)] = '\0';
  const char *all = strstr(buf.data(), "AllTransactions|");
  long long n = 0;
  if (!all || sscanf(all + 16, "%*f %*f %*f %*d %lld", &n) != 1) return -1;
  return n;
}

__attribute__((noinline)) bool emptyCall(ZXAppMonitors &, const ZXBTTransaction_t &tx) {
  benchmark::DoNotOptimize(&tx);
  return true;
}

void BM_EmptyCallBaseline(benchmark::State &state) {
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(emptyCall(*app, transaction(state.thread_index(), i)));
    ++i;
  }
}
BENCHMARK(BM_EmptyCallBaseline)->Setup(setup)->Teardown(teardown)->Arg(0)->Threads(1)->Threads(2);

void BM_UpdateExistingBlock(benchmark::State &state) {
  const int thread = state.thread_index();
  const bool feed = state.range(0) != 0;
  warmUp(thread);
  if (feed) drainResponseTimes(*app);
  const long long before = countedHere();
  ZXMonitorDataModel &model = *modelHere();
  const std::uint64_t headBefore = model.feedHead.load();
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(updateCounterAndDurationForBT(*app, transaction(thread, i)));
    // Every drain empties every ring, so this thread's never fills.
    if (++i % ZXBT_FEED_RING_SIZE == 0 && feed) {
      state.PauseTiming();
      drainResponseTimes(*app);
      state.ResumeTiming();
    }
  }
  const auto n = static_cast<long long>(state.iterations());
  if (countedHere() - before != n) state.SkipWithError("an update was not counted");
  const auto queued = static_cast<long long>(model.feedHead.load() - headBefore);
  if (queued != (feed ? n : 0) || model.feedDropped.load() != 0)
    state.SkipWithError("a response time was not queued exactly once");
}
BENCHMARK(BM_UpdateExistingBlock)
    ->Setup(setup)
    ->Teardown(teardown)
    ->ArgName("feed")
    ->Arg(0)
    ->Arg(1)
    ->Threads(1)
    ->Threads(kMaxThreads);

void BM_UpdateWhileReporting(benchmark::State &state) {
  std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE + 1);
  warmUp(0);
  report(buf);
  std::atomic<bool> stop{false};
  long long reported = 0;
  std::thread reporter([&stop, &reported] {
    std::vector<char> own(ZXBT_REPORT_BUFFER_SIZE + 1);
    while (!stop.load()) {
      reported += report(own);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(updateCounterAndDurationForBT(*app, transaction(0, i)));
    ++i;
  }
  stop = true;
  reporter.join();
  reported += report(buf);
  if (reported != static_cast<long long>(state.iterations()))
    state.SkipWithError("the reports did not count every update exactly once");
}
BENCHMARK(BM_UpdateWhileReporting)->Setup(setup)->Teardown(teardown)->Arg(0);

}  // namespace
