// proxy_driver: the proxy's two figures, each from real processes: the
// zx_proxy_server program, proxy_load_host application processes in proxy
// mode, and the reference collector in this process counting what arrives.
//
//   proxy_driver throughput [PROCESSES [SECONDS [RATE [PAIRS]]]]
//     default 4 10 1200000 100: PROCESSES hosts together offering RATE method
//     events per second (0: each as fast as it can), in transactions of PAIRS
//     entry/exit pairs, through the proxy to the collector. Prints the rate
//     that arrived, and proof that none was lost: the hosts' counters, the
//     proxy's (its stop summary in the trace log) and the collector's count
//     of entries and exits in the flowpath blobs must agree.
//   proxy_driver rss [LIFETIMES [AT_ONCE]]                   default 10000 4
//     the proxy's resident memory over LIFETIMES short-lived hosts (each
//     registers, sends 5 transactions of 10 methods and exits), sampled
//     every tenth of the run; the first sample is after warm-up.
//
// Exit status 0 when the figure's conditions hold (nothing lost; RSS within
// 10%), 1 otherwise.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "flowpath_decode.h"
#include "reference_collector.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Records 2 to 4 seen and the entries and exits their blobs hold; written
// on the collector's poll thread, read anywhere.
struct Arrivals {
  std::atomic<unsigned long long> methods{0}, flowpaths{0}, records{0};
  std::atomic<unsigned long long> malformed{0};
  std::atomic<long long> firstNs{0}, lastNs{0};
};

long long sinceEpochNs(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

std::string blobOf(const zxref::Record &r) {
  // Record 3's blob starts at its third field, record 4's at its ninth.
  const std::size_t from = r.number == 3 ? 2 : 8;
  std::string blob;
  for (std::size_t i = from; i < r.fields.size(); ++i) {
    if (i > from) blob += ',';
    blob += r.fields[i];
  }
  return blob;
}

void countRecord(Arrivals &a, const zxref::Record &r) {
  ++a.records;
  if (r.number != 3 && r.number != 4) return;
  if (r.number == 4 && r.fields.size() < 9) {
    ++a.malformed;
    return;
  }
  const zxref::ParsedBlob blob = zxref::parse_blob(blobOf(r));
  unsigned long long n = 0;
  for (const zxref::BlobEntry &e : blob.entries)
    n += e.type == zxref::BlobEntry::Type::Entry || e.type == zxref::BlobEntry::Type::Exit;
  a.malformed += blob.skipped;
  a.methods += n;
  if (r.number == 4) ++a.flowpaths;
  const long long t = sinceEpochNs(r.received_at);
  long long none = 0;
  a.firstNs.compare_exchange_strong(none, t);
  a.lastNs = t;
}

// The collector: starts a run on every control connection, counts records.
class CountingCollector {
 public:
  explicit CountingCollector(std::string startPairs) {
    zxref::Config config;
    config.keep_history = false;
    config.observer = [this, pairs = std::move(startPairs)](const zxref::Event &e) {
      if (e.type == zxref::Event::Type::Record) {
        countRecord(arrivals, e.record);
      } else if (e.type == zxref::Event::Type::Request && e.kind == zxref::ConnKind::Control) {
        ++controlConnections;
        collector_->send_to(e.conn_id, zxref::command("start_instrumentation", pairs));
      }
    };
    collector_ = std::make_unique<zxref::ReferenceCollector>(std::move(config));
  }
  bool start() { return collector_->start(); }
  std::uint16_t port() const { return collector_->port(); }
  void stop() { collector_->stop(); }

  Arrivals arrivals;
  std::atomic<unsigned> controlConnections{0};

 private:
  std::unique_ptr<zxref::ReferenceCollector> collector_;
};

// A child process with its standard output in a file.
struct Child {
  pid_t pid = -1;
  std::string out;
};

Child spawn(const std::vector<std::string> &args, const std::vector<std::string> &env,
            const std::string &outFile) {
  std::vector<char *> argv, envp;
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  for (const std::string &e : env) envp.push_back(const_cast<char *>(e.c_str()));
  envp.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, outFile.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&fa, STDOUT_FILENO, STDERR_FILENO);
  Child c;
  c.out = outFile;
  if (posix_spawn(&c.pid, argv[0], &fa, nullptr, argv.data(), envp.data()) != 0) c.pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return c;
}

std::string slurp(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// "key=<number>" in text, or nullopt.
std::optional<double> field(const std::string &text, const std::string &key) {
  const std::size_t at = text.find(key + "=");
  if (at == std::string::npos) return std::nullopt;
  return std::strtod(text.c_str() + at + key.size() + 1, nullptr);
}

// "<label> <number>" in text, or nullopt.
std::optional<unsigned long long> counted(const std::string &text, const std::string &label) {
  const std::size_t at = text.find(label + " ");
  if (at == std::string::npos) return std::nullopt;
  return std::strtoull(text.c_str() + at + label.size() + 1, nullptr, 10);
}

long rssKb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

template <class Done>
bool waitFor(Done done, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// One run: a temporary home for the proxy and one for the hosts, the
// collector, and the proxy program.
class Rig {
 public:
  explicit Rig(const std::string &startPairs) : collector_(startPairs) {
    char tmpl[] = "/tmp/zx-proxy-bench-XXXXXX";
    dir_ = mkdtemp(tmpl) ? tmpl : "";
  }
  ~Rig() {
    if (proxy_.pid > 0) {
      kill(proxy_.pid, SIGKILL);
      waitpid(proxy_.pid, nullptr, 0);
    }
    collector_.stop();
    if (!dir_.empty() && !std::getenv("ZX_BENCH_KEEP")) fs::remove_all(dir_);
  }

  bool start() {
    if (dir_.empty() || !collector_.start()) return false;
    const std::string sock = dir_ + "/proxy.sock";
    const std::string port = std::to_string(collector_.port());
    write("proxy/config/zxsettings.conf", "zxcHost=127.0.0.1\nzxcPort=" + port +
                                              "\nZXC_COMM_PROTOCOL=TCP:" + port +
                                              "\nproxySocketPath=" + sock + "\n");
    write("app/config/zxsettings.conf",
          "tier=Load\nserver=bench\ninstance=load-1\nproxyMode=1\nproxySocketPath=" + sock + "\n");
    proxy_ = spawn({ZX_PROXY_SERVER_PATH}, {"ZXHOME=" + dir_ + "/proxy"}, dir_ + "/proxy.out");
    return proxy_.pid > 0 &&
           waitFor([&] { return fs::exists(sock); }, std::chrono::milliseconds(10000));
  }

  Child host(const std::vector<std::string> &args, int n) {
    std::vector<std::string> argv{ZX_LOAD_HOST_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return spawn(argv, {"ZXHOME=" + dir_ + "/app"},
                 dir_ + "/host-" + std::to_string(n % 1024) + ".out");
  }

  // Stops the proxy cleanly and returns its stop summary lines.
  std::string stopProxy() {
    kill(proxy_.pid, SIGINT);
    int status = 0;
    waitpid(proxy_.pid, &status, 0);
    proxy_.pid = -1;
    std::string summary;
    for (const auto &f : fs::directory_iterator(dir_ + "/proxy/logs")) {
      std::istringstream log(slurp(f.path()));
      for (std::string line; std::getline(log, line);)
        if (line.find("stopped: ") != std::string::npos) summary += line + "\n";
    }
    return summary;
  }

  pid_t proxyPid() const { return proxy_.pid; }
  CountingCollector &collector() { return collector_; }

 private:
  void write(const std::string &rel, const std::string &text) {
    const fs::path p = fs::path(dir_) / rel;
    fs::create_directories(p.parent_path());
    std::ofstream(p) << text;
  }

  std::string dir_;
  CountingCollector collector_;
  Child proxy_;
};

// A run with 1-second monitor intervals and room in the send buffers for
// the bursts of a process that emits as fast as it can.
const char *kStart =
    "zxMonitorInterval=1;bciDataBufferMaxSize=1048576;bciDataBufferMaxCount=256;"
    "testIdx=1;status=running";

int throughput(int processes, double seconds, double rate, long pairs) {
  Rig rig(kStart);
  if (!rig.start()) {
    std::fprintf(stderr, "proxy_driver: the collector or the proxy did not start\n");
    return 1;
  }
  std::vector<Child> hosts;
  for (int i = 0; i < processes; ++i)
    hosts.push_back(rig.host(
        {std::to_string(seconds), std::to_string(pairs), std::to_string(rate / processes)}, i));
  double emitted = 0, transactions = 0, frames = 0, sent = 0, lost = 0, hostSeconds = 0;
  bool hostsOk = true;
  for (Child &h : hosts) {
    int status = 0;
    waitpid(h.pid, &status, 0);
    const std::string out = slurp(h.out);
    const auto m = field(out, "methods"), f = field(out, "frames"), s = field(out, "sent"),
               l = field(out, "lost"), q = field(out, "queued"), t = field(out, "seconds"),
               bts = field(out, "transactions");
    if (!m || !f || !s || !l || !q || !t || !bts || *q != 0) {
      std::fprintf(stderr, "proxy_driver: a host failed: %s\n", out.c_str());
      hostsOk = false;
      continue;
    }
    emitted += *m, transactions += *bts, frames += *f, sent += *s, lost += *l;
    hostSeconds = std::max(hostSeconds, *t);
  }
  Arrivals &a = rig.collector().arrivals;
  // Each flowpath's blob also holds its root method's entry and exit.
  const auto want = static_cast<unsigned long long>(emitted + 2 * transactions);
  // Until all has come, or nothing more for three seconds.
  for (unsigned long long seen = ~0ULL; seen != a.methods.load() && a.methods.load() < want;) {
    seen = a.methods.load();
    waitFor([&] { return a.methods.load() >= want; }, std::chrono::milliseconds(3000));
  }
  const std::string proxySummary = rig.stopProxy();
  rig.collector().stop();

  const double span = static_cast<double>(a.lastNs - a.firstNs) / 1e9;
  const double hostMethods =
      static_cast<double>(a.methods) - 2.0 * static_cast<double>(a.flowpaths);
  const double arrived = span > 0 ? hostMethods / span : 0;
  const auto replayed = counted(proxySummary, "frames replayed");
  const auto bytesLost = counted(proxySummary, "frame bytes lost");
  const auto appLost = counted(proxySummary, "lost");
  std::printf(
      "hosts:     %d processes, %.0f method events in %.2f s (%.0f/s emitted); frames "
      "%.0f, sent %.0f, lost %.0f\n",
      processes, emitted, hostSeconds, hostSeconds > 0 ? emitted / hostSeconds : 0, frames, sent,
      lost);
  std::printf("proxy:     %s", proxySummary.empty() ? "no stop summary\n" : proxySummary.c_str());
  std::printf(
      "collector: %.0f of the hosts' method events (and %llu roots) in %llu flowpaths "
      "(%llu records, %llu malformed), %u control connection(s)\n",
      hostMethods, 2 * a.flowpaths.load(), a.flowpaths.load(), a.records.load(), a.malformed.load(),
      rig.collector().controlConnections.load());
  std::printf("end to end: %.0f method events/s (first to last record at the collector, %.2f s)\n",
              arrived, span);
  const bool whole = hostsOk && lost == 0 && sent == frames && a.methods == want &&
                     a.flowpaths == transactions && a.malformed == 0 && replayed &&
                     *replayed == frames && bytesLost && *bytesLost == 0 && appLost &&
                     *appLost == 0;
  std::printf("%s\n", whole ? "nothing lost" : "LOSS OR MISMATCH");
  return whole ? 0 : 1;
}

int rss(int lifetimes, int atOnce) {
  Rig rig(kStart);
  if (!rig.start()) {
    std::fprintf(stderr, "proxy_driver: the collector or the proxy did not start\n");
    return 1;
  }
  const int bts = 5, pairs = 10;
  const int every = std::max(1, lifetimes / 10);
  std::vector<std::pair<int, long>> samples;
  std::vector<Child> running;
  int started = 0, failed = 0;
  unsigned long long emitted = 0, frames = 0, lost = 0;
  auto reap = [&](bool all) {
    while (!running.empty()) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, 0);
      if (pid < 0) return;
      for (std::size_t i = 0; i < running.size(); ++i) {
        if (running[i].pid != pid) continue;
        const std::string out = slurp(running[i].out);
        const auto m = field(out, "methods"), f = field(out, "frames"), l = field(out, "lost");
        if (!m || !f || !l || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
          ++failed;
        } else {
          emitted += static_cast<unsigned long long>(*m);
          frames += static_cast<unsigned long long>(*f);
          lost += static_cast<unsigned long long>(*l);
        }
        running.erase(running.begin() + static_cast<long>(i));
        break;
      }
      if (!all) return;
    }
  };
  const auto began = Clock::now();
  while (started < lifetimes) {
    while (static_cast<int>(running.size()) >= atOnce) reap(false);
    running.push_back(rig.host({"0", std::to_string(pairs), "0", std::to_string(bts)}, started));
    ++started;
    if (started % every == 0) {
      reap(true);
      samples.emplace_back(started, rssKb(rig.proxyPid()));
      std::printf("after %6d lifetimes: proxy RSS %ld kB\n", started, samples.back().second);
      std::fflush(stdout);
    }
  }
  reap(true);
  const double secs = std::chrono::duration<double>(Clock::now() - began).count();
  Arrivals &a = rig.collector().arrivals;
  waitFor([&] { return a.methods.load() >= emitted; }, std::chrono::milliseconds(30000));
  const std::string proxySummary = rig.stopProxy();
  rig.collector().stop();
  std::printf("proxy:     %s", proxySummary.empty() ? "no stop summary\n" : proxySummary.c_str());
  std::printf(
      "%d lifetimes in %.0f s, %d failed; hosts' frames %llu, lost %llu (counted); method "
      "events %llu, at the collector %llu in %llu flowpaths (roots included)\n",
      lifetimes, secs, failed, frames, lost, emitted, a.methods.load(), a.flowpaths.load());
  if (samples.size() < 2) return 1;
  const double warm = static_cast<double>(samples.front().second);
  const double end = static_cast<double>(samples.back().second);
  const double growth = (end - warm) / warm * 100;
  std::printf("RSS after warm-up (%d lifetimes) %.0f kB, at the end %.0f kB: %+.1f%%\n",
              samples.front().first, warm, end, growth);
  return failed == 0 && growth <= 10 && growth >= -10 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  signal(SIGPIPE, SIG_IGN);
  const std::string mode = argc > 1 ? argv[1] : "";
  auto arg = [&](int i, double dflt) { return argc > i ? std::atof(argv[i]) : dflt; };
  if (mode == "throughput")
    return throughput(static_cast<int>(arg(2, 4)), arg(3, 10), arg(4, 1.2e6),
                      static_cast<long>(arg(5, 100)));
  if (mode == "rss") return rss(static_cast<int>(arg(2, 10000)), static_cast<int>(arg(3, 4)));
  std::fprintf(stderr,
               "usage: proxy_driver throughput [PROCESSES [SECONDS [RATE [PAIRS]]]]\n"
               "       proxy_driver rss [LIFETIMES [AT_ONCE]]\n");
  return 2;
}
