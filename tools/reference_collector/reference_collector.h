// The reference collector: a loopback server that plays the collector end of the agent's
// control, data and auto-sensor connections, over TCP, WebSocket or WebSocket over TLS.
// Tests run it in-process (scripted replies, commands on demand, faults on demand, and
// waits on what it has received); the zx_collector command wraps it for people. Like a
// real collector it sends its own heartbeat on control connections, so an agent that
// sends none keeps its link. One thread owns every connection (the poll thread over TCP,
// the WebSocket library's service thread otherwise), so writes to a connection never
// interleave and every transport feeds the same framing and handlers; the public
// methods may be called from any thread.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "collector_protocol.h"

struct lws;
struct lws_context;

namespace zxref {

// What happens once a connection request has been read.
enum class RequestAction {
  Reply,               // control: send Behaviour::reply; data-like: accept (they get no answer)
  Close,               // close without answering
  HalfReplyThenClose,  // send the first half of the reply, then close
};

// Well inside the agent's default silence threshold (90 s), so that an agent without
// heartbeats of its own keeps its control connection.
inline constexpr Clock::duration kDefaultHeartbeatInterval = std::chrono::seconds(30);

// The collector's script. May be changed at any time; applies from the next event on.
struct Behaviour {
  std::string reply = reply::ok();  // sent as is, so it may lack its '\n' on purpose
  RequestAction on_control_request = RequestAction::Reply;
  RequestAction on_data_request = RequestAction::Reply;  // data and auto-sensor connections
  bool close_on_accept = false;
  bool silent = false;  // no automatic replies or echoes; explicit sends still go out
  bool echo_heartbeats = true;
  int echo_data_conn_state = 1;
  int echo_autosensor_conn_state = 1;
  // The collector's own heartbeat (an echo carrying the states above) on every answered
  // control connection, this long after the request and after each beat; 0: none.
  Clock::duration heartbeat_interval = kDefaultHeartbeatInterval;
  bool read_control = true;
  bool read_data = true;                  // data and auto-sensor; off lets the agent's buffers fill
  std::size_t reply_bytes_per_write = 0;  // 0: the whole reply in one write
};

struct SendOptions {
  std::size_t bytes_per_write = 0;  // 0: as much as the socket takes
  bool close_after = false;         // close once these bytes are out
};

// A non-blank line received after (and including) the connection request.
struct Line {
  ConnKind kind = ConnKind::Unknown;
  int conn_id = 0;
  Clock::time_point received_at{};
  std::string text;  // without '\n'
};

struct KindCounters {
  std::size_t connections = 0;  // requests recognised as this kind (not used for Unknown)
  std::size_t open = 0;         // for Unknown: accepted, no request yet
  std::size_t closed = 0;       // for Unknown: closed before a recognised request
  std::size_t lines = 0;        // non-blank lines after the request
  std::size_t blank_lines = 0;  // on data connections these are the heartbeats
  std::uint64_t bytes = 0;
};

// Everything received so far.
struct History {
  std::size_t accepted = 0;
  std::array<KindCounters, kConnKindCount> counters{};
  std::array<std::vector<Line>, kConnKindCount> lines;  // per kind, request line first
  std::vector<Record> records;                          // data and auto-sensor, in order
  std::vector<std::string> errors;                      // framing or protocol faults

  const KindCounters &of(ConnKind kind) const { return counters[index_of(kind)]; }
  const std::vector<Line> &lines_of(ConnKind kind) const { return lines[index_of(kind)]; }
};

// What the observer sees, on the connections' thread, in arrival order.
struct Event {
  enum class Type { Accepted, Request, Line, Blank, Record, Closed, Error };
  Type type = Type::Line;
  ConnKind kind = ConnKind::Unknown;
  int conn_id = 0;
  std::string text;
  Record record;  // Type::Record only
};

// How the collector's one listening port is reached. Over WebSocket every message's bytes
// go into the same line framing as a TCP read: a message may carry several lines and a
// line may span messages. Any URL path is accepted and no sub-protocol is needed (a client
// that asks for one other than "zx-collector" is refused by the WebSocket library).
enum class Transport { Tcp, Ws, Wss };

struct Config {
  Transport transport = Transport::Tcp;
  std::string tls_cert_file;  // PEM; Wss only, required there
  std::string tls_key_file;   // PEM; Wss only, required there
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;  // 0: an ephemeral port, see port()
  std::size_t max_line_bytes = kDefaultMaxLineBytes;
  int receive_buffer_bytes = 0;  // SO_RCVBUF of accepted sockets; 0 keeps the default
  bool keep_history = true;      // off: counters only (a long-running command)
  Behaviour behaviour;
  // Called on the connections' thread without the collector's lock held; may call send().
  std::function<void(const Event &)> observer;
};

class ReferenceCollector {
 public:
  explicit ReferenceCollector(Config config = {});
  ~ReferenceCollector();
  ReferenceCollector(const ReferenceCollector &) = delete;
  ReferenceCollector &operator=(const ReferenceCollector &) = delete;

  // Binds, listens and starts the connections' thread. False (see error()) when that fails,
  // a missing or unusable certificate or key included.
  bool start();
  // Closes every connection (handshakes in progress too) and joins the thread. Idempotent.
  void stop();
  std::uint16_t port() const { return port_; }
  const std::string &error() const { return error_; }

  Behaviour behaviour() const;
  void set_behaviour(Behaviour behaviour);
  void update_behaviour(const std::function<void(Behaviour &)> &change);

  // Queue bytes for the newest open connection of a kind (or a given one). False when
  // there is none; bytes for a connection that closes meanwhile are dropped.
  bool send(ConnKind kind, std::string bytes, SendOptions options = {});
  bool send_to(int conn_id, std::string bytes, SendOptions options = {});
  bool send_start(std::string_view pairs = {});
  bool send_stop(std::string_view pairs = {});
  bool send_modify(std::string_view pairs);
  bool send_heartbeat_echo(int count);
  // Closes every open connection of a kind at once, dropping unsent bytes; returns how many.
  std::size_t close_connections(ConnKind kind);

  History snapshot() const;
  std::vector<Line> lines(ConnKind kind) const;
  std::vector<Record> records() const;

  // Waits until done(history) holds. done runs under the collector's lock: it must not
  // call the collector.
  bool wait_until(const std::function<bool(const History &)> &done, Clock::duration timeout) const;
  // The first line of a kind, from index `from` of that kind's lines on, that matches.
  std::optional<Line> wait_for_line(ConnKind kind,
                                    const std::function<bool(std::string_view)> &match,
                                    Clock::duration timeout, std::size_t from = 0) const;
  std::optional<Line> wait_for_control_line(const std::function<bool(std::string_view)> &match,
                                            Clock::duration timeout, std::size_t from = 0) const;
  // The first record with this number from index `from` of records() on.
  std::optional<Record> wait_for_record(int number, Clock::duration timeout,
                                        std::size_t from = 0) const;
  bool wait_for_connections(ConnKind kind, std::size_t n, Clock::duration timeout) const;
  bool wait_for_closed(ConnKind kind, std::size_t n, Clock::duration timeout) const;
  bool wait_for_heartbeats(std::size_t n, Clock::duration timeout) const;

 private:
  struct Conn;
  struct Ws;
  struct Command {
    int conn_id = 0;
    std::string bytes;
    SendOptions options;
    bool abort = false;  // close now, dropping unsent bytes
  };

  bool start_tcp();
  void run();
  void accept_all(std::vector<Event> &events);
  void read_from(Conn &conn, std::vector<Event> &events);
  // Both transports: a new connection (true: close it now), and bytes received on one.
  bool add_conn(int id, int fd, std::vector<Event> &events);
  void received(Conn &conn, std::string_view bytes, std::vector<Event> &events);
  void handle_frames(Conn &conn, std::vector<Frame> &frames, std::vector<Event> &events);
  void write_to(Conn &conn, std::vector<Event> &events);
  void close_conn(Conn &conn, std::vector<Event> &events);
  void apply(std::vector<Command> &commands, std::vector<Event> &events);
  // Queues the heartbeats that are due; returns the poll timeout until the next (-1: none).
  int beat(const Behaviour &b);
  void publish(std::vector<Event> &events);
  void wake() const;
  int newest_open(ConnKind kind) const;  // caller holds mu_
  void close_all(std::vector<Event> &events);

  // WebSocket transport, in reference_collector_ws.cpp.
  bool start_ws();
  void stop_ws();
  void run_ws();
  // What a TCP poll round does between reads, for the service thread: commands, beats,
  // reading switched on or off, writes requested.
  void ws_round();
  // The library's callbacks for this collector's connections; -1 closes the one given.
  int ws_event(struct lws *wsi, int reason, void *user, const void *in, std::size_t len);
  void write_ws(Conn &conn, std::vector<Event> &events);
  friend struct WsGlue;

  Config config_;
  std::uint16_t port_ = 0;
  std::string error_;
  int listen_fd_ = -1;
  int wake_fd_ = -1;
  std::thread thread_;
  struct WsDelete {
    void operator()(Ws *ws) const;
  };
  std::unique_ptr<Ws, WsDelete> ws_;

  // Guards only the WebSocket context's lifetime against wake() from other threads; never
  // held with mu_ or inside the library's callbacks.
  mutable std::mutex ws_ctx_mu_;
  struct lws_context *ws_ctx_ = nullptr;

  // Owned by the connections' thread.
  std::map<int, std::unique_ptr<Conn>> conns_;
  int next_id_ = 1;

  mutable std::mutex mu_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  Behaviour behaviour_;
  std::vector<Command> commands_;
  std::map<int, ConnKind> open_;  // conn id -> kind, as the poll thread last saw it
  History history_;
};

}  // namespace zxref
