#include "zxlb_sock.h"

#include <sys/un.h>

#include <apr_portable.h>
#include <apr_strings.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

void zxlb_strerror(apr_status_t rv, char *err, int err_len) {
  if (err && err_len > 0) apr_strerror(rv, err, static_cast<apr_size_t>(err_len));
}

namespace {

bool peer_gone(apr_status_t rv) {
  return APR_STATUS_IS_EOF(rv) || APR_STATUS_IS_ECONNRESET(rv) || APR_STATUS_IS_EPIPE(rv) ||
         APR_STATUS_IS_ECONNABORTED(rv) || rv == APR_FROM_OS_ERROR(ENOTCONN);
}

}  // namespace

namespace {

constexpr int kConnectSliceMs = 50;

// Waits for a non-blocking connect in short slices so that `abandon` (a stop
// request) ends the wait within a slice: a host's exit must not wait out a
// connect timeout.
apr_status_t finish_connect(apr_socket_t *sock, apr_interval_time_t timeout,
                            const std::function<bool()> &abandon) {
  apr_os_sock_t fd = -1;
  apr_os_sock_get(&fd, sock);
  const apr_time_t deadline = apr_time_now() + (timeout > 0 ? timeout : 1);
  for (;;) {
    if (abandon && abandon()) return APR_ECONNABORTED;
    apr_interval_time_t left = deadline - apr_time_now();
    if (left <= 0) return APR_TIMEUP;
    int ms = static_cast<int>(std::min<apr_interval_time_t>((left + 999) / 1000, kConnectSliceMs));
    pollfd p{fd, POLLOUT, 0};
    int r = ::poll(&p, 1, ms);
    if (r < 0 && errno != EINTR) return APR_FROM_OS_ERROR(errno);
    if (r <= 0) continue;
    int soerr = 0;
    socklen_t len = sizeof soerr;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &len) != 0) return APR_FROM_OS_ERROR(errno);
    return soerr == 0 ? APR_SUCCESS : APR_FROM_OS_ERROR(soerr);
  }
}

// One name lookup on a thread of its own. getaddrinfo cannot be interrupted,
// and a resolver that never answers must not hold the control thread (and
// through it a host's exit): the caller waits in slices and may walk away,
// leaving the lookup to finish and free its state by itself.
struct Lookup {
  std::mutex m;  // guards done, rc and addr
  std::condition_variable cv;
  bool done = false;
  int rc = 0;
  char addr[INET6_ADDRSTRLEN] = {};
};

}  // namespace

apr_status_t zxlb_resolve(const char *host, apr_interval_time_t timeout,
                          const std::function<bool()> &abandon, char *out, std::size_t out_len,
                          char *err, int err_len) {
  unsigned char probe[sizeof(in6_addr)];
  if (inet_pton(AF_INET, host, probe) == 1 || inet_pton(AF_INET6, host, probe) == 1) {
    snprintf(out, out_len, "%s", host);
    return APR_SUCCESS;
  }
  std::shared_ptr<Lookup> lookup;
  try {
    lookup = std::make_shared<Lookup>();
    std::thread([lookup, name = std::string(host)] {
      addrinfo hints{};
      hints.ai_family = AF_UNSPEC;
      hints.ai_socktype = SOCK_STREAM;
      addrinfo *res = nullptr;
      char text[INET6_ADDRSTRLEN] = {};
      int rc = getaddrinfo(name.c_str(), nullptr, &hints, &res);
      if (rc == 0) {
        const void *a = res->ai_family == AF_INET6
                            ? static_cast<const void *>(
                                  &reinterpret_cast<sockaddr_in6 *>(res->ai_addr)->sin6_addr)
                            : &reinterpret_cast<sockaddr_in *>(res->ai_addr)->sin_addr;
        if (!inet_ntop(res->ai_family, a, text, sizeof text)) rc = EAI_FAIL;
        freeaddrinfo(res);
      }
      std::lock_guard lk(lookup->m);
      lookup->rc = rc;
      std::memcpy(lookup->addr, text, sizeof text);
      lookup->done = true;
      lookup->cv.notify_all();
    }).detach();
  } catch (const std::exception &) {
    zxlb_strerror(APR_ENOMEM, err, err_len);
    return APR_ENOMEM;
  }
  const apr_time_t deadline = apr_time_now() + (timeout > 0 ? timeout : 1);
  std::unique_lock lk(lookup->m);
  while (!lookup->done) {
    if (abandon && abandon()) return APR_ECONNABORTED;
    apr_interval_time_t left = deadline - apr_time_now();
    if (left <= 0) {
      if (err && err_len > 0)
        snprintf(err, static_cast<size_t>(err_len), "name lookup of '%s' timed out", host);
      return APR_TIMEUP;
    }
    lookup->cv.wait_for(
        lk, std::chrono::microseconds(std::min<apr_interval_time_t>(left, kConnectSliceMs * 1000)));
  }
  if (lookup->rc != 0) {
    if (err && err_len > 0)
      snprintf(err, static_cast<size_t>(err_len), "cannot resolve '%s': %s", host,
               gai_strerror(lookup->rc));
    return APR_EGENERAL;
  }
  snprintf(out, out_len, "%s", lookup->addr);
  return APR_SUCCESS;
}

apr_status_t zxlb_tcp_connect(const char *host, int port, apr_interval_time_t timeout,
                              apr_interval_time_t io_timeout, apr_pool_t *pool, apr_socket_t **out,
                              char *err, int err_len, const std::function<bool()> &abandon) {
  *out = nullptr;
  if (!host || !*host || port <= 0 || port > 65535) {
    if (err && err_len > 0)
      snprintf(err, static_cast<size_t>(err_len), "invalid address '%s:%d'", host ? host : "",
               port);
    return APR_EINVAL;
  }
  // The lookup shares the connect's deadline and stop; APR then only parses
  // the numeric address.
  char numeric[INET6_ADDRSTRLEN] = {};
  apr_status_t rv = zxlb_resolve(host, timeout, abandon, numeric, sizeof numeric, err, err_len);
  if (rv != APR_SUCCESS) return rv;
  apr_sockaddr_t *sa = nullptr;
  // The family named exactly: with APR_UNSPEC glibc checks the interfaces
  // under a lock of its own that a thread of a forked parent may have held.
  unsigned char probe[sizeof(in6_addr)];
  const int family = inet_pton(AF_INET, numeric, probe) == 1 ? APR_INET : APR_INET6;
  rv = apr_sockaddr_info_get(&sa, numeric, family, static_cast<apr_port_t>(port), 0, pool);
  apr_socket_t *sock = nullptr;
  if (rv == APR_SUCCESS)
    rv = apr_socket_create(&sock, sa->family, SOCK_STREAM, APR_PROTO_TCP, pool);
  // Timeout 0: a non-blocking connect that finish_connect waits for.
  if (rv == APR_SUCCESS) rv = apr_socket_timeout_set(sock, 0);
  if (rv == APR_SUCCESS) {
    rv = apr_socket_connect(sock, sa);
    if (APR_STATUS_IS_EINPROGRESS(rv) || APR_STATUS_IS_EAGAIN(rv))
      rv = finish_connect(sock, timeout, abandon);
  }
  if (rv == APR_SUCCESS) {
    apr_socket_opt_set(sock, APR_TCP_NODELAY, 1);
    rv = apr_socket_timeout_set(sock, io_timeout > 0 ? io_timeout : 1);
  }
  if (rv != APR_SUCCESS) {
    zxlb_strerror(rv, err, err_len);
    if (sock) apr_socket_close(sock);
    return rv;
  }
  *out = sock;
  return APR_SUCCESS;
}

apr_status_t zxlb_unix_connect(const char *path, apr_interval_time_t timeout,
                               apr_interval_time_t io_timeout, apr_pool_t *pool, apr_socket_t **out,
                               char *err, int err_len) {
  *out = nullptr;
  // APR cuts a longer path silently, which would reach some other socket.
  if (!path || !*path || std::strlen(path) >= sizeof(sockaddr_un{}.sun_path)) {
    if (err && err_len > 0)
      snprintf(err, static_cast<size_t>(err_len), "invalid socket path '%s'", path ? path : "");
    return APR_EINVAL;
  }
  apr_sockaddr_t *sa = nullptr;
  apr_socket_t *sock = nullptr;
  apr_status_t rv = apr_sockaddr_info_get(&sa, path, APR_UNIX, 0, 0, pool);
  if (rv == APR_SUCCESS) rv = apr_socket_create(&sock, APR_UNIX, SOCK_STREAM, 0, pool);
  if (rv == APR_SUCCESS) rv = apr_socket_timeout_set(sock, timeout > 0 ? timeout : 1);
  if (rv == APR_SUCCESS) rv = apr_socket_connect(sock, sa);
  if (rv == APR_SUCCESS) rv = apr_socket_timeout_set(sock, io_timeout > 0 ? io_timeout : 1);
  if (rv != APR_SUCCESS) {
    zxlb_strerror(rv, err, err_len);
    if (sock) apr_socket_close(sock);
    return rv;
  }
  *out = sock;
  return APR_SUCCESS;
}

namespace {

// A send that never raises SIGPIPE: the host's signal disposition is not
// ours to change, and a collector that goes away must not kill the process.
// Waits up to the socket's timeout for room.
long send_nosignal(apr_socket_t *sock, const char *data, apr_size_t len, apr_status_t *rv) {
  apr_os_sock_t fd = -1;
  apr_os_sock_get(&fd, sock);
  apr_interval_time_t timeout = 0;
  apr_socket_timeout_get(sock, &timeout);
  for (int attempt = 0; attempt < 2; ++attempt) {
    ssize_t n = ::send(fd, data, len, MSG_NOSIGNAL);
    if (n >= 0) {
      *rv = APR_SUCCESS;
      return n;
    }
    if (errno == EINTR) {
      --attempt;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      *rv = APR_FROM_OS_ERROR(errno);
      return -1;
    }
    if (attempt == 1) break;
    pollfd p{fd, POLLOUT, 0};
    int ms = timeout < 0 ? -1 : static_cast<int>((timeout + 999) / 1000);
    int r;
    do {
      r = ::poll(&p, 1, ms);
    } while (r < 0 && errno == EINTR);
    if (r == 0) break;
  }
  *rv = APR_TIMEUP;
  return 0;
}

}  // namespace

long zxlb_send_some(apr_socket_t *sock, const char *data, apr_size_t len, char *err, int err_len) {
  apr_status_t rv = APR_SUCCESS;
  long n = send_nosignal(sock, data, len, &rv);
  if (n > 0) return n;
  if (rv == APR_SUCCESS || APR_STATUS_IS_TIMEUP(rv)) return 0;
  zxlb_strerror(rv, err, err_len);
  return peer_gone(rv) ? -1 : -2;
}

int zxlb_send_n_bytes(apr_socket_t *sock, const char *data, apr_size_t len, char *err,
                      int err_len) {
  while (len > 0) {
    apr_status_t rv = APR_SUCCESS;
    long n = send_nosignal(sock, data, len, &rv);
    // A slow reader that takes some bytes per timeout is waited for; one that
    // takes none within it is a failure.
    if (n <= 0) {
      zxlb_strerror(rv, err, err_len);
      return -2;
    }
    data += n;
    len -= static_cast<apr_size_t>(n);
  }
  return 0;
}

long zxlb_recv_some(apr_socket_t *sock, char *buf, apr_size_t cap, char *err, int err_len) {
  apr_size_t n = cap;
  apr_status_t rv = apr_socket_recv(sock, buf, &n);
  if (n > 0) return static_cast<long>(n);
  if (rv == APR_SUCCESS || APR_STATUS_IS_TIMEUP(rv) || APR_STATUS_IS_EAGAIN(rv)) return 0;
  zxlb_strerror(rv, err, err_len);
  return peer_gone(rv) ? -1 : -2;
}

void get_src_addr_wrapper(apr_socket_t *sock, char *ip, int ip_len, int *port) {
  apr_os_sock_t fd = -1;
  if (sock) apr_os_sock_get(&fd, sock);
  zxlb_local_addr(fd, ip, ip_len, port);
}

void zxlb_local_addr(int fd, char *ip, int ip_len, int *port) {
  if (ip && ip_len > 0) ip[0] = '\0';
  if (port) *port = 0;
  if (fd < 0) return;
  // Asked of the kernel: APR's own record is filled only by its blocking connect.
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (::getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len) != 0) return;
  const void *addr = nullptr;
  int p = 0;
  if (ss.ss_family == AF_INET) {
    const auto *in = reinterpret_cast<const sockaddr_in *>(&ss);
    addr = &in->sin_addr;
    p = ntohs(in->sin_port);
  } else if (ss.ss_family == AF_INET6) {
    const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&ss);
    addr = &in6->sin6_addr;
    p = ntohs(in6->sin6_port);
  } else {
    return;
  }
  if (ip && ip_len > 0 && !inet_ntop(ss.ss_family, addr, ip, static_cast<socklen_t>(ip_len)))
    ip[0] = '\0';
  if (port) *port = p;
}
