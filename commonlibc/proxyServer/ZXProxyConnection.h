// One connection an application process opened to the proxy: its socket and
// the pool the socket lives in, what the connection registered as, the
// unfinished tail of its text lines or the frame stream of its data, and the
// bytes still to be written to it.
//
// Reads keep what a read left unfinished (a line without its "\n", a frame
// cut short) and complete it with the next read, so that the framing is the
// same however the stream is cut. Writes never block: what the socket does
// not take waits here, bounded; beyond the bound a message is dropped and
// counted. Owned by the server; only the poll thread touches it.
#pragma once

#include <apr_network_io.h>
#include <apr_poll.h>
#include <apr_time.h>

#include <cstddef>
#include <memory>
#include <string>

#include "ZXFrameStream.h"
#include "ZXProxyWebSocket.h"
#include "zxlb_apr.h"

// Poll context: which application and process a connection belongs to.
struct PxAppEpollInfo_t {
  int appIndex = -1;
  int procIndex = -1;
};

struct ZXProxyConnection {
  enum class Kind { Unregistered, Control, Data, AutoSensor };

  // The longest text line kept whole: one read's worth.
  static constexpr std::size_t kMaxLine = 131072;
  // Unsent bytes a process may owe before its messages are dropped.
  static constexpr std::size_t kMaxPendingOut = 1 << 16;

  zx::PoolPtr pool;
  // A WebSocket connection has its peer instead of a socket, pool and poll entry.
  std::shared_ptr<ZXProxyWsPeer> ws;
  apr_socket_t *socket = nullptr;
  apr_pollfd_t pfd{};
  int fd = -1;
  Kind kind = Kind::Unregistered;
  PxAppEpollInfo_t ctx;
  std::string peerIp;  // the socket path for a unix-domain connection
  int peerPort = 0;
  apr_time_t acceptedAt = 0;
  bool closed = false;  // removed; freed once the current poll batch is done

  std::string lineTail;         // a line still without its "\n"
  bool discardingLine = false;  // inside a line longer than kMaxLine
  ZXFrameStream frames;         // data connections

  std::string out;  // bytes the socket has not taken yet
  unsigned long long outDropped = 0;

  const char *kindText() const {
    return kind == Kind::Data ? "Data" : kind == Kind::AutoSensor ? "AS" : "Control";
  }
};
