// Socket utilities over APR: connect with a deadline, send-all, and the local
// address of a connected socket. Used by the transport layer only.
#pragma once

#include <apr_network_io.h>
#include <apr_pools.h>

#include <cstddef>
#include <functional>

// Resolves `host` to its numeric address text within `timeout`, giving up
// once `abandon` returns true; a lookup that never answers is left behind on
// a thread of its own. APR_SUCCESS, or the failing status with its text in `err`.
apr_status_t zxlb_resolve(const char *host, apr_interval_time_t timeout,
                          const std::function<bool()> &abandon, char *out, std::size_t out_len,
                          char *err, int err_len);

// Resolves `host` and connects within `timeout`, giving up early once
// `abandon` (when given) returns true. On success the socket is left with
// `io_timeout` for later sends and receives. APR_SUCCESS, or the failing
// status with its text in `err`.
apr_status_t zxlb_tcp_connect(const char *host, int port, apr_interval_time_t timeout,
                              apr_interval_time_t io_timeout, apr_pool_t *pool, apr_socket_t **out,
                              char *err, int err_len, const std::function<bool()> &abandon = {});

// Connects to the unix-domain stream socket at `path` within `timeout`;
// later sends and receives get `io_timeout`. As zxlb_tcp_connect.
apr_status_t zxlb_unix_connect(const char *path, apr_interval_time_t timeout,
                               apr_interval_time_t io_timeout, apr_pool_t *pool, apr_socket_t **out,
                               char *err, int err_len);

// Sends all `len` bytes: 0, or -2 with the reason in `err` (timeouts included).
int zxlb_send_n_bytes(apr_socket_t *sock, const char *data, apr_size_t len, char *err, int err_len);

// One send: bytes sent (0 when the socket's timeout passed first), -1 when the
// peer is gone (broken pipe, reset, end of file), -2 on any other error.
long zxlb_send_some(apr_socket_t *sock, const char *data, apr_size_t len, char *err, int err_len);

// One receive of what is available: bytes read, 0 when nothing arrived within
// the socket's timeout, -1 when the peer closed or reset, -2 on other errors.
long zxlb_recv_some(apr_socket_t *sock, char *buf, apr_size_t cap, char *err, int err_len);

// The local address of a connected socket ("" and 0 when unknown).
void get_src_addr_wrapper(apr_socket_t *sock, char *ip, int ip_len, int *port);
void zxlb_local_addr(int fd, char *ip, int ip_len, int *port);

// APR's text for `rv` into `err` (ignored when null or empty).
void zxlb_strerror(apr_status_t rv, char *err, int err_len);
