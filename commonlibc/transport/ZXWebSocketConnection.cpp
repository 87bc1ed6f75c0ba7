#include "ZXWebSocketConnection.h"

#include <libwebsockets.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/random.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "zxlb_mt_log.h"
#include "zxlb_sock.h"

void lws_log(int level, const char *line) {
  // The library logs on the thread that called it: the calling thread's
  // application decides.
  int ctl = zx::logLevel(zx::LogContext::Area::Control);
  const char *text = line ? line : "";
  switch (level) {
    case LLL_ERR:
      ZX_LOG_IF(true, "WS", "Error", "log from lws:%s", text);
      break;
    case LLL_WARN:
      ZX_LOG_IF(ctl > 0, "WS", "Warning", "log from lws:%s", text);
      break;
    case LLL_NOTICE:
      ZX_LOG_IF(ctl > 1, "WS", "Info", "log from lws:%s", text);
      break;
    case LLL_INFO:
      ZX_LOG_IF(ctl > 2, "WS", "Info", "log from lws:%s", text);
      break;
    default:
      ZX_LOG_IF(true, "WS", "Info", "log from lws level:%d log:%s", level, text);
      break;
  }
}

// The library's own logging is process-wide and not thread-safe in its
// formatting: errors and warnings only, which are rare.
void zx_lws_install_log() {
  static std::once_flag once;
  std::call_once(once, [] { lws_set_log_level(LLL_ERR | LLL_WARN, lws_log); });
}

namespace {

// Parsing the CA store costs more than the rest of a handshake (seconds
// under the sanitizers), so WSS connections with the same trust share one
// client TLS context. It lives while a connection uses it: a later connect
// sees a replaced CA file or store. The trust is the CA file, the variables
// OpenSSL reads for its default store, and whether verification is on.
class SharedClientTls {
 public:
  static std::shared_ptr<SSL_CTX> get(const ZXTlsSettings &settings) {
    std::string key = settings.caFile;
    for (const char *name : {"SSL_CERT_FILE", "SSL_CERT_DIR"}) {
      const char *v = getenv(name);
      key.append(1, '\0').append(v ? v : "");
    }
    key.append(settings.verifyPeer ? "\1" : "\2");
    static std::mutex lock;
    static std::map<std::string, std::weak_ptr<SSL_CTX>> contexts;  // guarded by lock
    std::lock_guard lk(lock);
    if (auto live = contexts[key].lock()) return live;
    std::erase_if(contexts, [](const auto &kv) { return kv.second.expired(); });
    std::shared_ptr<SSL_CTX> made = create(settings);
    if (made) contexts[key] = made;
    return made;
  }

 private:
  static std::shared_ptr<SSL_CTX> create(const ZXTlsSettings &settings) {
    SSL_CTX *raw = SSL_CTX_new(TLS_client_method());
    if (!raw) return nullptr;
    std::shared_ptr<SSL_CTX> ctx(raw, SSL_CTX_free);
    // The library resends a partial write from its own copy of the bytes.
    SSL_CTX_set_mode(raw, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    // OpenSSL's defaults are what operators configure (SSL_CERT_FILE,
    // SSL_CERT_DIR); the library would load a fixed directory.
    SSL_CTX_set_default_verify_paths(raw);
    if (!settings.caFile.empty() &&
        SSL_CTX_load_verify_locations(raw, settings.caFile.c_str(), nullptr) != 1)
      ZX_LOG_IF(true, "WSS", "Error", "Cannot load the CA file '%s'", settings.caFile.c_str());
    SSL_CTX_set_cert_verify_callback(raw, checkChain, settings.verifyPeer ? nullptr : raw);
    return ctx;
  }

  // The verdict is OpenSSL's (or "accept" when verification is off), never
  // the library's: it finds its connection through an index it allocates
  // anew whenever any context is created, so a context made on one thread
  // fails a handshake in flight on another.
  static int checkChain(X509_STORE_CTX *store, void *lenient) {
    X509_STORE_CTX_set_verify_cb(store, lenient ? acceptAny : keepVerdict);
    return X509_verify_cert(store) > 0 ? 1 : 0;
  }
  static int keepVerdict(int ok, X509_STORE_CTX *) { return ok; }
  static int acceptAny(int, X509_STORE_CTX *store) {
    X509_STORE_CTX_set_error(store, X509_V_OK);
    return 1;
  }
};

// One message per send: large enough that a full send buffer takes few
// service rounds, small enough that the copy into the headroom stays cheap.
constexpr std::size_t kMaxMessage = 256 * 1024;
// Received bytes not yet taken by the owner; beyond this the library stops
// reading (the collector then waits, as a full TCP window would make it).
constexpr std::size_t kMaxReceived = 1 << 20;
// A pending connect checks `abandon` at least this often.
constexpr apr_interval_time_t kAbandonSlice = apr_time_from_msec(50);

// Longest frame header a client writes: opcode, length (1 + 8) and mask.
constexpr std::size_t kMaxFrameHeader = 2 + 8 + 4;

// Writes `payload` as one masked binary frame at `out` (room for
// kMaxFrameHeader + len) and returns the frame's size. The library masks a
// byte at a time, which took a third of the data thread; masking here is
// word-wise and folded into the copy the send needs anyway. The mask comes
// from the kernel's random source, once per frame, as the protocol asks.
std::size_t build_frame(unsigned char *out, const char *payload, std::size_t len) {
  unsigned char *p = out;
  *p++ = 0x82;  // FIN, binary
  if (len < 126) {
    *p++ = static_cast<unsigned char>(0x80 | len);
  } else if (len < 65536) {
    *p++ = 0x80 | 126;
    *p++ = static_cast<unsigned char>(len >> 8);
    *p++ = static_cast<unsigned char>(len);
  } else {
    *p++ = 0x80 | 127;
    for (int shift = 56; shift >= 0; shift -= 8) *p++ = static_cast<unsigned char>(len >> shift);
  }
  unsigned char mask[4];
  if (getrandom(mask, sizeof mask, 0) != static_cast<ssize_t>(sizeof mask)) {
    const auto now = static_cast<std::uint32_t>(apr_time_now());
    std::memcpy(mask, &now, sizeof mask);
  }
  std::memcpy(p, mask, sizeof mask);
  p += sizeof mask;
  std::uint64_t wide;
  for (std::size_t i = 0; i < sizeof wide; ++i)
    reinterpret_cast<unsigned char *>(&wide)[i] = mask[i % 4];
  std::size_t i = 0;
  for (; i + sizeof wide <= len; i += sizeof wide) {
    std::uint64_t word;
    std::memcpy(&word, payload + i, sizeof word);
    word ^= wide;
    std::memcpy(p + i, &word, sizeof word);
  }
  for (; i < len; ++i) p[i] = static_cast<unsigned char>(payload[i]) ^ mask[i % 4];
  return static_cast<std::size_t>(p - out) + len;
}

void put_err(char *err, int err_len, const char *fmt, const char *text) {
  if (err && err_len > 0) snprintf(err, static_cast<std::size_t>(err_len), fmt, text);
}

class lws_handler final : public ZXConnection {
 public:
  lws_handler(bool tls, ZXTlsSettings settings, apr_interval_time_t io_timeout)
      : tls_(tls), settings_(std::move(settings)), sendTimeout_(io_timeout > 0 ? io_timeout : 1) {}

  ~lws_handler() override {
    lws_context *ctx;
    {
      std::lock_guard lk(contextLock_);
      ctx = context;
      context = nullptr;
    }
    if (!ctx) return;
    // Bytes the library took but holds back (a partial write) get the send
    // timeout to leave, as the kernel's buffer would give them.
    if (wsi && state_ == State::Open && lws_send_pipe_choked(wsi)) {
      serve(ctx, apr_time_now() + sendTimeout_, false, {},
            [this] { return !wsi || state_ != State::Open || !lws_send_pipe_choked(wsi); });
    }
    lws_sul_schedule(ctx, 0, &timer_.sul, on_timer, LWS_SET_TIMER_USEC_CANCEL);
    lws_context_destroy(ctx);
  }
  lws_handler(const lws_handler &) = delete;
  lws_handler &operator=(const lws_handler &) = delete;

  bool open(const char *host, int port, apr_interval_time_t timeout,
            const std::function<bool()> &abandon, char *err, int err_len);

  int send_all(const char *data, std::size_t len, char *err, int err_len) override {
    while (len > 0) {
      long n = send_some(data, len, err, err_len);
      if (n <= 0) {
        if (n == 0) put_err(err, err_len, "%s", "send timed out");
        return -2;
      }
      data += n;
      len -= static_cast<std::size_t>(n);
    }
    return 0;
  }

  long send_some(const char *data, std::size_t len, char *err, int err_len) override {
    if (state_ != State::Open || !wsi) return gone(err, err_len);
    if (len == 0) return 0;
    const std::size_t take = std::min(len, kMaxMessage);
    try {
      if (tx_.size() < LWS_PRE + kMaxFrameHeader + take)
        tx_.resize(LWS_PRE + kMaxFrameHeader + take);
    } catch (const std::exception &) {
      put_err(err, err_len, "%s", "no memory for a websocket frame");
      return -2;
    }
    txLen_ = build_frame(tx_.data() + LWS_PRE, data, take);
    lws_callback_on_writable(wsi);
    // Done once the message has left the library for the kernel, as a TCP
    // send is: what the library holds back would otherwise wait for the
    // owner's next call.
    serve(context, apr_time_now() + sendTimeout_, false, {},
          [this] { return state_ != State::Open || (txLen_ == 0 && !lws_send_pipe_choked(wsi)); });
    if (writeFailed_) {
      put_err(err, err_len, "%s", "websocket write failed");
      return -1;
    }
    if (txLen_ == 0) return static_cast<long>(take);
    if (state_ != State::Open) return gone(err, err_len);
    txLen_ = 0;  // withdrawn: the next writable callback finds nothing to write
    return 0;
  }

  void set_send_timeout(apr_interval_time_t timeout) override {
    sendTimeout_ = timeout > 0 ? timeout : 1;
  }

  Wait wait_readable(apr_interval_time_t timeout, char *, int) override {
    Served s = serve(context, apr_time_now() + std::max<apr_interval_time_t>(timeout, 0), true, {},
                     [this] { return rxOffset_ < rx_.size() || state_ != State::Open; });
    if (s == Served::Done) return Wait::Readable;
    return s == Served::Woken ? Wait::Woken : Wait::Timeout;
  }

  long receive(char *buf, std::size_t cap, char *err, int err_len) override {
    if (rxOffset_ == rx_.size() && state_ == State::Open) lws_service(context, -1);
    if (rxOffset_ < rx_.size()) {
      std::size_t n = std::min(cap, rx_.size() - rxOffset_);
      std::memcpy(buf, rx_.data() + rxOffset_, n);
      rxOffset_ += n;
      if (rxOffset_ == rx_.size()) {
        rx_.clear();
        rxOffset_ = 0;
        if (rxPaused_ && wsi) {
          rxPaused_ = false;
          lws_rx_flow_control(wsi, 1);
        }
      }
      return static_cast<long>(n);
    }
    if (state_ != State::Open) return gone(err, err_len);
    return 0;
  }

  void wakeup() override {
    wakeRequested_.store(true, std::memory_order_release);
    std::lock_guard lk(contextLock_);
    if (context) lws_cancel_service(context);
  }

  static int callback(lws *w, lws_callback_reasons reason, void *user, void *in, std::size_t len);

  // The handle's parts, as the link names them.
  lws_context *context = nullptr;  // written under contextLock_; the owner reads it freely
  lws *wsi = nullptr;

 private:
  enum class State { Connecting, Open, Closed };
  enum class Served { Done, Timeout, Woken, Abandoned };

  int handle(lws *w, lws_callback_reasons reason, void *user, void *in, std::size_t len);
  // A deadline already due when the library looks at its timers fires there,
  // and the wait that follows would last until its own housekeeping (30 s):
  // firing also ends that wait.
  struct DeadlineTimer {
    lws_sorted_usec_list_t sul{};  // first: the library hands back its address
    lws_context *ctx = nullptr;
  };
  static void on_timer(lws_sorted_usec_list_t *sul) {
    lws_cancel_service(reinterpret_cast<DeadlineTimer *>(sul)->ctx);
  }

  long gone(char *err, int err_len) const {
    put_err(err, err_len, "%s", closeReason_.empty() ? "connection closed" : closeReason_.c_str());
    return -1;
  }

  // Runs the library on this thread until `done`, the deadline, a wakeup
  // (when `wakeable`) or `abandon`. A timer at the deadline bounds each
  // round: the library's own wait has no limit.
  template <class Done>
  Served serve(lws_context *ctx, apr_time_t deadline, bool wakeable,
               const std::function<bool()> &abandon, Done done) {
    bool polled = false;
    for (;;) {
      if (done()) return Served::Done;
      if (wakeable && wakeRequested_.exchange(false, std::memory_order_acq_rel))
        return Served::Woken;
      if (abandon && abandon()) return Served::Abandoned;
      apr_interval_time_t left = deadline - apr_time_now();
      if (left <= 0) {
        // A zero wait still takes what has already arrived.
        if (polled) return Served::Timeout;
        polled = true;
        lws_service(ctx, -1);
        continue;
      }
      polled = true;
      if (abandon) left = std::min(left, kAbandonSlice);
      timer_.ctx = ctx;
      lws_sul_schedule(ctx, 0, &timer_.sul, on_timer, static_cast<lws_usec_t>(left));
      lws_service(ctx, 0);
    }
  }

  const bool tls_;
  const ZXTlsSettings settings_;
  std::shared_ptr<SSL_CTX> clientTls_;  // outlives the context that uses it
  apr_interval_time_t sendTimeout_;
  std::mutex contextLock_;  // guards `context` against wakeup() while it goes
  std::atomic<bool> wakeRequested_{false};
  DeadlineTimer timer_;

  // Owner thread only (the library calls back on it).
  State state_ = State::Connecting;
  std::string closeReason_;
  std::vector<char> rx_;
  std::size_t rxOffset_ = 0;
  bool rxPaused_ = false;
  std::vector<unsigned char> tx_;
  std::size_t txLen_ = 0;  // frame bytes at tx_[LWS_PRE] waiting for the writable callback
  bool writeFailed_ = false;
};

const lws_protocols kProtocols[] = {
    {"zx-link", lws_handler::callback, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

int lws_handler::callback(lws *w, lws_callback_reasons reason, void *user, void *in,
                          std::size_t len) {
  auto *self = static_cast<lws_handler *>(lws_context_user(lws_get_context(w)));
  if (!self) return 0;
  // Nothing may unwind through the library: a failure closes the connection.
  try {
    return self->handle(w, reason, user, in, len);
  } catch (const std::exception &) {
    self->closeReason_ = "out of memory";
    return -1;
  }
}

int lws_handler::handle(lws *w, lws_callback_reasons reason, void *, void *in, std::size_t len) {
  switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      state_ = State::Open;
      break;
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR: {
      // The library's text says little about a refused certificate; OpenSSL's does.
      SSL *session = tls_ ? lws_get_ssl(w) : nullptr;
      const long verdict = session ? SSL_get_verify_result(session) : X509_V_OK;
      if (verdict != X509_V_OK)
        closeReason_ =
            std::string("certificate not accepted: ") + X509_verify_cert_error_string(verdict);
      else
        closeReason_ = in ? static_cast<const char *>(in) : "connection failed";
      state_ = State::Closed;
      wsi = nullptr;
      break;
    }
    case LWS_CALLBACK_CLIENT_RECEIVE: {
      const char *p = static_cast<const char *>(in);
      rx_.insert(rx_.end(), p, p + len);
      if (rx_.size() - rxOffset_ >= kMaxReceived && !rxPaused_) {
        rxPaused_ = true;
        lws_rx_flow_control(w, 0);
      }
      break;
    }
    case LWS_CALLBACK_CLIENT_WRITEABLE: {
      if (!txLen_) break;
      const std::size_t n = txLen_;
      txLen_ = 0;
      // The frame goes out as it is. The library takes all of it, holding
      // back what the socket would not take yet; less means the connection failed.
      if (lws_write(w, tx_.data() + LWS_PRE, n, LWS_WRITE_HTTP) < static_cast<int>(n)) {
        writeFailed_ = true;
        return -1;
      }
      break;
    }
    case LWS_CALLBACK_CLIENT_CLOSED:
    case LWS_CALLBACK_WSI_DESTROY:
      if (w == wsi) {
        if (closeReason_.empty()) closeReason_ = "connection closed by peer";
        state_ = State::Closed;
        wsi = nullptr;
      }
      break;
    default:
      break;
  }
  return 0;
}

bool lws_handler::open(const char *host, int port, apr_interval_time_t timeout,
                       const std::function<bool()> &abandon, char *err, int err_len) {
  if (!host || !*host || port <= 0 || port > 65535) {
    if (err && err_len > 0)
      snprintf(err, static_cast<std::size_t>(err_len), "invalid address '%s:%d'", host ? host : "",
               port);
    return false;
  }
  const apr_time_t deadline = apr_time_now() + (timeout > 0 ? timeout : 1);
  // The library's own lookup blocks without a bound; ours can be abandoned.
  char numeric[64] = {};
  if (zxlb_resolve(host, timeout, abandon, numeric, sizeof numeric, err, err_len) != APR_SUCCESS)
    return false;
  zx_lws_install_log();

  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = kProtocols;
  info.gid = -1;
  info.uid = -1;
  info.user = this;
  info.count_threads = 1;
  // The library sizes its tables by the process's descriptor limit unless
  // told: one socket and its wake pipe are all this context needs.
  info.fd_limit_per_thread = 8;
  if (tls_) {
    clientTls_ = SharedClientTls::get(settings_);
    if (!clientTls_) {
      put_err(err, err_len, "%s", "cannot create a TLS context");
      return false;
    }
    info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.provided_client_ssl_ctx = clientTls_.get();
  }
  lws_context *ctx = lws_create_context(&info);
  if (!ctx) {
    put_err(err, err_len, "%s", "cannot create a websocket context");
    return false;
  }
  {
    std::lock_guard lk(contextLock_);
    context = ctx;
  }
  if (tls_ && !settings_.verifyPeer)
    ZX_LOG_IF(true, "WSS", "Warning",
              "Certificate verification is off for %s:%d: the collector is not authenticated", host,
              port);

  lws_client_connect_info ci{};
  ci.context = ctx;
  ci.address = numeric;
  ci.port = port;
  ci.host = host;
  ci.origin = host;
  ci.path = "/";
  ci.ietf_version_or_minus_one = -1;
  ci.pwsi = &wsi;
  if (tls_) {
    ci.ssl_connection = LCCSCF_USE_SSL;
    if (!settings_.verifyPeer)
      ci.ssl_connection |= LCCSCF_ALLOW_SELFSIGNED | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK |
                           LCCSCF_ALLOW_EXPIRED | LCCSCF_ALLOW_INSECURE;
  }
  if (!lws_client_connect_via_info(&ci) && state_ != State::Closed) {
    put_err(err, err_len, "%s", "websocket connect could not start");
    return false;
  }
  Served s = serve(ctx, deadline, false, abandon, [this] { return state_ != State::Connecting; });
  if (state_ == State::Open) {
    zxlb_local_addr(lws_get_socket_fd(wsi), source_.ip, sizeof source_.ip, &source_.port);
    return true;
  }
  if (s == Served::Abandoned)
    put_err(err, err_len, "%s", "connect abandoned");
  else if (s == Served::Timeout)
    put_err(err, err_len, "%s", "websocket connect timed out");
  else
    put_err(err, err_len, "%s", closeReason_.c_str());
  return false;
}

}  // namespace

std::unique_ptr<ZXConnection> zx_open_websocket(bool tls, const char *host, int port,
                                                apr_interval_time_t timeout,
                                                apr_interval_time_t io_timeout,
                                                const ZXTlsSettings &settings, char *err,
                                                int err_len, const std::function<bool()> &abandon) {
  std::unique_ptr<lws_handler> conn;
  try {
    conn = std::make_unique<lws_handler>(tls, settings, io_timeout);
  } catch (const std::exception &) {
    put_err(err, err_len, "%s", "no memory for a websocket connection");
    return nullptr;
  }
  if (!conn->open(host, port, timeout, abandon, err, err_len)) {
    ZX_LOG_IF(true, tls ? "WSS" : "WS", "Error", "Cannot connect to %s:%d: %s", host ? host : "",
              port, err ? err : "");
    return nullptr;
  }
  return conn;
}
