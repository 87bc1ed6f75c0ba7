// The reference collector's WebSocket transport (plain or over TLS). The library's service
// thread plays the part of the TCP poll thread: it owns the connections, and every message
// received goes through the same framing and handlers as bytes read from a TCP socket.
// Other threads reach it only through lws_cancel_service (wake()), after which it takes
// the queued commands and the current Behaviour, as a TCP poll round does. The collector
// leaves the library's process-wide log settings to whoever hosts it.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include <libwebsockets.h>

#include "collector_conn.h"
#include "reference_collector.h"

namespace zxref {

namespace {
// Per read and per message piece; large enough that one record line rarely spans reads.
constexpr std::size_t kWsBufferBytes = 64 * 1024;
}  // namespace

struct ReferenceCollector::Ws {
  // The timer's callback gets only the list entry: its first member finds the collector.
  struct BeatTimer {
    lws_sorted_usec_list_t sul;
    ReferenceCollector *owner;
  };
  static_assert(std::is_standard_layout_v<BeatTimer>);

  lws_context *ctx = nullptr;
  BeatTimer beat_timer{{}, nullptr};
  bool stop = false;
  std::vector<Event> events;
  std::vector<unsigned char> out;  // LWS_PRE headroom, then one message
};

void ReferenceCollector::WsDelete::operator()(Ws *ws) const {
  delete ws;
}

struct WsGlue {
  static int callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                      std::size_t len) {
    auto *c = static_cast<ReferenceCollector *>(lws_context_user(lws_get_context(wsi)));
    return c->ws_event(wsi, static_cast<int>(reason), user, in, len);
  }
  // A timer already due when the library checks its timers fires there, and
  // the wait that follows would last until the library's own housekeeping
  // (30 s): waking the service ends that wait, so the writes just asked for go.
  static void beat_due(lws_sorted_usec_list_t *sul) {
    ReferenceCollector *c = reinterpret_cast<ReferenceCollector::Ws::BeatTimer *>(sul)->owner;
    c->ws_round();
    if (lws_context *ctx = c->ws_->ctx) lws_cancel_service(ctx);
  }
};

namespace {

// Listed without a name clients could ask for: a connection asking for no sub-protocol
// gets the first entry.
const lws_protocols kProtocols[] = {
    {"zx-collector", WsGlue::callback, sizeof(int), kWsBufferBytes, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace

bool ReferenceCollector::start_ws() {
  const bool tls = config_.transport == Transport::Wss;
  if (tls && (config_.tls_cert_file.empty() || config_.tls_key_file.empty())) {
    error_ = "WSS needs a certificate and a key file";
    return false;
  }
  ws_.reset(new Ws);
  ws_->beat_timer.owner = this;
  ws_->out.resize(LWS_PRE + kWsBufferBytes);

  lws_context_creation_info info{};
  info.options =
      LWS_SERVER_OPTION_EXPLICIT_VHOSTS | (tls ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0);
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.user = this;
  info.pt_serv_buf_size = kWsBufferBytes;
  lws_context *ctx = lws_create_context(&info);
  if (ctx == nullptr) {
    error_ = "WebSocket context not created";
    return false;
  }
  lws_context_creation_info vh{};
  vh.port = config_.port;
  vh.iface = config_.host.c_str();
  vh.protocols = kProtocols;
  vh.options = tls ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0;
  if (tls) {
    vh.ssl_cert_filepath = config_.tls_cert_file.c_str();
    vh.ssl_private_key_filepath = config_.tls_key_file.c_str();
  }
  lws_vhost *vhost = lws_create_vhost(ctx, &vh);
  if (vhost == nullptr) {
    error_ = "cannot listen on " + config_.host + ":" + std::to_string(config_.port) +
             (tls ? " with " + config_.tls_cert_file + " and " + config_.tls_key_file : "");
    lws_context_destroy(ctx);
    return false;
  }
  port_ = static_cast<std::uint16_t>(lws_get_vhost_listen_port(vhost));
  ws_->ctx = ctx;
  {
    std::lock_guard lock(ws_ctx_mu_);
    ws_ctx_ = ctx;
  }
  thread_ = std::thread([this] { run_ws(); });
  return true;
}

void ReferenceCollector::stop_ws() {
  lws_context *ctx = nullptr;
  {
    // Taken under the lock so that no wake() is inside lws_cancel_service meanwhile.
    std::lock_guard lock(ws_ctx_mu_);
    ctx = std::exchange(ws_ctx_, nullptr);
  }
  // Its connections are already out of conns_: the callbacks this raises find none.
  if (ctx != nullptr) lws_context_destroy(ctx);
  ws_.reset();
}

void ReferenceCollector::run_ws() {
  lws_context *ctx = ws_->ctx;
  ws_round();  // a stop() before this thread ran
  while (!ws_->stop) {
    // The timeout is ignored by the library; wake() and the beat timer end the wait.
    if (lws_service(ctx, 0) < 0) break;
  }
  lws_sul_schedule(ctx, 0, &ws_->beat_timer.sul, WsGlue::beat_due, LWS_SET_TIMER_USEC_CANCEL);
  ws_->ctx = nullptr;  // no timer from the rounds that destroying the context raises
  close_all(ws_->events);
}

void ReferenceCollector::ws_round() {
  std::vector<Command> commands;
  Behaviour b;
  {
    std::lock_guard lock(mu_);
    if (stopping_) ws_->stop = true;
    commands.swap(commands_);
    b = behaviour_;
  }
  std::vector<Event> &events = ws_->events;
  apply(commands, events);
  const int beat_ms = beat(b);
  for (auto &[id, conn] : conns_) {
    if (conn->wsi == nullptr) continue;
    const ConnKind kind = conn->kind();
    // Until its request is read a connection has no kind, and is always read.
    const bool read =
        kind == ConnKind::Unknown || (kind == ConnKind::Control ? b.read_control : b.read_data);
    if (read != conn->reading) {
      lws_rx_flow_control(conn->wsi, read ? 1 : 0);
      conn->reading = read;
    }
    if (!conn->out.empty() || conn->close_when_sent) lws_callback_on_writable(conn->wsi);
  }
  if (ws_->ctx != nullptr) {
    lws_sul_schedule(
        ws_->ctx, 0, &ws_->beat_timer.sul, WsGlue::beat_due,
        beat_ms < 0 ? LWS_SET_TIMER_USEC_CANCEL : static_cast<lws_usec_t>(beat_ms) * LWS_US_PER_MS);
  }
  std::erase_if(conns_, [](const auto &entry) { return entry.second->fd < 0; });
  publish(events);
}

int ReferenceCollector::ws_event(lws *wsi, int reason, void *user, const void *in,
                                 std::size_t len) {
  auto find = [&]() -> Conn * {
    if (user == nullptr) return nullptr;
    const auto it = conns_.find(*static_cast<int *>(user));
    return it == conns_.end() || it->second->fd < 0 ? nullptr : it->second.get();
  };
  switch (reason) {
    case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED: {
      const int fd = lws_get_socket_fd(wsi);
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      if (config_.receive_buffer_bytes > 0) {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &config_.receive_buffer_bytes,
                     sizeof config_.receive_buffer_bytes);
      }
      return 0;
    }
    case LWS_CALLBACK_ESTABLISHED: {
      const int id = next_id_++;
      *static_cast<int *>(user) = id;
      const bool close_now = add_conn(id, lws_get_socket_fd(wsi), ws_->events);
      Conn &conn = *conns_[id];
      conn.wsi = wsi;
      if (close_now) close_conn(conn, ws_->events);
      break;
    }
    case LWS_CALLBACK_RECEIVE:
      if (Conn *conn = find()) {
        const ConnKind before = conn->kind();
        received(*conn, std::string_view(static_cast<const char *>(in), len), ws_->events);
        // Plain record traffic needs no round: the data path stays cheap per message.
        if (conn->fd >= 0 && conn->kind() == before && conn->out.empty()) {
          publish(ws_->events);
          return 0;
        }
      }
      break;
    case LWS_CALLBACK_SERVER_WRITEABLE:
      if (Conn *conn = find()) write_ws(*conn, ws_->events);
      break;
    case LWS_CALLBACK_CLOSED:
      if (Conn *conn = find()) {
        conn->wsi = nullptr;  // the library is freeing it
        close_conn(*conn, ws_->events);
      }
      break;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      break;
    default:
      return lws_callback_http_dummy(wsi, static_cast<lws_callback_reasons>(reason), user,
                                     const_cast<void *>(in), len);
  }
  ws_round();
  return 0;
}

// One message per writable callback, as the library wants; a scripted bytes_per_write
// makes each piece a message of its own.
void ReferenceCollector::write_ws(Conn &conn, std::vector<Event> &events) {
  if (conn.close_when_sent) {
    close_conn(conn, events);
    return;
  }
  if (conn.out.empty()) return;
  auto &o = conn.out.front();
  const std::size_t left = o.bytes.size() - o.sent;
  const std::size_t per_write = o.options.bytes_per_write;
  const std::size_t chunk = per_write > 0 ? std::min(left, per_write) : left;
  if (chunk > 0) {
    std::vector<unsigned char> &buf = ws_->out;
    if (buf.size() < LWS_PRE + chunk) buf.resize(LWS_PRE + chunk);
    std::memcpy(buf.data() + LWS_PRE, o.bytes.data() + o.sent, chunk);
    // The library keeps what the socket did not take and holds back the next writable
    // callback until it is out; only an error comes back short.
    if (lws_write(conn.wsi, buf.data() + LWS_PRE, chunk, LWS_WRITE_TEXT) < 0) {
      close_conn(conn, events);
      return;
    }
    o.sent += chunk;
  }
  if (o.sent == o.bytes.size()) {
    // Closed on the next writable callback, once the library has flushed the last bytes.
    conn.close_when_sent = o.options.close_after;
    conn.out.pop_front();
  }
}

}  // namespace zxref
