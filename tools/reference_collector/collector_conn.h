// One connection of the reference collector as its connections' thread sees it, whatever
// the transport: the request-line and record framing, what waits to be sent, and the
// heartbeat schedule. Only that thread touches it.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <utility>

#include "reference_collector.h"

namespace zxref {

struct ReferenceCollector::Conn {
  struct Outgoing {
    std::string bytes;
    std::size_t sent = 0;
    SendOptions options;
  };

  Conn(int conn_id, int socket_fd, std::size_t max_line)
      : id(conn_id), fd(socket_fd), decoder(max_line) {}
  ConnKind kind() const { return decoder.kind(); }

  // Scripted bytes, as given, so they may end mid-line.
  void queue(std::string bytes, SendOptions options) {
    if (!bytes.empty()) mid_line = bytes.back() != '\n';
    out.push_back(Outgoing{std::move(bytes), 0, options});
    if (!mid_line && !held.empty()) out.push_back(Outgoing{std::exchange(held, {}), 0, {}});
  }
  // A whole line of the collector's own; never lands inside a scripted line.
  void queue_line(std::string line, SendOptions options) {
    if (mid_line) {
      held += line;
    } else {
      out.push_back(Outgoing{std::move(line), 0, options});
    }
  }

  int id;
  int fd;  // -1 once closed; swept out of conns_ at the end of the round
  StreamDecoder decoder;
  std::deque<Outgoing> out;
  bool mid_line = false;  // the last byte queued was not '\n'
  std::string held;       // the collector's lines waiting for that line to end
  bool beats = false;     // a control connection past its request
  Clock::time_point next_beat = Clock::time_point::max();
  int beats_sent = 0;

  // WebSocket only. The library owns the socket: fd is for identity, never closed here.
  struct lws *wsi = nullptr;  // null once the library has let go of it
  bool reading = true;        // as last told to the library
  bool close_when_sent = false;
};

}  // namespace zxref
