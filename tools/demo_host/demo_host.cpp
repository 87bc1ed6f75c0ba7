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
#include <sstream>
#include <string>
#include <thread>

#include "ZXDataDispatcher.h"
#include "control_thread.h"
#include "reference_collector.h"
#include "zx_agent.h"
#include "zx_agent_internal.h"

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
    collector.send_start("status=running;testIdx=1");
    if (collector.wait_for_record(99, 10s)) {
      for (int i = 0; i < 3; ++i) {
        std::string line = "7,DemoBT" + std::to_string(i) + "," + std::to_string(i + 2) + "\n";
        dumpData(line.data(), static_cast<int>(line.size()));
      }
      collector.wait_until([](const zxref::History &h) { return h.records.size() >= 4; }, 10s);
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
  std::printf("  records dropped by the agent: %lld\n", app->ZXSys.discardCount.load());

  agent_shutdown();
  print_trace_logs(home);
  collector.stop();
  if (fresh) fs::remove_all(home);
  return 0;
}
