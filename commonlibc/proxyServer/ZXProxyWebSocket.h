// The proxy's WebSocket listener (WS, or WSS when given a certificate and a
// key). The library's service thread owns the WebSocket connections; the
// proxy's poll thread owns everything else, and the two meet only here:
//
//   service thread --opened / bytes / closed--> events --notify()--> poll thread
//   poll thread ---bytes to send, close-------> peer --lws_cancel_service--> service thread
//
// A message's bytes are a piece of the process's stream, as one TCP read is:
// the poll thread cuts lines and frames from them with the same per-connection
// state, so the framing never depends on how the process cut its messages.
// Neither side ever waits for the other.
//
// A process that exits closes its connections at once, and its data
// connection's registration must reach the poll thread before its control
// connection's end, or the registration is refused. So a connection's first
// line is never held back by the read pause, and a close is queued only after
// everything read in the same service round.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

struct lws;
struct lws_context;
struct ZXProxyConnection;
struct ZXProxyServerCounts;

// One WebSocket connection, shared by the two threads.
struct ZXProxyWsPeer {
  // Set by the service thread before the peer is published.
  std::string ip;
  int port = 0;
  // Poll thread only: the connection it serves (null once that is closed).
  ZXProxyConnection *conn = nullptr;
  // Service thread only; null once the library has freed it.
  lws *wsi = nullptr;
  bool paused = false;  // reading stopped: the poll thread is behind
  // Reading never pauses before the first line (the registration) is in,
  // or has grown too long to be one.
  std::size_t firstLineBytes = 0;
  bool firstLineIn = false;

  // Guards out, closeWanted and gone.
  std::mutex lock;
  std::string out;  // bytes for the process not written yet
  bool closeWanted = false;
  bool gone = false;  // the library closed the connection
};

struct ZXProxyWsEvent {
  enum class Type { Opened, Bytes, Closed };
  Type type;
  std::shared_ptr<ZXProxyWsPeer> peer;
  std::string bytes;
};

class ZXProxyWsListener {
 public:
  // Bytes a peer may have queued for sending, as for a socket connection.
  static constexpr std::size_t kMaxPendingOut = 1 << 16;
  // Received bytes the poll thread has not taken yet; beyond them every
  // connection stops reading until it has (a full TCP window, in effect).
  static constexpr std::size_t kMaxPendingIn = 4 << 20;

  // `notify` runs on the service thread whenever events were queued where
  // there were none. `counts` gets the read pauses and the queue's peak.
  ZXProxyWsListener(std::function<void()> notify, ZXProxyServerCounts &counts);
  // Stops (when started): every connection is closed.
  ~ZXProxyWsListener();
  ZXProxyWsListener(const ZXProxyWsListener &) = delete;
  ZXProxyWsListener &operator=(const ZXProxyWsListener &) = delete;

  // Listens on host:port (0 chooses) and starts the service thread. TLS when
  // both files are given. False with the reason in `err`.
  bool start(const std::string &host, int port, const std::string &certFile,
             const std::string &keyFile, std::string &err);
  void stop();
  int port() const { return port_; }
  bool tls() const { return tls_; }

  // Poll thread: the events queued since the last call, in arrival order.
  void take(std::vector<ZXProxyWsEvent> &events);
  // Poll thread: queues what fits of `data` for the peer. Bytes taken; -1
  // once close() was called. A peer the library has closed takes (and
  // drops) everything: its Closed event, still to come, ends it.
  long send(const std::shared_ptr<ZXProxyWsPeer> &peer, const char *data, std::size_t len);
  // Poll thread: closes the connection once its queued bytes are out.
  void close(const std::shared_ptr<ZXProxyWsPeer> &peer);

 private:
  friend struct ZXProxyWsGlue;
  int onEvent(lws *wsi, int reason, void *user, void *in, std::size_t len);
  void push(ZXProxyWsEvent::Type type, const std::shared_ptr<ZXProxyWsPeer> &peer,
            const void *bytes = nullptr, std::size_t len = 0);
  void want(const std::shared_ptr<ZXProxyWsPeer> &peer);
  void wake();
  void serve();

  std::function<void()> notify_;
  ZXProxyServerCounts &counts_;
  bool tls_ = false;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  // Guards ctx_ against a wake() while stop() destroys it.
  std::mutex ctxLock_;
  lws_context *ctx_ = nullptr;

  // Guards events_, pendingIn_, wanted_ and resume_.
  std::mutex queueLock_;
  std::vector<ZXProxyWsEvent> events_;
  std::size_t pendingIn_ = 0;
  std::vector<std::weak_ptr<ZXProxyWsPeer>> wanted_;  // to be written or closed
  bool resume_ = false;                               // paused peers may read again

  // Service thread only.
  std::unordered_map<ZXProxyWsPeer *, std::shared_ptr<ZXProxyWsPeer>> live_;
  std::vector<std::shared_ptr<ZXProxyWsPeer>> closedThisRound_;
  std::vector<unsigned char> writeBuf_;
};
