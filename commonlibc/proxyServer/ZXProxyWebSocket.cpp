#include "ZXProxyWebSocket.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "ZXProxyServer.h"
#include "ZXWebSocketConnection.h"

namespace {

// One write per writable callback, as the library wants.
constexpr std::size_t kMaxMessage = 64 * 1024;

}  // namespace

struct ZXProxyWsGlue {
  static int callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                      std::size_t len) {
    auto *l = static_cast<ZXProxyWsListener *>(lws_context_user(lws_get_context(wsi)));
    return l->onEvent(wsi, static_cast<int>(reason), user, in, len);
  }
};

namespace {

// A client that asks for no sub-protocol gets the first entry.
const lws_protocols kProtocols[] = {
    {"zx-proxy", ZXProxyWsGlue::callback, sizeof(ZXProxyWsPeer *), kMaxMessage, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace

ZXProxyWsListener::ZXProxyWsListener(std::function<void()> notify, ZXProxyServerCounts &counts)
    : notify_(std::move(notify)), counts_(counts) {}

ZXProxyWsListener::~ZXProxyWsListener() {
  stop();
}

bool ZXProxyWsListener::start(const std::string &host, int port, const std::string &certFile,
                              const std::string &keyFile, std::string &err) {
  tls_ = !certFile.empty() || !keyFile.empty();
  if (tls_ && (certFile.empty() || keyFile.empty())) {
    err = "WSS needs both a certificate and a key file";
    return false;
  }
  zx_lws_install_log();
  writeBuf_.resize(LWS_PRE + kMaxMessage);
  lws_context_creation_info info{};
  info.options =
      LWS_SERVER_OPTION_EXPLICIT_VHOSTS | (tls_ ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0);
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.user = this;
  info.pt_serv_buf_size = kMaxMessage;
  lws_context *ctx = lws_create_context(&info);
  if (!ctx) {
    err = "WebSocket context not created";
    return false;
  }
  lws_context_creation_info vh{};
  vh.port = port;
  vh.iface = host.c_str();
  vh.protocols = kProtocols;
  vh.options = tls_ ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0;
  if (tls_) {
    vh.ssl_cert_filepath = certFile.c_str();
    vh.ssl_private_key_filepath = keyFile.c_str();
  }
  lws_vhost *vhost = lws_create_vhost(ctx, &vh);
  if (!vhost) {
    err = "cannot listen on " + host + ":" + std::to_string(port) +
          (tls_ ? " with " + certFile + " and " + keyFile : "");
    lws_context_destroy(ctx);
    return false;
  }
  port_ = lws_get_vhost_listen_port(vhost);
  {
    std::lock_guard lk(ctxLock_);
    ctx_ = ctx;
  }
  stop_ = false;
  thread_ = std::thread([this] { serve(); });
  return true;
}

void ZXProxyWsListener::stop() {
  if (!thread_.joinable()) return;
  stop_ = true;
  wake();
  thread_.join();
  lws_context *ctx = nullptr;
  {
    std::lock_guard lk(ctxLock_);
    ctx = std::exchange(ctx_, nullptr);
  }
  // Closes every connection; the events this raises are nobody's any more.
  lws_context_destroy(ctx);
  live_.clear();
}

void ZXProxyWsListener::serve() {
  lws_context *ctx = ctx_;  // set before this thread started, reset after it ends
  // The library ignores the timeout; wake() ends the wait.
  while (!stop_) {
    const int served = lws_service(ctx, 0);
    for (const auto &peer : closedThisRound_) push(ZXProxyWsEvent::Type::Closed, peer);
    closedThisRound_.clear();
    if (served < 0) break;
  }
}

void ZXProxyWsListener::wake() {
  std::lock_guard lk(ctxLock_);
  if (ctx_) lws_cancel_service(ctx_);
}

void ZXProxyWsListener::take(std::vector<ZXProxyWsEvent> &events) {
  bool resume = false;
  {
    std::lock_guard lk(queueLock_);
    events.swap(events_);
    resume = pendingIn_ >= kMaxPendingIn;
    pendingIn_ = 0;
    resume_ = resume_ || resume;
  }
  if (resume) wake();
}

long ZXProxyWsListener::send(const std::shared_ptr<ZXProxyWsPeer> &peer, const char *data,
                             std::size_t len) {
  std::size_t n = 0;
  {
    std::lock_guard lk(peer->lock);
    if (peer->closeWanted) return -1;
    // Its end reaches the poll thread as an event, after what it sent before
    // (a data registration among them): a failed send must not end it sooner.
    if (peer->gone) return static_cast<long>(len);
    n = std::min(len, kMaxPendingOut - std::min(kMaxPendingOut, peer->out.size()));
    peer->out.append(data, n);
  }
  if (n > 0) want(peer);
  return static_cast<long>(n);
}

void ZXProxyWsListener::close(const std::shared_ptr<ZXProxyWsPeer> &peer) {
  {
    std::lock_guard lk(peer->lock);
    if (peer->gone || peer->closeWanted) return;
    peer->closeWanted = true;
  }
  want(peer);
}

void ZXProxyWsListener::want(const std::shared_ptr<ZXProxyWsPeer> &peer) {
  {
    std::lock_guard lk(queueLock_);
    wanted_.push_back(peer);
  }
  wake();
}

void ZXProxyWsListener::push(ZXProxyWsEvent::Type type, const std::shared_ptr<ZXProxyWsPeer> &peer,
                             const void *bytes, std::size_t len) {
  bool first = false;
  {
    std::lock_guard lk(queueLock_);
    first = events_.empty();
    pendingIn_ += len;
    // A stream's consecutive pieces travel as one: fewer events per byte.
    if (type == ZXProxyWsEvent::Type::Bytes && !first &&
        events_.back().type == ZXProxyWsEvent::Type::Bytes && events_.back().peer == peer) {
      events_.back().bytes.append(static_cast<const char *>(bytes), len);
    } else {
      events_.push_back(ZXProxyWsEvent{type, peer, {}});
      if (len) events_.back().bytes.assign(static_cast<const char *>(bytes), len);
    }
    if (pendingIn_ > counts_.wsQueuedPeak) counts_.wsQueuedPeak = pendingIn_;
    if (type == ZXProxyWsEvent::Type::Bytes && !peer->firstLineIn) {
      peer->firstLineBytes += len;
      peer->firstLineIn =
          std::memchr(bytes, '\n', len) || peer->firstLineBytes > ZXProxyConnection::kMaxLine;
    }
    if (pendingIn_ >= kMaxPendingIn && peer->firstLineIn && peer->wsi && !peer->paused) {
      peer->paused = true;
      ++counts_.wsReadPauses;
      lws_rx_flow_control(peer->wsi, 0);
    }
  }
  if (first && notify_) notify_();
}

int ZXProxyWsListener::onEvent(lws *wsi, int reason, void *user, void *in, std::size_t len) {
  auto **slot = static_cast<ZXProxyWsPeer **>(user);
  ZXProxyWsPeer *raw = slot ? *slot : nullptr;
  auto found = raw ? live_.find(raw) : live_.end();
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED: {
      auto peer = std::make_shared<ZXProxyWsPeer>();
      peer->wsi = wsi;
      const int fd = lws_get_socket_fd(wsi);
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      sockaddr_storage a{};
      socklen_t alen = sizeof a;
      char ip[INET6_ADDRSTRLEN] = {};
      if (::getpeername(fd, reinterpret_cast<sockaddr *>(&a), &alen) == 0) {
        if (a.ss_family == AF_INET) {
          const auto &v4 = reinterpret_cast<const sockaddr_in &>(a);
          inet_ntop(AF_INET, &v4.sin_addr, ip, sizeof ip);
          peer->port = ntohs(v4.sin_port);
        } else if (a.ss_family == AF_INET6) {
          const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(a);
          inet_ntop(AF_INET6, &v6.sin6_addr, ip, sizeof ip);
          peer->port = ntohs(v6.sin6_port);
        }
      }
      peer->ip = ip;
      *slot = peer.get();
      live_.emplace(peer.get(), peer);
      push(ZXProxyWsEvent::Type::Opened, peer);
      return 0;
    }
    case LWS_CALLBACK_RECEIVE:
      if (found != live_.end() && len > 0)
        push(ZXProxyWsEvent::Type::Bytes, found->second, in, len);
      return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE: {
      if (found == live_.end()) return -1;
      ZXProxyWsPeer &peer = *found->second;
      std::size_t n = 0;
      bool more = false;
      {
        std::lock_guard lk(peer.lock);
        n = std::min(peer.out.size(), kMaxMessage);
        std::memcpy(writeBuf_.data() + LWS_PRE, peer.out.data(), n);
        peer.out.erase(0, n);
        more = !peer.out.empty();
        if (!n && peer.closeWanted) return -1;
      }
      // The library keeps what the socket did not take and holds the next
      // writable callback back until it is out.
      if (n && lws_write(wsi, writeBuf_.data() + LWS_PRE, n, LWS_WRITE_BINARY) < 0) return -1;
      {
        std::lock_guard lk(peer.lock);
        more = more || peer.closeWanted;
      }
      if (more) lws_callback_on_writable(wsi);
      return 0;
    }
    case LWS_CALLBACK_CLOSED:
      if (found != live_.end()) {
        std::shared_ptr<ZXProxyWsPeer> peer = std::move(found->second);
        live_.erase(found);
        *slot = nullptr;
        peer->wsi = nullptr;
        {
          std::lock_guard lk(peer->lock);
          peer->gone = true;
        }
        if (!stop_) closedThisRound_.push_back(std::move(peer));
      }
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED: {
      std::vector<std::weak_ptr<ZXProxyWsPeer>> wanted;
      bool resume = false;
      {
        std::lock_guard lk(queueLock_);
        wanted.swap(wanted_);
        resume = std::exchange(resume_, false);
      }
      for (const auto &w : wanted)
        if (auto p = w.lock(); p && p->wsi) lws_callback_on_writable(p->wsi);
      if (resume)
        for (auto &[raw_, p] : live_)
          if (p->paused && p->wsi) {
            p->paused = false;
            lws_rx_flow_control(p->wsi, 1);
          }
      return 0;
    }
    default:
      return lws_callback_http_dummy(wsi, static_cast<lws_callback_reasons>(reason), user, in, len);
  }
}
