#include "ZXProxyServer.h"

#include <apr_portable.h>
#include <apr_strings.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "ZXDataDispatcher.h"
#include "ZXProxyApplications.h"
#include "ZXProxyConfig.h"
#include "ZXProxyInstance.h"
#include "ZXProxyServerRecord.h"
#include "ZXSupportedProtocols.h"
#include "zx_agent_stop.h"
#include "zxlb_decode.h"
#include "zxlb_mt_log.h"

namespace {

constexpr std::size_t kReadSize = 131072;
constexpr int kAcceptsPerEvent = 64;
constexpr apr_interval_time_t kPendingOutPoll = apr_time_from_msec(20);
constexpr apr_interval_time_t kSweepEvery = apr_time_from_msec(100);

std::string aprError(apr_status_t rv) {
  char err[256] = {};
  apr_strerror(rv, err, sizeof err);
  return err;
}

// A socket file left by a proxy that did not stop cleanly: nothing accepts
// on it any more, and it would make the bind fail forever.
void removeStaleSocket(const std::string &path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return;
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return;
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno == ECONNREFUSED) {
    ::unlink(path.c_str());
    ZX_PROXY_LOG(-1, "Warning", "Removed the stale socket file '%s'", path.c_str());
  }
  ::close(fd);
}

std::mutex serverLock;  // guards theServer and stopEarly
ZXProxyServer *theServer = nullptr;
bool stopEarly = false;

// Application names for the crash text, appended on the poll thread; the
// signal handler reads up to the published length.
char appNames[4096];
std::atomic<std::size_t> appNamesLen{0};

void rememberAppName(const char *name) {
  std::size_t at = appNamesLen.load(std::memory_order_relaxed);
  const int n = snprintf(appNames + at, sizeof appNames - at, "%s   ", name);
  if (n > 0 && at + static_cast<std::size_t>(n) < sizeof appNames)
    appNamesLen.store(at + static_cast<std::size_t>(n), std::memory_order_release);
}

}  // namespace

void ZXProxyServer::rememberApplication(const char *name) {
  rememberAppName(name);
}

const char *zxProxyAppNames(std::size_t &len) {
  len = appNamesLen.load(std::memory_order_acquire);
  return appNames;
}

ZXProxyServer::ZXProxyServer(ZXProxyServerOptions options)
    : opt_(std::move(options)), pool_(zx::make_pool()) {}

ZXProxyServer::~ZXProxyServer() {
  stop();
  // run() has returned (its caller owns both): nothing is left to do but
  // what a run that never started leaves.
  if (spareFd_ >= 0) ::close(spareFd_);
}

std::size_t ZXProxyServer::applicationCount() const {
  std::lock_guard lk(appsLock_);
  return apps_.size();
}

ZXProxyInstance_t *ZXProxyServer::application(std::size_t i) const {
  std::lock_guard lk(appsLock_);
  return i < apps_.size() ? apps_[i].get() : nullptr;
}

void ZXProxyServer::stop() {
  {
    // Under the lock so that shutdown() cannot destroy the pollset between.
    std::lock_guard lk(stopLock_);
    stopping_ = true;
    if (apr_pollset_t *p = pollset_.load()) apr_pollset_wakeup(p);
  }
  stopCond_.notify_all();
}

bool ZXProxyServer::openWsListener() {
  auto ws = std::make_unique<ZXProxyWsListener>(
      [this] {
        if (apr_pollset_t *p = pollset_) apr_pollset_wakeup(p);
      },
      counts_);
  std::string err;
  if (!ws->start(opt_.host, opt_.port, opt_.wsCertFile, opt_.wsKeyFile, err)) {
    ZX_PROXY_LOG(-1, "Error", "Proxy Server Failed to Start '%s'", err.c_str());
    return false;
  }
  boundPort_ = ws->port();
  ZX_PROXY_LOG(-1, "Info", "Proxy Started at '%s:%d'", opt_.host.c_str(), ws->port());
  ZX_PROXY_LOG(-1, "Info", "Listening over %s", ws->tls() ? "WSS" : "WS");
  ws_ = std::move(ws);
  return true;
}

bool ZXProxyServer::openListener() {
  if (opt_.webSocket) return openWsListener();
  const bool local = !opt_.socketPath.empty();
  const std::string where = local ? opt_.socketPath : opt_.host;
  zx::PoolPtr pool = zx::make_pool(pool_.get());
  apr_sockaddr_t *sa = nullptr;
  apr_socket_t *s = nullptr;
  apr_status_t rv = pool ? APR_SUCCESS : APR_ENOMEM;
  if (rv == APR_SUCCESS && local) {
    removeStaleSocket(opt_.socketPath);
    rv = apr_sockaddr_info_get(&sa, opt_.socketPath.c_str(), APR_UNIX, 0, 0, pool.get());
    if (rv == APR_SUCCESS) rv = apr_socket_create(&s, APR_UNIX, SOCK_STREAM, 0, pool.get());
  } else if (rv == APR_SUCCESS) {
    rv = apr_sockaddr_info_get(&sa, opt_.host.c_str(), APR_UNSPEC,
                               static_cast<apr_port_t>(opt_.port), 0, pool.get());
    if (rv == APR_SUCCESS)
      rv = apr_socket_create(&s, sa->family, SOCK_STREAM, APR_PROTO_TCP, pool.get());
    if (rv == APR_SUCCESS) apr_socket_opt_set(s, APR_SO_REUSEADDR, 1);
  }
  if (rv == APR_SUCCESS) rv = apr_socket_bind(s, sa);
  if (rv == APR_SUCCESS) rv = apr_socket_listen(s, SOMAXCONN);
  if (rv == APR_SUCCESS) rv = apr_socket_opt_set(s, APR_SO_NONBLOCK, 1);
  if (rv != APR_SUCCESS) {
    ZX_PROXY_LOG(-1, "Error", "Proxy Server Failed to Start '%s'",
                 (where + ": " + aprError(rv)).c_str());
    if (s) apr_socket_close(s);
    return false;
  }
  apr_socket_timeout_set(s, 0);
  int port = 0;
  if (!local) {
    apr_sockaddr_t *bound = nullptr;
    if (apr_socket_addr_get(&bound, APR_LOCAL, s) == APR_SUCCESS) port = bound->port;
  }
  boundPort_ = port;
  listener_ = s;
  apr_os_sock_t fd = -1;
  apr_os_sock_get(&fd, s);
  ZXProxy.sktFd = fd;
  listenPool_ = std::move(pool);
  ZX_PROXY_LOG(-1, "Info", "Proxy Started at '%s:%d'", where.c_str(), port);
  return true;
}

void ZXProxyServer::closeListener() {
  if (ws_) {
    ws_->stop();
    ws_.reset();
    counts_.listening = false;
  }
  if (!listener_) return;
  apr_pollset_remove(pollset_, &listenPfd_);
  apr_socket_close(listener_);
  listener_ = nullptr;
  listenPool_.reset();
  ZXProxy.sktFd = -1;
  counts_.listening = false;
  if (!opt_.socketPath.empty()) ::unlink(opt_.socketPath.c_str());
}

bool ZXProxyServer::run() {
  readBuf_.reset(new (std::nothrow) char[kReadSize + 1]);
  if (!pool_ || !readBuf_) {
    ZX_LOG_OOM(kReadSize + 1, "proxy read buffer", 0);
    return false;
  }
  apr_pollset_t *made = nullptr;
  apr_status_t rv = apr_pollset_create(&made, static_cast<apr_uint32_t>(opt_.maxDescriptors),
                                       pool_.get(), APR_POLLSET_WAKEABLE);
  if (rv != APR_SUCCESS) {
    ZX_PROXY_LOG(-1, "Error", "Error in creating poll. Error: %s\n", aprError(rv).c_str());
    return false;
  }
  pollset_ = made;
  // Given up for a moment when the process runs out of descriptors, so that
  // a connection past the limit can be accepted and closed, not left to spin
  // the loop.
  spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

  while (!stopping_ && !openListener()) {
    ZX_PROXY_LOG(-1, "Info", "Retry in 10 seconds.");
    std::unique_lock lk(stopLock_);
    stopCond_.wait_for(lk, std::chrono::microseconds(opt_.listenRetry),
                       [this] { return stopping_.load(); });
  }
  if (ws_) {
    inPollset_ = 1;  // the connections count against maxDescriptors as over sockets
    counts_.listening = true;
    loop();
  } else if (listener_) {
    listenPfd_ = apr_pollfd_t{listenPool_.get(), APR_POLL_SOCKET, APR_POLLIN, 0, {}, nullptr};
    listenPfd_.desc.s = listener_;
    rv = apr_pollset_add(pollset_, &listenPfd_);
    if (rv == APR_SUCCESS) {
      inPollset_ = 1;
      counts_.listening = true;
      loop();
    } else {
      ZX_PROXY_LOG(-1, "Error", "Could not add '%s:%d' to poll. Error: %s",
                   opt_.socketPath.empty() ? opt_.host.c_str() : opt_.socketPath.c_str(),
                   boundPort_.load(), aprError(rv).c_str());
    }
  }
  shutdown();
  return true;
}

void ZXProxyServer::shutdown() {
  for (auto &c : conns_) {
    if (c->closed) continue;
    if (c->kind == ZXProxyConnection::Kind::Data) counts_.frameBytesLost += c->frames.close();
    cleanAndRemoveSocket(*c);
  }
  freeClosed();
  closeListener();
  // Every application sends what it queued and closes its links; the
  // processes' frames already read have been replayed.
  std::vector<std::unique_ptr<ZXProxyInstance_t>> apps;
  {
    std::lock_guard lk(appsLock_);
    apps.swap(apps_);
  }
  // What each application's records came to, and the proxy's own losses:
  // an operator's proof, after a stop, that nothing went missing uncounted.
  for (std::size_t i = 0; i < apps.size(); ++i) {
    zx::ThreadAppScope scope(apps[i].get());
    (void)agent_stop_by(apps[i].get(), apr_time_now() + opt_.stopDeadline);
    const ZXSendCounts sc = readSendCounts(apps[i]->sendBuffers);
    ZX_PROXY_LOG(-1, "Info",
                 "Application '%s' stopped: records %llu, sent %llu, lost %llu (pool full %llu, "
                 "connection down %llu, at exit %llu, oversized %llu)",
                 i < appKeys_.size() ? appKeys_[i].appName.c_str() : "?", sc.records, sc.sent,
                 sc.lost(), sc.lostPoolFull, sc.lostConnDown, sc.lostAtExit, sc.lostOversized);
  }
  ZX_PROXY_LOG(-1, "Info",
               "Proxy stopped: connections accepted %llu, refused %llu; frames replayed %llu, "
               "of them reaching no flowpath %llu, frame bytes lost %llu; messages dropped %llu",
               counts_.accepted.load(), counts_.refused.load(), counts_.framesReplayed.load(),
               zxFramesNotReplayed.load(), counts_.frameBytesLost.load(),
               counts_.messagesDropped.load());
  zxProxyApplications().clear();
  ZXProxy.numInstances = 0;
  apps.clear();
  // No relay can come any more: every control thread has stopped.
  apr_pollset_t *p = nullptr;
  {
    std::lock_guard lk(stopLock_);
    p = pollset_.exchange(nullptr);
  }
  if (p) apr_pollset_destroy(p);
}

void ZXProxyServer::loop() {
  apr_time_t lastSweep = apr_time_now();
  int pollErrors = 0;
  while (!stopping_) {
    deliverRelays();
    deliverWsEvents();
    flushPending();
    const apr_time_t now = apr_time_now();
    if (now - lastSweep >= kSweepEvery) {
      sweepUnregistered(now);
      freeClosed();
      lastSweep = now;
    }
    apr_interval_time_t timeout = opt_.pollTimeout;
    if (!pendingOut_.empty()) timeout = std::min(timeout, kPendingOutPoll);
    if (unregistered_ > 0) timeout = std::min(timeout, kSweepEvery);
    apr_int32_t num = 0;
    const apr_pollfd_t *descs = nullptr;
    apr_status_t rv = apr_pollset_poll(pollset_, timeout, &num, &descs);
    if (rv == APR_EINTR || APR_STATUS_IS_TIMEUP(rv)) continue;
    if (rv != APR_SUCCESS) {
      ZX_PROXY_LOG(-1, "Error", "Agent select/epoll_wait. Error = %s\n", aprError(rv).c_str());
      // A poll that keeps failing must not spin a core.
      if (++pollErrors > 3) {
        std::unique_lock lk(stopLock_);
        stopCond_.wait_for(lk, std::chrono::milliseconds(100), [this] { return stopping_.load(); });
      }
      continue;
    }
    pollErrors = 0;
    // A process that exits closes its connections at once: the end of its
    // control connection must not be seen before its data connection's
    // registration and last frames, or they are refused. Control last.
    lastEvents_.clear();
    for (apr_int32_t i = 0; i < num; ++i) {
      const auto *c = static_cast<const ZXProxyConnection *>(descs[i].client_data);
      if (c && c->kind == ZXProxyConnection::Kind::Control)
        lastEvents_.push_back(&descs[i]);
      else
        handleEvent(descs[i]);
    }
    for (const apr_pollfd_t *e : lastEvents_) handleEvent(*e);
    freeClosed();
  }
}

void ZXProxyServer::handleEvent(const apr_pollfd_t &e) {
  auto *c = static_cast<ZXProxyConnection *>(e.client_data);
  if (!c) {
    acceptNewConnection();
    return;
  }
  if (c->closed) return;
  if (e.rtnevents & APR_POLLNVAL) {
    ZX_PROXY_LOG(-1, "Error", "Invalid descriptor. Closing socket.");
    hangUp(*c, nullptr);
    return;
  }
  if (!stillKnown(*c)) return;
  if (e.rtnevents & APR_POLLIN)
    readFromConnection(*c);
  else if (e.rtnevents & (APR_POLLHUP | APR_POLLERR))
    hangUp(*c, nullptr);
}

bool ZXProxyServer::stillKnown(ZXProxyConnection &c) {
  if (c.kind == ZXProxyConnection::Kind::Unregistered) return true;
  ZXProxyApplications &table = zxProxyApplications();
  const int a = c.ctx.appIndex, p = c.ctx.procIndex;
  if (a >= table.numInstances() || p < 0 || p >= table.processCount(a)) {
    ZX_PROXY_LOG(-1, "Error",
                 "Invalid epoll context data, appIndex = %d, procIndex = %d (numInstance = %d, "
                 "numProcess = %d) i = %d, num = %d",
                 a, p, table.numInstances(), table.processCount(a), 0, 1);
    cleanAndRemoveSocket(c);
    return false;
  }
  const instanceProcess_t &proc = *table.process(a, p);
  if (proc.ctrlSocket != &c && proc.dcSocket != &c && proc.asSocket != &c) {
    ZX_PROXY_LOG(-1, "Warning", "Received EPOLLIN event on unknown fd. Ignoring...");
    cleanAndRemoveSocket(c);
    return false;
  }
  return true;
}

void ZXProxyServer::acceptNewConnection() {
  if (!listener_) return;  // over WebSocket connections arrive as events
  const bool local = !opt_.socketPath.empty();
  for (int i = 0; i < kAcceptsPerEvent; ++i) {
    zx::PoolPtr pool = zx::make_pool(pool_.get());
    if (!pool) return;
    apr_socket_t *s = nullptr;
    const apr_status_t rv = apr_socket_accept(&s, listener_, pool.get());
    if (APR_STATUS_IS_EAGAIN(rv)) return;
    if (rv != APR_SUCCESS) {
      const int err = rv - APR_OS_START_SYSERR;
      if ((err == EMFILE || err == ENFILE) && spareFd_ >= 0) {
        ::close(spareFd_);
        const int fd = ::accept(static_cast<int>(ZXProxy.sktFd), nullptr, nullptr);
        if (fd >= 0) ::close(fd);
        spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ++counts_.refused;
        ZX_PROXY_LOG(-1, "Error", "Connection refused: out of file descriptors (%s)",
                     aprError(rv).c_str());
        continue;
      }
      ZX_PROXY_LOG(-1, "Error", "Accept failed: %s", aprError(rv).c_str());
      return;
    }
    auto c = std::make_unique<ZXProxyConnection>();
    c->socket = s;
    apr_os_sock_t fd = -1;
    apr_os_sock_get(&fd, s);
    c->fd = fd;
    if (local) {
      c->peerIp = opt_.socketPath;
    } else {
      apr_sockaddr_t *sa = nullptr;
      char *ip = nullptr;
      if (apr_socket_addr_get(&sa, APR_REMOTE, s) == APR_SUCCESS &&
          apr_sockaddr_ip_get(&ip, sa) == APR_SUCCESS) {
        c->peerIp = ip;
        c->peerPort = sa->port;
      }
    }
    if (!roomFor(c->peerIp, c->peerPort)) {
      apr_socket_close(s);
      continue;
    }
    apr_socket_opt_set(s, APR_SO_NONBLOCK, 1);
    apr_socket_timeout_set(s, 0);
    c->pfd = apr_pollfd_t{pool.get(), APR_POLL_SOCKET, APR_POLLIN, 0, {}, c.get()};
    c->pfd.desc.s = s;
    c->pool = std::move(pool);
    if (const apr_status_t added = apr_pollset_add(pollset_, &c->pfd); added != APR_SUCCESS) {
      ZX_PROXY_LOG(-1, "Error", "Could not add '%s:%d' to poll. Error: %s", c->peerIp.c_str(),
                   c->peerPort, aprError(added).c_str());
      apr_socket_close(s);
      continue;
    }
    admit(std::move(c));
  }
}

void ZXProxyServer::readFromConnection(ZXProxyConnection &c) {
  if (c.ws) return;  // its bytes come as events
  char *buf = readBuf_.get();
  const ssize_t n = ::recv(c.fd, buf, kReadSize, MSG_DONTWAIT);
  if (n > 0) {
    consume(c, buf, static_cast<std::size_t>(n));
    return;
  }
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  hangUp(c, n < 0 ? strerror(errno) : nullptr);
}

void ZXProxyServer::consume(ZXProxyConnection &c, const char *data, std::size_t n) {
  if (c.kind == ZXProxyConnection::Kind::Data)
    readDataFromSocket(c, data, n);
  else
    readMessageFromSocket(c, data, n);
}

void ZXProxyServer::deliverWsEvents() {
  if (!ws_) return;
  ws_->take(wsEvents_);
  if (wsEvents_.empty()) return;
  // As over sockets, a control connection's end is taken after what the
  // process's other connections sent with it.
  std::vector<ZXProxyWsEvent *> controlEnds;
  for (ZXProxyWsEvent &e : wsEvents_) {
    const ZXProxyConnection *c = e.peer->conn;
    if (e.type == ZXProxyWsEvent::Type::Closed && c && c->kind == ZXProxyConnection::Kind::Control)
      controlEnds.push_back(&e);
    else
      takeWsEvent(e);
  }
  for (ZXProxyWsEvent *e : controlEnds) takeWsEvent(*e);
  wsEvents_.clear();
  freeClosed();
}

void ZXProxyServer::admit(std::unique_ptr<ZXProxyConnection> c) {
  c->acceptedAt = apr_time_now();
  ++inPollset_;
  ++unregistered_;
  ++counts_.accepted;
  ++counts_.openConnections;
  ZX_PROXY_LOG(1, "Info", "Accepted '%s:%d'", c->peerIp.c_str(), c->peerPort);
  conns_.push_back(std::move(c));
}

bool ZXProxyServer::roomFor(const std::string &ip, int port) {
  if (inPollset_ < opt_.maxDescriptors) return true;
  ++counts_.refused;
  ZX_PROXY_LOG(-1, "Error",
               "Connection refused: the poll set holds %zu descriptors. Closing '%s:%d'.",
               opt_.maxDescriptors, ip.c_str(), port);
  return false;
}

void ZXProxyServer::takeWsEvent(ZXProxyWsEvent &e) {
  ZXProxyConnection *c = e.peer->conn;
  switch (e.type) {
    case ZXProxyWsEvent::Type::Opened: {
      if (!roomFor(e.peer->ip, e.peer->port)) {
        ws_->close(e.peer);
        return;
      }
      auto made = std::make_unique<ZXProxyConnection>();
      made->ws = e.peer;
      made->peerIp = e.peer->ip;
      made->peerPort = e.peer->port;
      e.peer->conn = made.get();
      admit(std::move(made));
      return;
    }
    case ZXProxyWsEvent::Type::Bytes:
      if (c && !c->closed && stillKnown(*c)) consume(*c, e.bytes.data(), e.bytes.size());
      return;
    case ZXProxyWsEvent::Type::Closed:
      if (c && !c->closed) hangUp(*c, nullptr);
      return;
  }
}

void ZXProxyServer::readMessageFromSocket(ZXProxyConnection &c, const char *data, std::size_t n) {
  if (c.kind == ZXProxyConnection::Kind::AutoSensor) return;  // nothing here reads hotspot data
  std::string joined;
  if (!c.lineTail.empty()) {
    joined = std::move(c.lineTail);
    c.lineTail.clear();
    joined.append(data, n);
    data = joined.data();
    n = joined.size();
  }
  std::size_t at = 0;
  while (at < n && !c.closed) {
    // The registration line of a data connection may come with its first
    // frames: from here on the bytes are frames.
    if (c.kind == ZXProxyConnection::Kind::Data) {
      readDataFromSocket(c, data + at, n - at);
      return;
    }
    const auto *nl = static_cast<const char *>(std::memchr(data + at, '\n', n - at));
    if (!nl) break;
    const std::size_t len = static_cast<std::size_t>(nl - (data + at));
    std::string_view line(data + at, len);
    at += len + 1;
    if (c.discardingLine) {
      c.discardingLine = false;
      continue;
    }
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty()) processReceivedMsg(c, line);
    if (c.closed && at < n && line.starts_with("zx_data_msg_req:")) {
      // Frames behind a refused data registration: lost, and said so.
      counts_.frameBytesLost += n - at;
      ZX_PROXY_LOG(-1, "Error", "%zu bytes of frames behind a refused data registration lost",
                   n - at);
    }
  }
  if (c.closed || at >= n || c.discardingLine) return;
  if (n - at > ZXProxyConnection::kMaxLine) {
    if (c.kind == ZXProxyConnection::Kind::Unregistered) {
      ZX_PROXY_LOG(-1, "Error",
                   "No registration line within %zu bytes from '%s:%d'. Closing connection.",
                   ZXProxyConnection::kMaxLine, c.peerIp.c_str(), c.peerPort);
      cleanAndRemoveSocket(c);
      return;
    }
    ZX_PROXY_LOG(-1, "Warning", "Line of more than %zu bytes from '%s:%d' discarded",
                 ZXProxyConnection::kMaxLine, c.peerIp.c_str(), c.peerPort);
    c.discardingLine = true;
    return;
  }
  c.lineTail.assign(data + at, n - at);
}

void ZXProxyServer::readDataFromSocket(ZXProxyConnection &c, const char *data, std::size_t n) {
  ZXProxyInstance_t *app = zxProxyApplications().at(c.ctx.appIndex);
  if (!app) return;
  zx::ThreadAppScope scope(app);
  counts_.framesReplayed += c.frames.feed(*app, data, n, c.ctx.procIndex);
}

void ZXProxyServer::processReceivedMsg(ZXProxyConnection &c, std::string_view line) {
  if (c.kind == ZXProxyConnection::Kind::Unregistered) {
    --unregistered_;
    // Counted as registered-or-closed from here on, whatever happens below.
    c.kind = ZXProxyConnection::Kind::Control;
    if (!parseProxyMsgReq(c, line)) cleanAndRemoveSocket(c);
    return;
  }
  ZXProxyInstance_t *app = zxProxyApplications().at(c.ctx.appIndex);
  const instanceProcess_t *proc = zxProxyApplications().process(c.ctx.appIndex, c.ctx.procIndex);
  if (!app || !proc) return;
  const long long pid = proc->processId;
  auto starts = [&](std::string_view prefix) { return line.substr(0, prefix.size()) == prefix; };
  auto valueAfter = [&](std::string_view key) {
    const std::size_t at = line.find(key);
    if (at == std::string_view::npos) return std::string_view{};
    std::string_view v = line.substr(at + key.size());
    return v.substr(0, v.find(';'));
  };
  ZX_PROXY_LOG(1, "Info", "From pid %lld: '%.*s'", pid,
               static_cast<int>(std::min<std::size_t>(line.size(), 200)), line.data());
  if (line.find("AGENT-LOG") != std::string_view::npos) {
    std::string wrapped = "\n<agentLogs>\n";
    wrapped.append(line);
    wrapped += "\n</agentLogs>\n";
    if (!app->queueForCollector(std::move(wrapped))) ++counts_.messagesDropped;
  } else if (starts("zx_control_req:action=send_file;keyword=")) {
    statAndSendFileContent(c, valueAfter("keyword="), "zx_control_rep:action=send_file_content;");
  } else if (starts("zx_control_req:action=send_instrumentation_profile;")) {
    statAndSendFileContent(c, valueAfter("instrProfile="),
                           "zx_control_rep:action=instrumentation_profile;");
  } else if (starts("zx_ctrl_msg_rep:result") ||
             starts("zx_meta_data_req:action=send_meta_data;") ||
             starts("zx_control_rep:action=start_instrumentation;status=starting;result=Ok") ||
             starts("zx_control_rep:action=modify;result=Ok;") ||
             starts("zx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;")) {
    // The application object answers the collector itself, once for all
    // of its processes.
  } else {
    ZX_PROXY_LOG(0, "Warning", "Unknown message from pid %lld ignored", pid);
  }
}

void ZXProxyServer::hangUp(ZXProxyConnection &c, const char *readError) {
  if (c.closed) return;
  ZXProxyApplications &table = zxProxyApplications();
  instanceProcess_t *proc = c.kind == ZXProxyConnection::Kind::Unregistered
                                ? nullptr
                                : table.process(c.ctx.appIndex, c.ctx.procIndex);
  const int pid = proc ? static_cast<int>(proc->processId) : -1;
  if (readError)
    ZX_PROXY_LOG(-1, "Error", "Read Failed (%s) [pid = %d] ['%s':'%d']. Closing connection.",
                 c.kindText(), pid, c.peerIp.c_str(), c.peerPort);
  else
    ZX_PROXY_LOG(-1, "Info", "HANGUP received. (%s) [pid = %d] ['%s':'%d']", c.kindText(), pid,
                 c.peerIp.c_str(), c.peerPort);
  if (c.kind == ZXProxyConnection::Kind::Control) settleRegistrations();
  if (c.kind == ZXProxyConnection::Kind::Data) {
    if (const std::size_t lost = c.frames.close()) {
      counts_.frameBytesLost += lost;
      ZX_PROXY_LOG(-1, "Warning", "Data connection of pid %d closed mid-frame: %zu bytes lost", pid,
                   lost);
    }
  }
  cleanAndRemoveSocket(c);
}

void ZXProxyServer::settleRegistrations() {
  acceptNewConnection();
  // By index: nothing read here adds a connection, and closed ones stay
  // until the batch is done.
  for (std::size_t i = 0; i < conns_.size(); ++i) {
    ZXProxyConnection &u = *conns_[i];
    if (!u.closed && u.kind == ZXProxyConnection::Kind::Unregistered) readFromConnection(u);
  }
}

void ZXProxyServer::forgetConnection(ZXProxyConnection &c) {
  if (c.kind == ZXProxyConnection::Kind::Unregistered) {
    --unregistered_;
    return;
  }
  ZXProxyApplications &table = zxProxyApplications();
  instanceProcess_t *proc = table.process(c.ctx.appIndex, c.ctx.procIndex);
  if (!proc) return;
  if (proc->ctrlSocket == &c) {
    proc->ctrlSocket = nullptr;
    proc->ctrlFd = -1;
    const int active = std::max(0, table.activeProcessCount(c.ctx.appIndex) - 1);
    table.setActiveProcessCount(c.ctx.appIndex, active);
    if (ZXProxyInstance_t *app = table.at(c.ctx.appIndex)) app->processCount = active;
  } else if (proc->dcSocket == &c) {
    proc->dcSocket = nullptr;
    proc->dcFd = -1;
  } else if (proc->asSocket == &c) {
    proc->asSocket = nullptr;
    proc->asFd = -1;
  }
  if (!proc->connected()) {
    proc->processId = -1;
    proc->data.clear();
  }
}

void ZXProxyServer::cleanAndRemoveSocket(ZXProxyConnection &c) {
  if (c.closed) return;
  forgetConnection(c);
  if (c.ws) {
    if (ws_) ws_->close(c.ws);
    c.ws->conn = nullptr;
  } else {
    if (apr_pollset_remove(pollset_, &c.pfd) != APR_SUCCESS)
      ZX_PROXY_LOG(-1, "Error", "Unable to remove '%s:%d' from epoll", c.peerIp.c_str(),
                   c.peerPort);
    apr_socket_close(c.socket);
    c.socket = nullptr;
  }
  --inPollset_;
  c.closed = true;
  ++closedPending_;
  ++counts_.closed;
  --counts_.openConnections;
  ZX_PROXY_LOG(-1, "Info", "'%s:%d' - Connection terminated.", c.peerIp.c_str(), c.peerPort);
}

void ZXProxyServer::freeClosed() {
  if (!closedPending_) return;
  closedPending_ = 0;
  std::erase_if(pendingOut_, [](const ZXProxyConnection *c) { return c->closed; });
  std::erase_if(conns_, [](const std::unique_ptr<ZXProxyConnection> &c) { return c->closed; });
}

void ZXProxyServer::sweepUnregistered(apr_time_t now) {
  if (!unregistered_) return;
  for (auto &c : conns_) {
    if (c->closed || c->kind != ZXProxyConnection::Kind::Unregistered ||
        now - c->acceptedAt < opt_.registrationTimeout)
      continue;
    ZX_PROXY_LOG(-1, "Warning", "No registration line from '%s:%d' in time. Closing connection.",
                 c->peerIp.c_str(), c->peerPort);
    cleanAndRemoveSocket(*c);
  }
}

bool ZXProxyServer::sendToConnection(ZXProxyConnection &c, std::string_view text) {
  if (c.closed) return false;
  if (c.out.size() + text.size() > ZXProxyConnection::kMaxPendingOut) {
    // A process that does not read loses its messages, never the others'.
    ++counts_.messagesDropped;
    if (c.outDropped++ == 0)
      ZX_PROXY_LOG(-1, "Warning",
                   "'%s:%d' does not read its control connection: messages to it are dropped",
                   c.peerIp.c_str(), c.peerPort);
    return true;
  }
  const bool wasIdle = c.out.empty();
  c.out.append(text);
  if (!flushOut(c)) return false;
  if (wasIdle && !c.out.empty()) pendingOut_.push_back(&c);
  return true;
}

bool ZXProxyServer::flushOut(ZXProxyConnection &c) {
  if (c.ws && !c.out.empty()) {
    const long n = ws_ ? ws_->send(c.ws, c.out.data(), c.out.size()) : -1;
    if (n < 0) return false;
    c.out.erase(0, static_cast<std::size_t>(n));
    return true;
  }
  while (!c.out.empty()) {
    const ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.out.erase(0, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
    return false;
  }
  return true;
}

void ZXProxyServer::flushPending() {
  if (pendingOut_.empty()) return;
  std::vector<ZXProxyConnection *> pending;
  pending.swap(pendingOut_);
  for (ZXProxyConnection *c : pending) {
    if (c->closed) continue;
    if (!flushOut(*c))
      hangUp(*c, "send failed");
    else if (!c->out.empty())
      pendingOut_.push_back(c);
  }
}

void ZXProxyServer::postRelay(int appIndex, const char *message, int procIndex) {
  {
    std::lock_guard lk(relayLock_);
    relays_.push_back(Relay{appIndex, procIndex, ++relaySeq_, message});
  }
  if (apr_pollset_t *p = pollset_) apr_pollset_wakeup(p);
}

void ZXProxyServer::deliverRelays() {
  std::vector<Relay> batch;
  {
    std::lock_guard lk(relayLock_);
    if (relays_.empty()) return;
    batch.swap(relays_);
  }
  ZXProxyApplications &table = zxProxyApplications();
  for (Relay &r : batch) {
    r.text += '\n';
    const int first = r.procIndex < 0 ? 0 : r.procIndex;
    const int last = r.procIndex < 0 ? table.processCount(r.appIndex) - 1 : r.procIndex;
    for (int p = first; p <= last; ++p) {
      instanceProcess_t *proc = table.process(r.appIndex, p);
      if (!proc || !proc->ctrlSocket || proc->joinedAfterRelay >= r.seq) continue;
      if (!sendToConnection(*proc->ctrlSocket, r.text)) hangUp(*proc->ctrlSocket, "send failed");
    }
  }
}

ZXProxyServer *zxProxyServer() {
  std::lock_guard lk(serverLock);
  return theServer;
}

void zxProxyStop() {
  std::lock_guard lk(serverLock);
  stopEarly = true;
  if (theServer) theServer->stop();
}

bool zxProxyInit(ZXProxyServerOptions options) {
  ZXProxyServer server(std::move(options));
  {
    std::lock_guard lk(serverLock);
    theServer = &server;
    if (stopEarly) server.stop();
  }
  const bool ran = server.run();
  std::lock_guard lk(serverLock);
  theServer = nullptr;
  return ran;
}

bool zxProxyInitLws(ZXProxyServerOptions options) {
  options.webSocket = true;
  options.socketPath.clear();
  return zxProxyInit(std::move(options));
}

bool zxProxyInitWrapper(ZXProxyInstance_t &settings, ZXProxyServerOptions options) {
  (void)readZXProxyConfig(settings);
  options.socketPath = ZXProxy.zxProxyUnixDomainPath.c_str();
  options.host = ZXProxy.proxyHost.c_str();
  options.port = static_cast<int>(ZXProxy.proxyPort);
  options.home =
      ZXProxy.zxHomePath.is_set() ? ZXProxy.zxHomePath.c_str() : settings.ZXSys.zxHomePath.c_str();
  const int conType = ZXProxy.proxyConType;
  if (conType != ZX_PROTO_WS && conType != ZX_PROTO_WSS) return zxProxyInit(std::move(options));
  if (conType == ZX_PROTO_WSS) {
    options.wsCertFile = settings.ZXSys.proxyWsCert.c_str();
    options.wsKeyFile = settings.ZXSys.proxyWsKey.c_str();
    if (options.wsCertFile.empty() || options.wsKeyFile.empty()) {
      ZX_PROXY_LOG(-1, "Error", "Proxy Server Failed to Start '%s'",
                   "proxyConType=3 (WSS) needs proxyWsCert and proxyWsKey");
      return false;
    }
  }
  return zxProxyInitLws(std::move(options));
}
