// The proxy server: one poll thread serves the application processes of many
// applications on this host. Each process opens a control connection (text
// lines both ways), a data connection (event frames, replayed into its
// application's engine) and maybe an auto-sensor connection; the first line of
// each says whose it is (ZXProxyRegistration.h).
//
//   process --ctrl--> [poll thread] --relay--> application object --ctrl--> collector
//   process --data--> [poll thread] --replay-> application engine --data--> collector
//
// One application object per application (appName, tierName, appServerName,
// agentName), made at its first control registration and never removed while
// the proxy runs; it links to the collector exactly as an in-process agent
// does, so the collector sees one agent whatever the number of processes.
//
// Threads and locks: the poll thread owns the pollset, every connection, the
// application table and the process records. Each application's control
// thread relays the collector's commands for its processes through
// relayLock_ (a queue the poll thread drains after a pollset wakeup); text
// for the collector goes the other way through the application's own queue
// (ZXAppControl::queueForCollector). Sending to a process never blocks the
// loop (ZXProxyConnection.h). Over WebSocket the library's service thread
// stands in for the listening socket and the connections' descriptors: it
// hands the poll thread what each connection sent, and takes what is to be
// sent back (ZXProxyWebSocket.h).
#pragma once

#include <apr_poll.h>
#include <apr_time.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ZXProxyConnection.h"
#include "ZXProxyRegistration.h"
#include "zxlb_apr.h"
#include "zxlb_mt_log.h"

struct ZXProxyInstance_t;

// Connection and registration lines: -1 at every level, else above that
// control trace level.
#define ZX_PROXY_LOG(above, severity, ...) \
  ZX_LOG_IF(zx::logLevel(zx::LogContext::Area::Control) > (above), "PROXY", severity, __VA_ARGS__)

struct ZXProxyServerOptions {
  // Listening endpoint: the unix-domain socket when a path is given, else TCP.
  std::string socketPath;
  std::string host = "127.0.0.1";
  int port = 7892;
  // Over WebSocket at host:port instead (zxProxyInitLws); over TLS when a
  // certificate and its key are given.
  bool webSocket = false;
  std::string wsCertFile;
  std::string wsKeyFile;
  // Home of the applications' settings (the proxy's own).
  std::string home;
  apr_interval_time_t listenRetry = apr_time_from_sec(10);
  apr_interval_time_t pollTimeout = apr_time_from_sec(10);
  // A connection that has not sent its registration line by then is closed.
  apr_interval_time_t registrationTimeout = apr_time_from_sec(10);
  // Descriptors in the pollset, the listening socket's included.
  std::size_t maxDescriptors = 2048;
  // Each application's share of a clean stop (sending what is queued).
  apr_interval_time_t stopDeadline = apr_time_from_sec(2);
  // Run on each new application object before its control thread starts
  // (tests shorten the link's timings here).
  std::function<void(ZXProxyInstance_t &)> onNewApplication;
};

// What the server has done so far; any thread.
struct ZXProxyServerCounts {
  std::atomic<unsigned long long> accepted{0}, refused{0}, registered{0}, closed{0};
  std::atomic<unsigned long long> framesReplayed{0}, frameBytesLost{0};
  std::atomic<unsigned long long> messagesDropped{0};
  // Over WebSocket: times a connection's reading paused because the poll
  // thread was behind, and the most bytes ever queued for it.
  std::atomic<unsigned long long> wsReadPauses{0};
  std::atomic<std::size_t> wsQueuedPeak{0};
  std::atomic<int> openConnections{0};
  std::atomic<bool> listening{false};
};

class ZXProxyServer {
 public:
  explicit ZXProxyServer(ZXProxyServerOptions options);
  // Stops (when still running) and frees everything.
  ~ZXProxyServer();
  ZXProxyServer(const ZXProxyServer &) = delete;
  ZXProxyServer &operator=(const ZXProxyServer &) = delete;

  // The loop zxProxyInit runs: listens (retrying every listenRetry), then serves
  // until stop(); then closes every connection, removes the socket file and
  // stops every application, sending what it queued. False when it could
  // not start (no memory, no pollset).
  bool run();
  // Any thread, also a signal's watcher: ends run() at its next turn.
  void stop();

  const ZXProxyServerCounts &counts() const { return counts_; }
  // The TCP port listened on (the chosen one when options.port is 0).
  int boundPort() const { return boundPort_.load(); }
  // The application objects (tests; stable once run() has returned or
  // while the caller knows no registration is under way).
  std::size_t applicationCount() const;
  ZXProxyInstance_t *application(std::size_t i) const;

 private:
  struct Relay {
    int appIndex;
    int procIndex;  // -1: every attached process
    unsigned long long seq;
    std::string text;
  };

  bool openListener();
  void closeListener();
  void shutdown();
  void loop();
  void handleEvent(const apr_pollfd_t &e);
  void acceptNewConnection();
  // Whether the poll set has room for one more connection; a refusal is
  // counted and logged here.
  bool roomFor(const std::string &ip, int port);
  // A connection taken into the poll set's count, waiting for its
  // registration line.
  void admit(std::unique_ptr<ZXProxyConnection> c);
  void readFromConnection(ZXProxyConnection &c);
  void consume(ZXProxyConnection &c, const char *data, std::size_t n);
  bool stillKnown(ZXProxyConnection &c);
  bool openWsListener();
  void deliverWsEvents();
  void takeWsEvent(ZXProxyWsEvent &e);
  void readMessageFromSocket(ZXProxyConnection &c, const char *data, std::size_t n);
  void readDataFromSocket(ZXProxyConnection &c, const char *data, std::size_t n);
  void processReceivedMsg(ZXProxyConnection &c, std::string_view line);
  void hangUp(ZXProxyConnection &c, const char *why);
  // A short-lived process opens its data connection a moment before its
  // control connection closes, and the proxy may see the close first:
  // connections waiting to be accepted or read register before a control
  // hang-up frees its process slot, so that they are not refused as orphans.
  void settleRegistrations();
  void cleanAndRemoveSocket(ZXProxyConnection &c);
  void forgetConnection(ZXProxyConnection &c);
  void freeClosed();
  void sweepUnregistered(apr_time_t now);

  // Registration (ZXProxyRegistration.cpp).
  bool parseProxyMsgReq(ZXProxyConnection &c, std::string_view line);
  int populateZXProxyInstance(const ZXProxyRequest &req);
  bool populateProcessInfo(ZXProxyConnection &c, int appIndex, int procIndex,
                           const ZXProxyRequest &req);
  bool registerSideConnection(ZXProxyConnection &c, const ZXProxyRequest &req);
  void rememberApplication(const char *name);
  void statAndSendFileContent(ZXProxyConnection &c, std::string_view name, const char *reply);

  // Writes to processes.
  bool sendToConnection(ZXProxyConnection &c, std::string_view text);
  bool flushOut(ZXProxyConnection &c);
  void flushPending();
  void postRelay(int appIndex, const char *message, int procIndex);
  void deliverRelays();

  ZXProxyServerOptions opt_;
  zx::AprSession apr_;  // before the pools, which it outlives
  zx::PoolPtr pool_;
  // Read by stop() and postRelay() on other threads.
  std::atomic<apr_pollset_t *> pollset_{nullptr};
  apr_socket_t *listener_ = nullptr;
  std::unique_ptr<ZXProxyWsListener> ws_;  // the listener over WebSocket
  std::vector<ZXProxyWsEvent> wsEvents_;
  zx::PoolPtr listenPool_;
  apr_pollfd_t listenPfd_{};
  std::size_t inPollset_ = 0;  // descriptors, the listener's included
  int spareFd_ = -1;           // given up to accept one connection past the fd limit
  std::atomic<int> boundPort_{0};
  std::vector<std::unique_ptr<ZXProxyConnection>> conns_;
  std::vector<ZXProxyConnection *> pendingOut_;  // connections with unsent bytes
  std::size_t unregistered_ = 0;                 // connections without their first line
  std::size_t closedPending_ = 0;                // closed, not freed yet
  std::unique_ptr<char[]> readBuf_;
  std::vector<const apr_pollfd_t *> lastEvents_;  // a poll's control events, taken last
  std::vector<std::unique_ptr<ZXProxyInstance_t>> apps_;
  std::vector<ZXProxyRequest> appKeys_;  // each application's identity, by index
  ZXProxyServerCounts counts_;

  std::atomic<bool> stopping_{false};
  // Guards the wait between listen attempts with stopping_, and the
  // pollset's end against a stop() waking it.
  std::mutex stopLock_;
  std::condition_variable stopCond_;

  // Collector commands for processes, from the applications' control
  // threads. relayLock_ guards relays_ and relaySeq_; taken inside an
  // application's startInstLock, never the other way round.
  std::mutex relayLock_;
  std::vector<Relay> relays_;
  unsigned long long relaySeq_ = 0;
  mutable std::mutex appsLock_;  // guards apps_ against the accessors above
};

// Runs a server with `options` on the calling thread until zxProxyStop();
// false when it could not start.
bool zxProxyInit(ZXProxyServerOptions options);
// zxProxyInit listening over WebSocket: WSS when `options` name a
// certificate and key, else WS.
bool zxProxyInitLws(ZXProxyServerOptions options);
// The server zxProxyInit runs; null outside it.
ZXProxyServer *zxProxyServer();
// Any thread: stops the server zxProxyInit runs, or the one it is about to
// run.
void zxProxyStop();
// Reads the proxy's settings into `settings` (readZXProxyConfig) and runs the
// server on the calling thread, listening where they say, until
// zxProxyStop(); `options` supplies the rest. The entry of zx_proxy_server.
// False when the server could not start.
bool zxProxyInitWrapper(ZXProxyInstance_t &settings, ZXProxyServerOptions options = {});
// The served applications' names, each followed by three blanks, for the
// crash text; readable from a signal handler.
const char *zxProxyAppNames(std::size_t &len);
