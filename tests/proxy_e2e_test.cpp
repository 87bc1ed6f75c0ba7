// The proxy end to end with real processes: the zx_proxy_server program,
// started as a person starts it, between short-lived demo hosts in proxy mode
// and an in-test reference collector. Every transaction a host traced must
// reach the collector whole, the BT counters must add up to what the hosts
// ran, and an application stays one agent to the collector however many of
// its processes come and go, also when the proxy or the collector restarts.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ZXProxyRegistration.h"
#include "bt_table.h"
#include "chaos_support.h"
#include "flowpath_decode.h"
#include "reference_collector.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using chaos::Process;
using zxref::ConnKind;

// Short-lived processes started in all, and at once.
constexpr int kProcesses = 200;
constexpr int kAtOnce = 4;
constexpr int kRequests = 20;
const std::vector<std::string> kPages = {"/shop/cart", "/shop/checkout", "/account/login",
                                         "/search/products/"};
// The collector's start: BT counters every second, so that they are all in
// soon after the last process.
constexpr const char *kStart = "zxMonitorInterval=1;status=running";

// The BT a page is counted under: the URL without a trailing '/'.
std::string btOf(std::string page) {
  if (page.size() > 1 && page.back() == '/') page.pop_back();
  return page;
}

// What the collector received, per application, tallied as it arrives.
struct AppTally {
  std::size_t controlConnections = 0;
  std::size_t startsAnswered = 0;
  zxref::FlowpathStore flowpaths;
  zxref::BTTable bts;
};

// A reference collector that starts a run on every control connection and
// tallies records by the application whose data connection carried them.
// stop() and start() again on the same port stand for a collector restart;
// the tallies are then the new collector's.
class Collector {
 public:
  Collector() { start(); }
  void start() {
    zxref::Config config;
    config.port = port_;
    config.keep_history = false;
    config.observer = [this](const zxref::Event &e) { observe(e); };
    std::lock_guard lk(mu_);
    connApp_.clear();
    apps_.clear();  // a restarted collector starts from nothing
    ref_ = std::make_unique<zxref::ReferenceCollector>(std::move(config));
    ASSERT_TRUE(ref_->start()) << ref_->error();
    port_ = ref_->port();
  }
  void stop() { ref_->stop(); }
  bool controlClosed() const { return ref_->wait_for_closed(ConnKind::Control, 1, 10s); }
  std::uint16_t port() const { return port_; }

  template <typename F>
  auto read(const std::string &app, F f) {
    std::lock_guard lk(mu_);
    return f(apps_[app]);
  }
  template <typename Pred>
  bool waitFor(const std::string &app, Pred pred, std::chrono::milliseconds timeout = 30s) {
    return zxtest::wait_until([&] { return read(app, pred); }, timeout);
  }

 private:
  void observe(const zxref::Event &e) {
    using Type = zxref::Event::Type;
    std::unique_lock lk(mu_);
    if (e.type == Type::Request) {
      const std::string app = parseProxyRequest(e.text).appName;
      connApp_[e.conn_id] = app;
      if (e.kind != ConnKind::Control) return;
      ++apps_[app].controlConnections;
      zxref::ReferenceCollector *ref = ref_.get();
      lk.unlock();
      ref->send_to(e.conn_id, zxref::command("start_instrumentation", kStart));
    } else if (e.type == Type::Line && e.kind == ConnKind::Control &&
               e.text.starts_with("zx_control_rep:action=start_instrumentation")) {
      ++apps_[connApp_[e.conn_id]].startsAnswered;
    } else if (e.type == Type::Record) {
      AppTally &t = apps_[connApp_[e.conn_id]];
      if (!t.bts.add(e.record)) t.flowpaths.add(e.record);
    }
  }

  std::uint16_t port_ = 0;
  std::mutex mu_;  // guards everything below and the collector's replacement
  std::unique_ptr<zxref::ReferenceCollector> ref_;
  std::map<int, std::string> connApp_;  // conn id -> application
  std::map<std::string, AppTally> apps_;
};

// What a demo host printed about its run.
struct HostReport {
  int status = -1;
  long requests = 0, traced = 0;
  unsigned long long records = 0, dropped = 0;
  std::map<std::string, long> perBt;
  std::string output;
};

HostReport reportOf(Process &p) {
  HostReport r;
  if (std::optional<Process::Exit> e = p.wait_exit(60s)) r.status = e->status;
  (void)p.wait_output_closed(10s);
  for (const chaos::OutputLine &l : p.lines()) {
    char page[128] = {};
    long n = 0, failed = 0;
    if (std::sscanf(l.text.c_str(), "demo_host: %ld requests, %ld traced, %ld", &r.requests,
                    &r.traced, &failed) == 3)
      continue;
    if (std::sscanf(l.text.c_str(),
                    "demo_host: records handed to the data connection %llu, "
                    "dropped %llu",
                    &r.records, &r.dropped) == 2)
      continue;
    if (std::sscanf(l.text.c_str(), "demo_host: traced %127s %ld", page, &n) == 2)
      r.perBt[btOf(page)] += n;
  }
  r.output = p.output_tail();
  return r;
}

// The proxy program and the application hosts that use it, each with a home
// of its own, over a unix-domain socket.
class Scene {
 public:
  Scene() : socket_(proxyHome_.str() + "/proxy.sock") {
    proxyHome_.write("config/zxsettings.conf",
                     "zxcHost=127.0.0.1\nzxcPort=" + std::to_string(collector.port()) +
                         "\nproxySocketPath=" + socket_ + "\nzxcRetryIntervalMs=50\n");
    hostHome_.write("config/zxsettings.conf", "proxyMode=1\nproxySocketPath=" + socket_ +
                                                  "\ntier=web\nserver=host1\n"
                                                  "zxcRetryIntervalMs=50\n");
    startProxy();
  }

  void startProxy() {
    Process::Options o;
    o.argv = {ZX_PROXY_SERVER_PATH};
    o.set_env = {{"ZXHOME", proxyHome_.str()}};
    o.unset_env.assign(zxtest::kAgentEnvVars.begin(), zxtest::kAgentEnvVars.end());
    proxy_ = std::make_unique<Process>(o);
    ++proxyStarts_;
    ASSERT_TRUE(zxtest::wait_until(
        [&] { return zxtest::count_of(proxyLog(), "Proxy Started at") >= proxyStarts_; }, 10s))
        << proxyLog();
  }
  void killProxy() {
    proxy_->signal(SIGKILL);
    ASSERT_TRUE(proxy_->wait_exit(10s));
  }
  // SIGTERM and SIGHUP are logged and ignored.
  void signalProxy(int sig) { proxy_->signal(sig); }
  // SIGINT: every application's records go out before it exits.
  void stopProxy() {
    proxy_->signal(SIGINT);
    const std::optional<Process::Exit> e = proxy_->wait_exit(30s);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->status, 0) << proxy_->output_tail();
  }
  const std::string &socketPath() const { return socket_; }
  // Every trace log the proxy program has written, oldest first.
  std::string proxyLog() const {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto &f : std::filesystem::directory_iterator(proxyHome_.path() / "logs", ec))
      files.push_back(f.path());
    std::sort(files.begin(), files.end());
    std::string all;
    for (const auto &f : files) all += zxtest::read_file(f);
    return all;
  }

  std::unique_ptr<Process> host(const std::string &app, std::vector<std::string> args) {
    Process::Options o;
    o.argv = {DEMO_HOST_PATH};
    o.argv.insert(o.argv.end(), args.begin(), args.end());
    o.set_env = {{"ZXHOME", hostHome_.str()}, {"MOR_APP_AGENT_INSTANCE", app}};
    o.unset_env.assign(zxtest::kAgentEnvVars.begin(), zxtest::kAgentEnvVars.end());
    o.unset_env.erase(std::find(o.unset_env.begin(), o.unset_env.end(), "MOR_APP_AGENT_INSTANCE"));
    return std::make_unique<Process>(o);
  }
  // `count` burst hosts of `app`, `atOnce` running at a time; their reports.
  std::vector<HostReport> burst(const std::string &app, int count, int atOnce = kAtOnce) {
    std::vector<HostReport> reports;
    std::deque<std::unique_ptr<Process>> running;
    for (int started = 0; started < count || !running.empty();) {
      if (started < count && static_cast<int>(running.size()) < atOnce) {
        running.push_back(host(app, {"--requests", std::to_string(kRequests)}));
        ++started;
        continue;
      }
      reports.push_back(reportOf(*running.front()));
      running.pop_front();
    }
    return reports;
  }

  Collector collector;

 private:
  zxtest::TempDir proxyHome_, hostHome_;
  std::string socket_;
  std::unique_ptr<Process> proxy_;
  std::size_t proxyStarts_ = 0;
};

// Every host ended well and traced all it served; returns the transactions
// per BT, "AllTransactions" included.
std::map<std::string, long> expectCleanRuns(const std::vector<HostReport> &reports) {
  std::map<std::string, long> perBt;
  for (const HostReport &r : reports) {
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.traced, kRequests) << r.output;
    EXPECT_EQ(r.dropped, 0u) << r.output;
    for (const auto &[bt, n] : r.perBt) {
      perBt[bt] += n;
      perBt["AllTransactions"] += n;
    }
  }
  return perBt;
}

// The collector holds exactly the transactions the hosts ran, each whole
// (record 2 and its record 4), and the BT counters sum to the same.
void expectAllArrived(Collector &c, const std::string &app,
                      const std::map<std::string, long> &perBt) {
  const std::size_t want = static_cast<std::size_t>(perBt.at("AllTransactions"));
  auto counted = [&](AppTally &t) {
    for (const auto &[bt, n] : perBt) {
      auto row = t.bts.rows().find(bt);
      if (row == t.bts.rows().end() || row->second.count != n) return false;
    }
    return t.flowpaths.finished_count() >= want;
  };
  EXPECT_TRUE(c.waitFor(app, counted));
  c.read(app, [&](AppTally &t) {
    EXPECT_EQ(t.flowpaths.finished_count(), want);
    EXPECT_EQ(t.flowpaths.open_count(), 0u);
    std::set<long long> ids;
    std::size_t whole = 0;
    for (const zxref::Flowpath &fp : t.flowpaths.finished()) {
      ids.insert(fp.instance);
      whole += fp.header.has_value();
    }
    EXPECT_EQ(whole, want) << "records 4 without their record 2";
    EXPECT_EQ(ids.size(), want) << "flowpath ids shared between processes";
    for (const auto &[bt, n] : perBt) {
      auto row = t.bts.rows().find(bt);
      EXPECT_EQ(row == t.bts.rows().end() ? -1 : row->second.count, n) << bt;
    }
  });
}

// Also the program's own life: signals other than SIGINT do not end it, and
// a clean stop removes its socket and closes its link.
TEST(ProxyEndToEnd, ShortLivedProcessesReportAsOneAgent) {
  Scene scene;
  scene.signalProxy(SIGTERM);
  scene.signalProxy(SIGHUP);
  const std::vector<HostReport> reports = scene.burst("shop", kProcesses);
  ASSERT_EQ(reports.size(), static_cast<std::size_t>(kProcesses));
  const std::map<std::string, long> perBt = expectCleanRuns(reports);
  for (const std::string &page : kPages) EXPECT_GT(perBt.count(btOf(page)), 0u) << page;
  EXPECT_EQ(perBt.at("AllTransactions"), kProcesses * kRequests);
  expectAllArrived(scene.collector, "shop", perBt);
  EXPECT_EQ(scene.collector.read("shop", [](AppTally &t) { return t.controlConnections; }), 1u);
  const std::string log = scene.proxyLog();
  EXPECT_EQ(zxtest::count_of(log, "No control connection found"), 0u);
  EXPECT_EQ(zxtest::count_of(log, "closed mid-frame"), 0u);
  scene.stopProxy();
  EXPECT_FALSE(std::filesystem::exists(scene.socketPath()));
  EXPECT_TRUE(scene.collector.controlClosed());
}

// The proxy killed and restarted mid-run, then the collector restarted on
// its port.
TEST(ProxyEndToEnd, ProxyAndCollectorRestartedMidRun) {
  Scene scene;
  // A long-running process across the outage, one request thread.
  std::unique_ptr<Process> longRunning = scene.host("shop", {"3", "1"});
  ASSERT_TRUE(scene.collector.waitFor(
      "shop", [](AppTally &t) { return t.flowpaths.finished_count() > 0; }));
  scene.killProxy();
  const std::size_t beforeRestart =
      scene.collector.read("shop", [](AppTally &t) { return t.flowpaths.finished_count(); });
  scene.startProxy();
  // The process reconnects by itself and its transactions arrive again.
  EXPECT_TRUE(scene.collector.waitFor(
      "shop", [&](AppTally &t) { return t.flowpaths.finished_count() > beforeRestart; }));
  // New processes work from the start.
  expectAllArrived(scene.collector, "burst", expectCleanRuns(scene.burst("burst", 10)));

  const HostReport r = reportOf(*longRunning);
  EXPECT_EQ(r.status, 0) << r.output;
  const long arrived = static_cast<long>(
      scene.collector.read("shop", [](AppTally &t) { return t.flowpaths.finished_count(); }));
  // A SIGKILL takes with it what no process can count: the request in
  // flight and what the proxy had replayed but not yet sent (one data tick,
  // 100 ms, of the host's shortest requests). The rest arrives, or the
  // process counts it lost.
  constexpr long kUncountable = 1 + 7;
  EXPECT_LE(arrived, r.traced);
  EXPECT_TRUE(arrived + kUncountable >= r.traced || r.dropped > 0)
      << arrived << " of " << r.traced << " arrived, " << r.dropped << " records dropped";

  scene.collector.stop();
  scene.collector.start();
  // The proxy links each application again, in its own identity.
  for (const std::string app : {"shop", "burst"}) {
    ASSERT_TRUE(scene.collector.waitFor(app, [](AppTally &t) { return t.startsAnswered > 0; }))
        << app;
    expectAllArrived(scene.collector, app, expectCleanRuns(scene.burst(app, 4)));
    EXPECT_EQ(scene.collector.read(app, [](AppTally &t) { return t.controlConnections; }), 1u);
  }
  scene.stopProxy();
}

}  // namespace
