// The SDK as a host calls it, with the data thread shipping every record to
// the reference collector on loopback: a whole transaction (records 2 and 4
// included) and method events from two application threads, against an
// empty call in the same run. "dropped" counts records the send buffers had
// to drop while the collector read; "pool_rss_MB" is how much of the send
// buffers' storage the run made resident.
//
// And the calls a host makes while no run is going (a collector outage):
// zx_bt_begin gives NULL and every later call gets that NULL handle. Each is
// called through a pointer, as a host reaches a shared library, beside an
// empty function called the same way.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ZXDataDispatcher.h"
#include "ZXDataThread.h"
#include "ZXProxyInstance.h"
#include "reference_collector.h"
#include "zx_sdk.h"
#include "zxbt_bt_object.h"
#include "zxlb_mem_pool.h"

namespace {

using namespace std::chrono_literals;

// One agent for the whole process, as a host has: made on first use and
// left running until exit.
struct BenchAgent {
  BenchAgent() {
    zxref::Config config;
    config.keep_history = false;
    collector = std::make_unique<zxref::ReferenceCollector>(std::move(config));
    if (!collector->start()) return;
    app = std::make_unique<ZXProxyInstance_t>();
    publishApplication(app.get());
    app->linkTimings.dataTick = apr_time_from_msec(10);
    snprintf(app->control.dstIp, sizeof app->control.dstIp, "127.0.0.1");
    app->control.dstPort = collector->port();
    app->methodIDGlobal = 1;
    app->maxStates = 128;
    app->allSlow = 3000;
    app->allVerySlow = 5000;
    app->ZXSys.bciMaxNonServiceMethodsPerFP = 1LL << 62;
    initPerThreadSlots(app.get());
    ZXBTConfigModelInit(*tlzxApplication);
    check_data_thread(app.get());
    if (!collector->wait_for_connections(zxref::ConnKind::Data, 1, 10s)) return;
    std::this_thread::sleep_for(100ms);  // the data thread finishes its greeting
    app->Server.testRunRunning = 1;
    zx_set_init_pause_ms(0);
    zx_init();
    ready = true;
  }
  std::unique_ptr<zxref::ReferenceCollector> collector;
  std::unique_ptr<ZXProxyInstance_t> app;
  bool ready = false;
};

// Resident bytes of the send buffers' storage: the pool's share of the host's
// RSS.
double poolResidentMB(const ZXSendBufferPool &pool) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t bytes = pool.storage.get_deleter().bytes;
  std::vector<unsigned char> inCore((bytes + page - 1) / page);
  if (!pool.storage || mincore(pool.storage.get(), bytes, inCore.data()) != 0) return -1;
  std::size_t n = 0;
  for (unsigned char c : inCore) n += c & 1;
  return static_cast<double>(n * page) / (1024.0 * 1024.0);
}

BenchAgent &agent() {
  static BenchAgent *a = new BenchAgent();  // outlives the benchmarks' threads
  return *a;
}

const std::string kUrl = "/shop/catalog/category/electronics/product/display?id=4242&v=123";
static_assert(sizeof("/shop/catalog/category/electronics/product/display?id=4242&v=123") == 65);

__attribute__((noinline)) void emptyCall(void *p) {
  benchmark::DoNotOptimize(p);
}

void BM_EmptyCallBaseline(benchmark::State &state) {
  int x = 0;
  for (auto _ : state) emptyCall(&x);
}
BENCHMARK(BM_EmptyCallBaseline);

void BM_BtBeginEnd(benchmark::State &state) {
  BenchAgent &a = agent();
  if (!a.ready) {
    state.SkipWithError("agent did not start");
    return;
  }
  const long long drops = a.app->ZXSys.discardCount.load();
  const unsigned long long records = readSendCounts(a.app->sendBuffers).records;
  int failed = 0;
  for (auto _ : state) {
    zxBTHandle bt = zx_bt_begin(kUrl.c_str(), nullptr);
    failed |= zx_bt_end(bt, 200);
    failed |= zx_bt_release(bt);
  }
  // Records 2 and 4 of every transaction reached the send buffers (sent,
  // queued or counted as dropped).
  const unsigned long long handed = readSendCounts(a.app->sendBuffers).records - records;
  if (failed || handed < 2 * static_cast<unsigned long long>(state.iterations()))
    state.SkipWithError("a transaction failed or did not write records 2 and 4");
  state.counters["dropped"] = static_cast<double>(a.app->ZXSys.discardCount.load() - drops);
  state.counters["pool_rss_MB"] = poolResidentMB(a.app->sendBuffers);
}
BENCHMARK(BM_BtBeginEnd);

// Method events by name on one flowpath per thread; a new flowpath every 100
// pairs keeps the blobs flowing as records 3 and 4.
void BM_MethodEvents(benchmark::State &state) {
  BenchAgent &a = agent();
  if (!a.ready) {
    state.SkipWithError("agent did not start");
    return;
  }
  const long long drops = a.app->ZXSys.discardCount.load();
  zxBTHandle bt = zx_bt_begin("/orders/list", nullptr);
  int pairs = 0;
  bool wrong = !bt;
  for (auto _ : state) {
    zx_method_entry(bt, "com.shop.OrderService.list");
    zx_method_exit(bt, "com.shop.OrderService.list");
    if (++pairs == 100) {
      pairs = 0;
      // The request's entry and one entry per pair went into the blob.
      wrong |= !bt || bt->seqNum != 101 || bt->methodStackDepth != 0;
      zx_bt_end(bt, 200);
      zx_bt_release(bt);
      bt = zx_bt_begin("/orders/list", nullptr);
    }
  }
  zx_bt_end(bt, 200);
  zx_bt_release(bt);
  if (wrong) state.SkipWithError("method events were not written");
  state.SetItemsProcessed(2 * state.iterations());
  if (state.thread_index() == 0)
    state.counters["dropped"] = static_cast<double>(a.app->ZXSys.discardCount.load() - drops);
}
BENCHMARK(BM_MethodEvents)->Threads(1)->Threads(2)->UseRealTime();

template <typename R, typename... P, typename... A>
void BM_NoRun(benchmark::State &state, R (*call)(P...), A... args) {
  BenchAgent &a = agent();
  if (!a.ready) {
    state.SkipWithError("agent did not start");
    return;
  }
  R (*volatile fn)(P...) = call;  // read each time: no inlining, as through a PLT
  a.app->Server.testRunRunning = 0;
  for (auto _ : state) {
    if constexpr (std::is_void_v<R>)
      fn(args...);
    else
      benchmark::DoNotOptimize(fn(args...));
  }
  a.app->Server.testRunRunning = 1;
}
constexpr zxBTHandle kNoBT = nullptr;
constexpr zxIPCallOutHandle kNoIP = nullptr;
BENCHMARK_CAPTURE(BM_NoRun, empty_call_baseline, &emptyCall, nullptr);
BENCHMARK_CAPTURE(BM_NoRun, zx_bt_begin, &zx_bt_begin, "/shop/cart", nullptr);
BENCHMARK_CAPTURE(BM_NoRun, zx_bt_end, &zx_bt_end, kNoBT, 200);
BENCHMARK_CAPTURE(BM_NoRun, zx_bt_release, &zx_bt_release, kNoBT);
BENCHMARK_CAPTURE(BM_NoRun, zx_bt_store, &zx_bt_store, kNoBT, "order-42");
BENCHMARK_CAPTURE(BM_NoRun, zx_method_entry, &zx_method_entry, kNoBT, "Cart.load");
BENCHMARK_CAPTURE(BM_NoRun, zx_method_exit, &zx_method_exit, kNoBT, "Cart.load");
BENCHMARK_CAPTURE(BM_NoRun, zx_ip_db_callout_begin, &zx_ip_db_callout_begin, kNoBT, "orders-db",
                  "SELECT 1");
BENCHMARK_CAPTURE(BM_NoRun, zx_ip_db_callout_end, &zx_ip_db_callout_end, kNoBT, kNoIP);
BENCHMARK_CAPTURE(BM_NoRun, zx_ip_http_callout_begin, &zx_ip_http_callout_begin, kNoBT,
                  "pay.example", "/charge");
BENCHMARK_CAPTURE(BM_NoRun, zx_ip_http_callout_end, &zx_ip_http_callout_end, kNoBT, kNoIP);

}  // namespace
