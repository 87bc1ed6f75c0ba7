// The transport seam of the collector link. The control and data connections
// talk to a ZXConnection; which transport carries the bytes (plain TCP here,
// WebSocket variants behind the same interface) is chosen once, at connect.
//
// A connection is used by one thread (its owner) except wakeup(), which any
// thread may call to end the owner's wait early.
#pragma once

#include <apr_network_io.h>
#include <apr_poll.h>

#include <cstddef>
#include <functional>
#include <memory>

#include "ZXTlsSettings.h"
#include "zxlb_apr.h"

inline constexpr int ZX_IP_TEXT_SIZE = 64;

struct socketAddr_t {
  char ip[ZX_IP_TEXT_SIZE] = {};
  int port = 0;
};

class ZXConnection {
 public:
  enum class Wait { Readable, Timeout, Woken, Error };

  virtual ~ZXConnection() = default;

  // Sends every byte: 0, or -2 with the reason in `err`.
  virtual int send_all(const char *data, std::size_t len, char *err, int err_len) = 0;
  // One send: bytes taken (0 when none within the transport's timeout), -1
  // when the peer is gone, -2 on other errors.
  virtual long send_some(const char *data, std::size_t len, char *err, int err_len) = 0;
  // Bounds each later send (the connection's io_timeout until then). A
  // transport that cannot keeps its own bound.
  virtual void set_send_timeout(apr_interval_time_t) {}
  // Waits up to `timeout` for bytes to read, or for wakeup().
  virtual Wait wait_readable(apr_interval_time_t timeout, char *err, int err_len) = 0;
  // What has arrived: bytes read, 0 for none, -1 peer closed, -2 error.
  virtual long receive(char *buf, std::size_t cap, char *err, int err_len) = 0;
  // Ends a wait_readable in progress (or the next one). Any thread.
  virtual void wakeup() = 0;

  const socketAddr_t &source() const { return source_; }

 protected:
  socketAddr_t source_;
};

// Not a collector protocol: a unix-domain stream socket, whose path stands
// in the host and whose port is 0 (an application process's link to a proxy
// on the same host).
inline constexpr int ZX_PROTO_UNIX = 100;

// Opens a connection with `protocol` (1 TCP, 2 WS, 3 WSS, ZX_PROTO_UNIX) to host:port within
// `timeout`; `io_timeout` bounds each later send. `abandon`, polled while the
// connect is pending, ends it early (a stop). `tls` judges a WSS server.
// Null with the reason in `err` on failure.
std::unique_ptr<ZXConnection> zx_open_connection(int protocol, const char *host, int port,
                                                 apr_interval_time_t timeout,
                                                 apr_interval_time_t io_timeout, char *err,
                                                 int err_len,
                                                 const std::function<bool()> &abandon = {},
                                                 const ZXTlsSettings &tls = {});
