// The proxy's decoder: frames cut from a read and replayed into a live
// engine, in frames per second on one core, against an empty call per frame
// from the same run. Each transaction is nine frames (start, three method
// entries and exits, end, reset), 64 of them in a 40 KiB read; records 2
// and 4 go into a small send-buffer pool that drops once full, as with no
// data connection. The answer is checked: every frame replayed, every
// flowpath started, written out (two records each) and reset.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "ZXDataDispatcher.h"
#include "ZXMethodManager.h"
#include "ZXProxyApplications.h"
#include "ZXProxyInstance.h"
#include "zxbt_rule_parser.h"
#include "zxlb_decode.h"
#include "zxlb_frame_build.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kTransactions = 64;
constexpr int kFramesPerTransaction = 9;
constexpr long long kStart = 1'700'000'000'000LL;

template <typename T>
void put(std::string &out, ZXFrameType type, T &fixed, std::initializer_list<ZXFrameString> s) {
  ZXFrameBuffer b;
  b.build(type, &fixed, sizeof fixed, s);
  out.append(b.data(), static_cast<std::size_t>(b.size()));
}

std::string read(const char *const (&methods)[3]) {
  std::string out;
  for (long long id = 1; id <= kTransactions; ++id) {
    transactionStartVar_t s;
    std::memset(&s, 0, sizeof s);
    s.url = 10;
    s.flowpathinstance = id;
    s.startTimeFP = kStart;
    put(out, ZX_FRAME_TRANSACTION_START, s, {{"/shop/cart", 10}});
    for (int i = 0; i < 3; ++i) {
      MethodEntryVar_t e;
      std::memset(&e, 0, sizeof e);
      e.flowpathinstance = id;
      e.startTime = kStart + i;
      e.methodName = static_cast<int>(std::strlen(methods[i]));
      put(out, ZX_FRAME_METHOD_ENTRY, e, {frameString(methods[i])});
    }
    for (int i = 2; i >= 0; --i) {
      MethodExitVar_t x;
      std::memset(&x, 0, sizeof x);
      x.flowpathinstance = id;
      x.eventType = 1;
      x.cpuTime = -1;
      x.duration = 1;
      x.endTime = kStart + 6 - i;
      x.methodName = static_cast<int>(std::strlen(methods[i]));
      put(out, ZX_FRAME_METHOD_EXIT, x, {frameString(methods[i])});
    }
    transactionEnd_t end;
    std::memset(&end, 0, sizeof end);
    end.statuscode = 200;
    end.flowpathinstance = id;
    end.endTime = kStart + 8;
    put(out, ZX_FRAME_TRANSACTION_END, end, {});
    transactionReset_t reset{id};
    put(out, ZX_FRAME_TRANSACTION_RESET, reset, {});
  }
  return out;
}

const char *const kMethods[3] = {"com.shop.Cart.add", "com.shop.Cart.price",
                                 "com.shop.Stock.check"};

__attribute__((noinline)) void emptyCall(const char *frame, int n) {
  benchmark::DoNotOptimize(frame);
  benchmark::DoNotOptimize(n);
}

void BM_EmptyCallPerFrameBaseline(benchmark::State &state) {
  const std::string bytes = read(kMethods);
  for (auto _ : state)
    for (int i = 0; i < kTransactions * kFramesPerTransaction; ++i) emptyCall(bytes.data(), i);
  state.SetItemsProcessed(state.iterations() * kTransactions * kFramesPerTransaction);
}
BENCHMARK(BM_EmptyCallPerFrameBaseline);

void BM_DecodeAndReplay(benchmark::State &state) {
  ZXProxyInstance_t app;
  publishApplication(&app);
  app.ZXSys.dataBuffMaxCount = 4;
  buff_list_init(&app);
  initPerThreadSlots(&app);
  setMethodHashMapNode(&app, "com.shop.Cart.add|0\n");
  ZXBTConfigModelInit(app);
  app.Server.testRunRunning = 1;
  create_fpi_tls_map(app);
  const int index = zxProxyApplications().add(app);
  const int proc = zxProxyApplications().addProcess(index);
  const std::string bytes = read(kMethods);
  // Names the BT and the methods (records 7 and 5) before the count starts.
  scanFrames(app, bytes.data(), bytes.size(), proc, 0);
  const long long started = counterforfpi_tls_map.load();
  const unsigned long long records = readSendCounts(app.sendBuffers).records;
  std::size_t replayed = 0;
  for (auto _ : state) replayed += scanFrames(app, bytes.data(), bytes.size(), proc, 0).replayed;
  const auto rounds = static_cast<long long>(state.iterations());
  if (replayed != static_cast<std::size_t>(rounds * kTransactions * kFramesPerTransaction) ||
      counterforfpi_tls_map.load() - started != rounds * kTransactions ||
      readSendCounts(app.sendBuffers).records - records !=
          static_cast<unsigned long long>(2 * rounds * kTransactions) ||
      !app.fpi_tls_map->empty())
    state.SkipWithError("frames were not all replayed into whole flowpaths");
  state.SetItemsProcessed(rounds * kTransactions * kFramesPerTransaction);
  free_fpi_tls_map(app);
  zxProxyApplications().clear();
  publishApplication(nullptr);
}
BENCHMARK(BM_DecodeAndReplay);

}  // namespace
