// The data thread end to end: two producer threads hand 200-byte records to
// dumpData while the data thread sends them to the reference collector on
// loopback, over TCP, WS or WSS (the argument: 1, 2, 3). Reports the rate at
// which the collector receives bytes and how many records the producers had
// to drop.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ZXDataDispatcher.h"
#include "ZXDataThread.h"
#include "ZXProxyInstance.h"
#include "reference_collector.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;

const std::string kRecord = "2," + std::string(197, 'r') + "\n";
constexpr int kProducers = 2;
constexpr int kRecordsPerProducer = 250000;  // 100 MB per round

void BM_DataThreadToCollector(benchmark::State &state) {
  const int protocol = static_cast<int>(state.range(0));
  zxtest::TestPki pki;
  zxref::Config config;
  config.keep_history = false;
  config.transport = protocol == ZX_PROTO_WS    ? zxref::Transport::Ws
                     : protocol == ZX_PROTO_WSS ? zxref::Transport::Wss
                                                : zxref::Transport::Tcp;
  config.tls_cert_file = pki.cert_file;
  config.tls_key_file = pki.key_file;
  zxref::ReferenceCollector collector(std::move(config));
  if (!collector.start()) {
    state.SkipWithError("collector did not start");
    return;
  }
  auto app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  app->linkTimings.dataTick = apr_time_from_msec(100);
  snprintf(app->control.dstIp, sizeof app->control.dstIp, "127.0.0.1");
  app->control.dstPort = collector.port();
  app->lws_active = protocol != ZX_PROTO_TCP;
  app->ActiveAgentProtocolIndex = protocol;
  app->tls.caFile = pki.ca_file;
  check_data_thread(app.get());
  if (!collector.wait_for_connections(zxref::ConnKind::Data, 1, 10s)) {
    state.SkipWithError("no data connection");
    return;
  }
  const std::uint64_t base = collector.snapshot().of(zxref::ConnKind::Data).bytes;
  std::uint64_t expected = base;
  long long dropped = 0;
  for (auto _ : state) {
    const long long dropsBefore = app->ZXSys.discardCount.load();
    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
      producers.emplace_back([] {
        for (int i = 0; i < kRecordsPerProducer; ++i)
          dumpData(tlzxApplication, kRecord.data(), static_cast<int>(kRecord.size()));
      });
    for (auto &t : producers) t.join();
    const long long drops = app->ZXSys.discardCount.load() - dropsBefore;
    dropped += drops;
    expected += (static_cast<std::uint64_t>(kProducers) * kRecordsPerProducer -
                 static_cast<std::uint64_t>(drops)) *
                kRecord.size();
    if (!collector.wait_until(
            [&](const zxref::History &h) { return h.of(zxref::ConnKind::Data).bytes >= expected; },
            60s)) {
      state.SkipWithError("collector did not receive everything");
      break;
    }
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  state.SetBytesProcessed(static_cast<long long>(expected - base));
  state.counters["dropped"] = static_cast<double>(dropped);
  (void)stop_data_thread(app.get());
  publishApplication(nullptr);
}
BENCHMARK(BM_DataThreadToCollector)
    ->ArgName("protocol")
    ->Arg(ZX_PROTO_TCP)
    ->Arg(ZX_PROTO_WS)
    ->Arg(ZX_PROTO_WSS)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

}  // namespace
