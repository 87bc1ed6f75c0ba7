#include "ZXSocketManager.h"

#include <cstdio>

#include "ZXSupportedProtocols.h"
#include "ZXWebSocketConnection.h"
#include "zxlb_sock.h"

namespace {

// A stream socket (TCP, or unix-domain) over APR in its own root pool: connections are opened
// by the control and data threads concurrently, and a pool is not shared
// across threads.
class StreamConnection final : public ZXConnection {
 public:
  StreamConnection(zx::PoolPtr pool, apr_socket_t *sock, apr_pollset_t *pollset)
      : pool_(std::move(pool)), sock_(sock), pollset_(pollset) {
    get_src_addr_wrapper(sock_, source_.ip, sizeof source_.ip, &source_.port);
  }
  ~StreamConnection() override {
    // The pool owns the pollset; the socket is closed before the pool goes.
    apr_socket_close(sock_);
  }
  StreamConnection(const StreamConnection &) = delete;
  StreamConnection &operator=(const StreamConnection &) = delete;

  int send_all(const char *data, std::size_t len, char *err, int err_len) override {
    return zxlb_send_n_bytes(sock_, data, len, err, err_len);
  }
  long send_some(const char *data, std::size_t len, char *err, int err_len) override {
    return zxlb_send_some(sock_, data, len, err, err_len);
  }
  void set_send_timeout(apr_interval_time_t timeout) override {
    apr_socket_timeout_set(sock_, timeout > 0 ? timeout : 1);
  }
  Wait wait_readable(apr_interval_time_t timeout, char *err, int err_len) override {
    apr_int32_t n = 0;
    const apr_pollfd_t *ready = nullptr;
    apr_status_t rv = apr_pollset_poll(pollset_, timeout, &n, &ready);
    if (rv == APR_SUCCESS && n > 0) return Wait::Readable;
    if (APR_STATUS_IS_TIMEUP(rv) || (rv == APR_SUCCESS && n == 0)) return Wait::Timeout;
    if (APR_STATUS_IS_EINTR(rv)) return Wait::Woken;
    zxlb_strerror(rv, err, err_len);
    return Wait::Error;
  }
  long receive(char *buf, std::size_t cap, char *err, int err_len) override {
    return zxlb_recv_some(sock_, buf, cap, err, err_len);
  }
  void wakeup() override { apr_pollset_wakeup(pollset_); }

 private:
  zx::PoolPtr pool_;
  apr_socket_t *sock_;
  apr_pollset_t *pollset_;
};

// The socket in its pollset, as a connection; null (reason in `err`) when
// the pollset cannot be made.
std::unique_ptr<ZXConnection> wrap(zx::PoolPtr pool, apr_socket_t *sock, char *err, int err_len) {
  apr_pollset_t *pollset = nullptr;
  apr_status_t rv = apr_pollset_create(&pollset, 1, pool.get(), APR_POLLSET_WAKEABLE);
  if (rv == APR_SUCCESS) {
    apr_pollfd_t pfd{};
    pfd.p = pool.get();
    pfd.desc_type = APR_POLL_SOCKET;
    pfd.reqevents = APR_POLLIN;
    pfd.desc.s = sock;
    rv = apr_pollset_add(pollset, &pfd);
  }
  if (rv != APR_SUCCESS) {
    zxlb_strerror(rv, err, err_len);
    apr_socket_close(sock);
    return nullptr;
  }
  return std::make_unique<StreamConnection>(std::move(pool), sock, pollset);
}

zx::PoolPtr connectionPool(char *err, int err_len) {
  zx::PoolPtr pool = zx::make_pool();
  if (!pool && err && err_len > 0)
    snprintf(err, static_cast<size_t>(err_len), "no memory for a pool");
  return pool;
}

std::unique_ptr<ZXConnection> open_unix(const char *path, apr_interval_time_t timeout,
                                        apr_interval_time_t io_timeout, char *err, int err_len) {
  zx::PoolPtr pool = connectionPool(err, err_len);
  if (!pool) return nullptr;
  apr_socket_t *sock = nullptr;
  if (zxlb_unix_connect(path, timeout, io_timeout, pool.get(), &sock, err, err_len) != APR_SUCCESS)
    return nullptr;
  return wrap(std::move(pool), sock, err, err_len);
}

std::unique_ptr<ZXConnection> open_tcp(const char *host, int port, apr_interval_time_t timeout,
                                       apr_interval_time_t io_timeout, char *err, int err_len,
                                       const std::function<bool()> &abandon) {
  zx::PoolPtr pool = connectionPool(err, err_len);
  if (!pool) return nullptr;
  apr_socket_t *sock = nullptr;
  if (zxlb_tcp_connect(host, port, timeout, io_timeout, pool.get(), &sock, err, err_len, abandon) !=
      APR_SUCCESS)
    return nullptr;
  return wrap(std::move(pool), sock, err, err_len);
}

}  // namespace

std::unique_ptr<ZXConnection> zx_open_connection(int protocol, const char *host, int port,
                                                 apr_interval_time_t timeout,
                                                 apr_interval_time_t io_timeout, char *err,
                                                 int err_len, const std::function<bool()> &abandon,
                                                 const ZXTlsSettings &tls) {
  if (protocol == ZX_PROTO_TCP)
    return open_tcp(host, port, timeout, io_timeout, err, err_len, abandon);
  if (protocol == ZX_PROTO_UNIX) return open_unix(host, timeout, io_timeout, err, err_len);
  if (protocol == ZX_PROTO_WS || protocol == ZX_PROTO_WSS)
    return zx_open_websocket(protocol == ZX_PROTO_WSS, host, port, timeout, io_timeout, tls, err,
                             err_len, abandon);
  if (err && err_len > 0)
    snprintf(err, static_cast<size_t>(err_len), "no transport for protocol %d (%s)", protocol,
             protocolNameFromCode(protocol));
  return nullptr;
}
