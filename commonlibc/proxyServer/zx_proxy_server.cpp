// zx_proxy_server: the proxy process. Runs in the foreground until SIGINT or
// SIGQUIT; see usage() for how it is started and configured.
//
// Signals other than the crash signals are taken by one watcher thread
// (sigwait), so that their log lines and the stop are ordinary code, never
// run inside a handler. The crash handler only formats and writes.
#include <execinfo.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "ZXProxyInstance.h"
#include "ZXProxyServer.h"
#include "zx_agent.h"
#include "zxlb_mt_log.h"

namespace {

void usage(FILE *out) {
  fputs(
      "Usage: zx_proxy_server [--help]\n"
      "\n"
      "Serves the application processes of this host that run in proxy mode\n"
      "(proxyMode=1): registers their connections, replays their events and\n"
      "reports each application to the collector as one agent. Runs in the\n"
      "foreground.\n"
      "\n"
      "Settings: $ZXHOME/config/zxsettings.conf and MOR_APP_AGENT_* variables,\n"
      "read as an agent reads them:\n"
      "  zxcHost, zxcPort, ZXC_COMM_PROTOCOL, backupZxcHostName, backupZxcPort,\n"
      "  zxProjectKey, zxSaasURL    the collector every application reports to\n"
      "  proxySocketPath=<path>     listen on this unix-domain socket, or else\n"
      "  proxyIP=<ip> proxyPort=<n> listen on TCP (default 127.0.0.1:7892)\n"
      "  proxyConType=2             listen over WebSocket at proxyIP:proxyPort\n"
      "  proxyConType=3             ... over WSS, with these PEM files:\n"
      "  proxyWsCert=<file> proxyWsKey=<file>\n"
      "  (MOR_APP_AGENT_PROXYSOCKETPATH, _PROXYIP, _PROXYPORT, _PROXYCONTYPE,\n"
      "   _PROXYWSCERT, _PROXYWSKEY likewise)\n"
      "Processes must use the same proxyConType as the proxy.\n"
      "Trace log: $ZXHOME/logs/zx_trace_zx_proxy_server_*.log\n"
      "\n"
      "Signals: SIGINT or SIGQUIT stop it cleanly (every application's records\n"
      "are sent, links closed, the socket file removed; exit status 0).\n"
      "SIGHUP and SIGTERM are logged and ignored.\n",
      out);
}

void sighup_handler() {
  ZX_LOG_IF(true, "PROXY", "Info", "SIGHUP received, ignoring...");
}

void sigterm_handler() {
  ZX_LOG_IF(true, "PROXY", "Info", "SIGTERM received, ignoring...");
}

void sigsegv_handler(int sig) {
  char text[8192];
  std::size_t len = 0;
  auto add = [&](const char *s, std::size_t n) {
    n = std::min(n, sizeof text - 1 - len);
    std::memcpy(text + len, s, n);
    len += n;
  };
  add("SIGSEGV received\n", 17);
  std::size_t namesLen = 0;
  const char *names = zxProxyAppNames(namesLen);
  add(names, namesLen);
  add("\n", 1);
  void *frames[64];
  const int depth = backtrace(frames, 64);
  // backtrace_symbols allocates; a crash inside the allocator still gets
  // the raw addresses on stderr below.
  if (char **symbols = backtrace_symbols(frames, depth)) {
    for (int i = 0; i < depth; ++i) {
      add(symbols[i], std::strlen(symbols[i]));
      add("\n", 1);
    }
  }
  text[len] = '\0';
  (void)!write(STDERR_FILENO, text, len);
  backtrace_symbols_fd(frames, depth, STDERR_FILENO);
  ZX_LOG_IF(true, "PROXY", "Error", "%s", text);
  signal(sig, SIG_DFL);
  raise(sig);
}

void installCrashHandlers() {
  struct sigaction sa {};
  sa.sa_handler = sigsegv_handler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESETHAND;
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(sig, &sa, nullptr);
}

// The signals the watcher takes; SIGUSR1 only ends the watcher.
sigset_t watchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGHUP, SIGTERM, SIGINT, SIGQUIT, SIGUSR1}) sigaddset(&set, sig);
  return set;
}

void watchSignals() {
  const sigset_t set = watchedSignals();
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) continue;
    if (sig == SIGHUP) {
      sighup_handler();
    } else if (sig == SIGTERM) {
      sigterm_handler();
    } else if (sig == SIGINT || sig == SIGQUIT) {
      ZX_LOG_IF(true, "PROXY", "Info", "%s received, stopping...", strsignal(sig));
      zxProxyStop();
    } else {
      return;
    }
  }
}

// Room for the 2,048 connections of the pollset and the links of the
// applications, where the hard limit allows it.
void raiseDescriptorLimit() {
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return;
  const rlim_t want = 4096;
  if (lim.rlim_cur >= want) return;
  lim.rlim_cur = lim.rlim_max == RLIM_INFINITY ? want : std::min(want, lim.rlim_max);
  setrlimit(RLIMIT_NOFILE, &lim);
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      usage(stdout);
      return 0;
    }
    fprintf(stderr, "zx_proxy_server: unknown argument '%s'\n\n", argv[i]);
    usage(stderr);
    return 2;
  }
  // Blocked before any thread starts, so that every thread inherits the mask
  // and only the watcher takes these signals.
  const sigset_t set = watchedSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  installCrashHandlers();
  raiseDescriptorLimit();

  startedWithExc = 1;
  char processName[] = "zx_proxy_server";
  agent_init(nullptr, 1, processName, nullptr);
  // After start-up, whose trace log the watcher writes to; a signal that came
  // meanwhile is pending and taken now.
  std::thread watcher(watchSignals);
  int status = 1;
  if (ZXProxyInstance) {
    // The proxy has no identity of its own: these would rename every
    // application it serves.
    for (const char *name :
         {"MOR_APP_AGENT_TIER", "MOR_APP_AGENT_SERVER", "MOR_APP_AGENT_INSTANCE"})
      unsetenv(name);
    status = zxProxyInitWrapper(*ZXProxyInstance) ? 0 : 1;
  } else {
    fputs("zx_proxy_server: start-up failed\n", stderr);
  }
  pthread_kill(watcher.native_handle(), SIGUSR1);
  watcher.join();
  return status;
}
