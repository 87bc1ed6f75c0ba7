// Demo host: drives the agent core as a language agent would, against the
// bundled reference collector, and prints what the agent resolved, what the
// collector received and the trace log the agent wrote.
//
//   demo_host [--home DIR] [--seconds N]
//
// Without --home a fresh temporary home is made and given a settings file
// that points at the in-process collector.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "ZXDataDispatcher.h"
#include "bt/ZXBTMonitor.h"
#include "control_thread.h"
#include "reference_collector.h"
#include "tdigest/pwlb_t_digest_quantile.h"
#include "tdigest_record.h"
#include "zx_agent.h"
#include "zx_agent_internal.h"
#include "zxbt/zxbt_rule_execute.h"

namespace fs = std::filesystem;

namespace {

std::string make_home() {
  std::string tmpl = (fs::temp_directory_path() / "zx-demo-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return {};
  return tmpl;
}

void write_settings(const fs::path &home, int port) {
  fs::create_directories(home / "config");
  std::ofstream out(home / "config" / "zxsettings.conf");
  out << "# written by demo_host\n"
      << "tier=DemoTier\n"
      << "server=DemoServer\n"
      << "instance=DemoInstance\n"
      << "zxcHost=127.0.0.1\n"
      << "zxcPort=" << port << "\n"
      << "ZXC_COMM_PROTOCOL=TCP:" << port << "\n"
      << "backupZxcHostName=127.0.0.1\n"
      << "backupZxcPort=" << port + 1 << "\n";
}

void print_resolved(ZXProxyInstance_t &app) {
  const ZXBCISetting_t &bci = app.ZXBCISetting;
  std::printf("== Agent identity\n");
  std::printf("  pool=%s process=%s agentType=%s\n", gPool, gProcessName, bci.agentType.c_str());
  std::printf("  tier=%s server=%s instance=%s home=%s\n", bci.tierName.c_str(),
              bci.appServerName.c_str(), bci.appName.c_str(), app.ZXSys.zxHomePath.c_str());
  std::printf("== Collector list (%d configured)\n", bci.num_zxc_config);
  for (int i = 0; i < app.zxc_server_arr.capacity(); ++i) {
    const zxc_servers_t &e = app.zxc_server_arr.entries[static_cast<size_t>(i)];
    if (!e.zxc_host.is_set() && e.zxc_port == 0) continue;
    std::printf("  [%d] %s:%u%s%s\n", i, e.zxc_host.c_str(), e.zxc_port,
                e.state ? " (selected)" : "", e.saasServer ? " (SaaS)" : "");
  }
  std::printf("== Protocols: %s\n", app.ZXSys.supportedProtocolsString);
}

void print_trace_logs(const fs::path &home) {
  std::printf("== Trace log\n");
  for (const auto &entry : fs::directory_iterator(home / "logs")) {
    std::printf("-- %s\n", entry.path().filename().c_str());
    std::ifstream in(entry.path());
    std::stringstream ss;
    ss << in.rdbuf();
    std::printf("%s\n", ss.str().c_str());
  }
}

constexpr int kTransactionsPerBT = 60;
const char *const kUrls[] = {"/shop/cart", "/shop/login", "/shop/search"};

// The demo has no instrumented application yet (the SDK comes later), so it
// plays one: it names requests through the BT rules and hands finished
// transactions straight to the BT monitor, each on a short-lived thread as a
// request would run.
int simulate_transactions() {
  int n = 0;
  for (int b = 0; b < 3; ++b) {
    BTObject *bt = get_obj_from_bt_name(kUrls[b], "", nullptr, nullptr, "GET");
    if (!bt) continue;
    for (int i = 0; i < kTransactionsPerBT; ++i, ++n)
      std::thread([bt, b, i] {
        ZXBTTransaction_t tx;
        tx.btObj = bt;
        tx.duration = 40 + 60 * b + (i * 37) % 200 + (i % 20 == 0 ? 900 : 0);
        tx.category = i % 17 == 0 ? 13 : tx.duration > 700 ? 12 : tx.duration > 250 ? 11 : 10;
        tx.cpuTime = tx.duration * 400000;
        updateCounterAndDurationForBT(tx);
      }).join();
  }
  return n;
}

// The collector's view of one BT: record 74 counts summed over intervals,
// record 96 digests merged over periods.
struct BTRow {
  long long count = 0, slow = 0, verySlow = 0, errors = 0;
  double durationSum = 0;
  td_histogram_ptr digest;
};

// "<ids>:<prefix><name>|<values>" -> name (after the prefix's last '>').
std::string bt_name_of(const std::string &field, std::string::size_type end) {
  const auto start = field.rfind('>', end);
  return field.substr(start + 1, end - start - 1);
}

std::map<std::string, BTRow> collector_table(const std::vector<zxref::Record> &records) {
  std::map<std::string, BTRow> rows;
  for (const zxref::Record &r : records) {
    if (r.fields.size() < 2) continue;
    if (r.number == 74) {
      const auto bar = r.fields[1].find('|', r.fields[1].find(':'));
      std::istringstream in(r.fields[1].substr(bar + 1));
      std::vector<double> v;
      for (double x; in >> x;) v.push_back(x);
      if (v.size() < 40) continue;
      BTRow &row = rows[bt_name_of(r.fields[1], bar)];
      row.count += static_cast<long long>(v[4]);
      row.durationSum += v[1] * v[4];
      row.slow += static_cast<long long>(v[14]);
      row.verySlow += static_cast<long long>(v[18]);
      row.errors += static_cast<long long>(v[22]);
    } else if (r.number == 96) {
      auto decoded = zxref::decode_tdigest_record(r);
      if (!decoded || !decoded->digest) continue;
      BTRow &row = rows[bt_name_of(decoded->name, decoded->name.size())];
      if (!row.digest) {
        row.digest = std::move(decoded->digest);
      } else {
        pwlb_t_digest_merge(row.digest.get(), decoded->digest.get());
      }
    }
  }
  return rows;
}

void print_bt_table(const std::map<std::string, BTRow> &rows) {
  std::printf("== Per-BT figures from records 74 and 96 (collector side)\n");
  std::printf("  %-16s %6s %9s %5s %9s %6s %8s %8s %8s\n", "BT", "count", "avg ms", "slow",
              "very slow", "errors", "p50", "p90", "p99");
  for (const auto &[name, row] : rows) {
    auto q = [&row](double x) { return row.digest ? td_value_at(row.digest.get(), x) : 0.0; };
    std::printf("  %-16s %6lld %9.1f %5lld %9lld %6lld %8.1f %8.1f %8.1f\n", name.c_str(),
                row.count, row.count ? row.durationSum / row.count : 0.0, row.slow, row.verySlow,
                row.errors, q(0.5), q(0.9), q(0.99));
  }
  std::printf(
      "  (p50/p90/p99 are over each request thread's interval total, one point per\n"
      "   thread per interval, as the agent feeds its digests)\n");
}

}  // namespace

int main(int argc, char **argv) {
  std::string home;
  int seconds = 2;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--home" && i + 1 < argc)
      home = argv[++i];
    else if (arg == "--seconds" && i + 1 < argc)
      seconds = std::atoi(argv[++i]);
    else {
      std::fprintf(stderr, "usage: %s [--home DIR] [--seconds N]\n", argv[0]);
      return 2;
    }
  }

  zxref::Config config;
  zxref::ReferenceCollector collector(config);
  if (!collector.start()) {
    std::fprintf(stderr, "collector: %s\n", collector.error().c_str());
    return 1;
  }
  std::printf("== Reference collector listening on 127.0.0.1:%u\n", collector.port());

  bool fresh = home.empty();
  if (fresh) home = make_home();
  if (!fs::exists(fs::path(home) / "config" / "zxsettings.conf"))
    write_settings(home, collector.port());
  setenv("ZXHOME", home.c_str(), 1);

  char pool[] = "demo_pool";
  char process[] = "demo_process";
  char type[] = "CPP";
  agent_init(pool, 1, process, type);
  ZXProxyInstance_t *app = tlzxApplication;
  if (!app) return 1;
  app->ZXSys.controlTraceLevel = 3;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (app->controlThreadState != ZX_CTRL_CONFIGURED &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  print_resolved(*app);

  using namespace std::chrono_literals;
  if (collector.wait_for_connections(zxref::ConnKind::Control, 1, 10s)) {
    // A run as the collector drives it: start, records, stop.
    // A one-second monitoring interval, and record 96 every interval.
    collector.send_start(
        "status=running;testIdx=1;zxMonitorInterval=1;"
        "tDigestPercentileBT=1%200%202%20100%20100%201%201");
    if (collector.wait_for_record(99, 10s)) {
      const long long total = simulate_transactions();
      collector.wait_until(
          [total](const zxref::History &h) {
            auto rows = collector_table(h.records);
            auto all = rows.find("AllTransactions");
            return all != rows.end() && all->second.count >= total && all->second.digest &&
                   td_total_count(all->second.digest.get()) >= total;
          },
          10s);
    }
    collector.send_stop();
    collector.wait_for_control_line(
        [](std::string_view l) { return l.rfind("zx_control_rep:action=stop", 0) == 0; }, 10s);
  }
  zxref::History seen = collector.snapshot();
  std::printf("== Collector received %zu connection(s), %zu record(s)\n", seen.accepted,
              seen.records.size());
  for (const zxref::Line &l : seen.lines_of(zxref::ConnKind::Control))
    std::printf("  control <- %s\n", zxref::printable(l.text, 160).c_str());
  for (const zxref::Line &l : seen.lines_of(zxref::ConnKind::Data))
    std::printf("  data    <- %s\n", zxref::printable(l.text, 160).c_str());
  for (const zxref::Line &l : seen.lines_of(zxref::ConnKind::AutoSensor))
    std::printf("  auto-sensor <- %s\n", zxref::printable(l.text, 160).c_str());
  std::printf("  records dropped by the agent: %lld\n", app->ZXSys.discardCount.load());
  print_bt_table(collector_table(seen.records));

  agent_shutdown();
  print_trace_logs(home);
  collector.stop();
  if (fresh) fs::remove_all(home);
  return 0;
}
