// zx_collector: the reference collector as a command, for trying an agent by hand. It
// answers connection requests, echoes heartbeats and sends its own, optionally starts
// instrumentation, prints every line it receives, decoded, and on exit optionally what the
// run amounted to.
#include <pthread.h>
#include <signal.h>

#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <libwebsockets.h>

#include "reference_collector.h"
#include "run_summary.h"
#include "tdigest_record.h"

namespace {

constexpr std::size_t kMaxPrinted = 4096;

void usage(std::FILE *out) {
  std::fputs(
      "usage: zx_collector [options]\n"
      "  --host ADDR          listen address (default 127.0.0.1)\n"
      "  --port N             listen port (default 7892; 0 picks a free one)\n"
      "  --ws                 listen for WebSocket connections instead of plain TCP\n"
      "                       (any URL path; no sub-protocol, or \"zx-collector\")\n"
      "  --wss                listen for WebSocket connections over TLS; needs --cert\n"
      "                       and --key\n"
      "  --cert FILE          server certificate chain, PEM (--wss)\n"
      "  --key FILE           the certificate's private key, PEM (--wss)\n"
      "  --reply KIND         ok | not_running | running | error | any raw reply text\n"
      "  --protocols LIST     offer protocols in the reply, e.g. \"TCP:7892,WSS:443\"\n"
      "  --start PAIRS        send start_instrumentation with \"kw=v;kw=v\" to each agent\n"
      "  --start-delay-ms N   wait N ms after the agent connects before --start (default 0)\n"
      "  --heartbeat-ms N     send the collector's heartbeat on each control connection\n"
      "                       every N ms; 0 or off: never (default 30000)\n"
      "  --duration-s N       exit after N seconds (default: until SIGINT/SIGTERM)\n"
      "  --quiet              print only the listening address and errors\n"
      "  --conn-ids           tag each printed line with its connection's id: \"[data 2] ...\"\n"
      "  --rcvbuf N           receive buffer of accepted sockets in bytes (default: the system's)\n"
      "  --summary            on exit, print records by number, the per-BT tables and\n"
      "                       a few decoded flowpaths\n"
      "  --flowpaths N        flowpaths the summary shows (default 4)\n",
      out);
}

std::string reply_for(std::string_view kind) {
  if (kind == "ok") return zxref::reply::ok();
  if (kind == "not_running") return zxref::reply::not_running();
  if (kind == "running") return zxref::reply::running();
  if (kind == "error") return zxref::reply::error();
  std::string raw(kind);
  if (raw.empty() || raw.back() != '\n') raw += '\n';
  return raw;
}

void print_event(const zxref::Event &e, bool quiet, bool conn_ids) {
  using Type = zxref::Event::Type;
  std::string kind(zxref::to_string(e.kind));
  if (conn_ids) kind += " " + std::to_string(e.conn_id);
  switch (e.type) {
    case Type::Error:
      std::fprintf(stderr, "[%s] error: %s\n", kind.c_str(), e.text.c_str());
      return;
    case Type::Accepted:
      if (!quiet) std::printf("[conn %d] accepted\n", e.conn_id);
      break;
    case Type::Closed:
      if (!quiet) std::printf("[%s] connection %d closed\n", kind.c_str(), e.conn_id);
      break;
    case Type::Request:
    case Type::Line:
      if (!quiet) {
        std::printf("[%s] %s\n", kind.c_str(), zxref::printable(e.text, kMaxPrinted).c_str());
      }
      break;
    case Type::Blank:
      if (!quiet) {
        std::printf("[%s] %s\n", kind.c_str(),
                    zxref::carries_records(e.kind) ? "heartbeat" : "(blank line)");
      }
      break;
    case Type::Record:
      if (!quiet) {
        std::string text = "record";
        const auto &fields = e.record.fields;
        // A record-96 header ends in ','; its empty last field is not worth a column.
        const std::size_t shown =
            !fields.empty() && fields.back().empty() ? fields.size() - 1 : fields.size();
        for (std::size_t i = 0; i < shown; ++i) text += " " + fields[i];
        if (!e.record.payload.empty()) {
          text += " (+" + std::to_string(e.record.payload.size()) + " bytes binary)";
        }
        if (e.record.number == 96) {
          const auto digest = zxref::decode_tdigest_record(e.record);
          // Appended in two steps: `" " + string` trips a false -Wrestrict of GCC 12 at -O3.
          if (digest) {
            text += ' ';
            text += zxref::describe(*digest);
          } else {
            text += " (payload is not a t-digest)";
          }
        }
        std::printf("[%s] %s\n", kind.c_str(), zxref::printable(text, kMaxPrinted).c_str());
      }
      break;
  }
  std::fflush(stdout);
}

// Control connections waiting for their start command, oldest first, plus the exit flag
// that the signal thread sets.
struct Schedule {
  std::mutex mu;
  std::condition_variable changed;
  std::deque<std::pair<zxref::Clock::time_point, int>> starts;
  bool exit = false;
};

}  // namespace

int main(int argc, char **argv) {
  zxref::Config config;
  config.port = 7892;
  config.keep_history = false;
  std::string reply_kind = "ok";
  std::string protocols;
  std::optional<std::string> start_pairs;
  long start_delay_ms = 0;
  std::optional<long> duration_s;
  bool quiet = false;
  bool conn_ids = false;
  bool summary = false;
  std::size_t flowpaths_shown = 4;

  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&]() -> std::optional<std::string_view> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string_view(argv[++i]);
    };
    std::optional<std::string_view> v;
    bool ok = true;
    if (arg == "--quiet") {
      quiet = true;
    } else if (arg == "--conn-ids") {
      conn_ids = true;
    } else if (arg == "--summary") {
      summary = true;
    } else if (arg == "--ws") {
      config.transport = zxref::Transport::Ws;
    } else if (arg == "--wss") {
      config.transport = zxref::Transport::Wss;
    } else if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return 0;
    } else if (!(v = value())) {
      ok = false;
    } else if (arg == "--rcvbuf") {
      const auto bytes = zxref::parse_number<int>(*v);
      ok = bytes && *bytes > 0;
      if (ok) config.receive_buffer_bytes = *bytes;
    } else if (arg == "--cert") {
      config.tls_cert_file = std::string(*v);
    } else if (arg == "--key") {
      config.tls_key_file = std::string(*v);
    } else if (arg == "--host") {
      config.host = std::string(*v);
    } else if (arg == "--port") {
      const auto port = zxref::parse_number<std::uint16_t>(*v);
      ok = port.has_value();
      if (ok) config.port = *port;
    } else if (arg == "--reply") {
      reply_kind = std::string(*v);
    } else if (arg == "--protocols") {
      protocols = std::string(*v);
    } else if (arg == "--start") {
      start_pairs = std::string(*v);
    } else if (arg == "--start-delay-ms") {
      const auto ms = zxref::parse_number<long>(*v);
      ok = ms && *ms >= 0;
      if (ok) start_delay_ms = *ms;
    } else if (arg == "--heartbeat-ms") {
      const auto ms = *v == "off" ? std::optional<long>(0) : zxref::parse_number<long>(*v);
      ok = ms && *ms >= 0 && *ms <= 86'400'000;  // a day; far more would overflow the clock
      if (ok) config.behaviour.heartbeat_interval = std::chrono::milliseconds(*ms);
    } else if (arg == "--flowpaths") {
      const auto n = zxref::parse_number<std::size_t>(*v);
      ok = n.has_value();
      if (ok) flowpaths_shown = *n;
    } else if (arg == "--duration-s") {
      duration_s = zxref::parse_number<long>(*v);
      ok = duration_s && *duration_s >= 0;
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "zx_collector: bad or incomplete option '%s'\n", argv[i]);
      usage(stderr);
      return 2;
    }
  }

  if (config.transport == zxref::Transport::Wss &&
      (config.tls_cert_file.empty() || config.tls_key_file.empty())) {
    std::fprintf(stderr, "zx_collector: --wss needs --cert FILE and --key FILE\n");
    usage(stderr);
    return 2;
  }
  // The WebSocket library's notices are noise here; its warnings and errors (a failed
  // TLS handshake among them) still reach stderr.
  lws_set_log_level(LLL_ERR | LLL_WARN, nullptr);

  config.behaviour.reply = reply_for(reply_kind);
  if (!protocols.empty()) {
    config.behaviour.reply = zxref::reply::with_protocols(config.behaviour.reply, protocols);
  }

  // Blocked before any thread starts, so only the signal thread ever receives them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Schedule schedule;
  // Fed on the poll thread only, and read once collector.stop() has joined it.
  zxref::RunSummary run;
  const auto delay = std::chrono::milliseconds(start_delay_ms);
  config.observer = [&](const zxref::Event &e) {
    print_event(e, quiet, conn_ids);
    if (summary && e.type == zxref::Event::Type::Record) run.add(e.record);
    if (summary && e.type == zxref::Event::Type::Blank && zxref::carries_records(e.kind)) {
      run.add_heartbeat();
    }
    if (start_pairs && e.type == zxref::Event::Type::Request &&
        e.kind == zxref::ConnKind::Control) {
      {
        std::lock_guard lock(schedule.mu);
        schedule.starts.emplace_back(zxref::Clock::now() + delay, e.conn_id);
      }
      schedule.changed.notify_all();
    }
  };

  zxref::ReferenceCollector collector(std::move(config));
  if (!collector.start()) {
    std::fprintf(stderr, "zx_collector: %s\n", collector.error().c_str());
    return 1;
  }
  std::printf("zx_collector listening on port %u\n", static_cast<unsigned>(collector.port()));
  std::fflush(stdout);

  std::thread signal_thread([&] {
    int sig = 0;
    sigwait(&signals, &sig);
    {
      std::lock_guard lock(schedule.mu);
      schedule.exit = true;
    }
    schedule.changed.notify_all();
  });

  const auto end = duration_s ? zxref::Clock::now() + std::chrono::seconds(*duration_s)
                              : zxref::Clock::time_point::max();
  std::unique_lock lock(schedule.mu);
  while (!schedule.exit && zxref::Clock::now() < end) {
    auto next = end;
    if (!schedule.starts.empty()) next = std::min(next, schedule.starts.front().first);
    if (next == zxref::Clock::time_point::max()) {
      schedule.changed.wait(lock);
    } else {
      schedule.changed.wait_until(lock, next);
    }
    while (!schedule.starts.empty() && schedule.starts.front().first <= zxref::Clock::now()) {
      const int conn_id = schedule.starts.front().second;
      schedule.starts.pop_front();
      if (collector.send_to(conn_id, zxref::command("start_instrumentation", *start_pairs)) &&
          !quiet) {
        std::printf("[control] sent start_instrumentation to connection %d\n", conn_id);
        std::fflush(stdout);
      }
    }
  }
  const bool signalled = schedule.exit;
  lock.unlock();

  // The signal thread is still in sigwait() after a timed exit; release it.
  if (!signalled) pthread_kill(signal_thread.native_handle(), SIGTERM);
  signal_thread.join();
  collector.stop();
  if (summary) {
    std::fputs(run.render(flowpaths_shown).c_str(), stdout);
    std::fflush(stdout);
  }
  return 0;
}
