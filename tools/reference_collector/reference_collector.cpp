#include "reference_collector.h"
#include "collector_conn.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libwebsockets.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <limits>
#include <utility>

namespace zxref {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

std::string errno_text(const char *what) {
  return std::string(what) + ": " + std::strerror(errno);
}

bool transient(int err) {
  return err == EAGAIN || err == EWOULDBLOCK || err == EINTR;
}

Event::Type event_type(Frame::Type type) {
  switch (type) {
    case Frame::Type::Request:
      return Event::Type::Request;
    case Frame::Type::Line:
      return Event::Type::Line;
    case Frame::Type::Blank:
      return Event::Type::Blank;
    case Frame::Type::Record:
      return Event::Type::Record;
    case Frame::Type::Error:
      break;
  }
  return Event::Type::Error;
}

}  // namespace

ReferenceCollector::ReferenceCollector(Config config)
    : config_(std::move(config)), behaviour_(config_.behaviour) {
  // Created here, not in start(), so wake() is valid for the object's whole life.
  wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

ReferenceCollector::~ReferenceCollector() {
  stop();
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

bool ReferenceCollector::start() {
  if (thread_.joinable()) {
    error_ = "already running";
    return false;
  }
  {
    std::lock_guard lock(mu_);
    stopping_ = false;
  }
  return config_.transport == Transport::Tcp ? start_tcp() : start_ws();
}

bool ReferenceCollector::start_tcp() {
  if (wake_fd_ < 0) {
    error_ = "eventfd failed";
    return false;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(config_.port);
  if (::inet_pton(AF_INET, config_.host.c_str(), &addr.sin_addr) != 1) {
    error_ = "not an IPv4 address: " + config_.host;
    return false;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error_ = errno_text("socket");
    return false;
  }
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // Set before listen() so accepted sockets inherit it and the window is sized to match.
  if (config_.receive_buffer_bytes > 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &config_.receive_buffer_bytes,
                 sizeof config_.receive_buffer_bytes);
  }
  socklen_t len = sizeof addr;
  if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
    error_ = errno_text("bind/listen");
    ::close(fd);
    return false;
  }
  listen_fd_ = fd;
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
  return true;
}

void ReferenceCollector::stop() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  wake();
  if (thread_.joinable()) thread_.join();
  stop_ws();
  if (listen_fd_ >= 0) {
    ::close(listen_fd_);
    listen_fd_ = -1;
  }
}

void ReferenceCollector::wake() const {
  if (config_.transport != Transport::Tcp) {
    std::lock_guard lock(ws_ctx_mu_);
    if (ws_ctx_ != nullptr) lws_cancel_service(ws_ctx_);
    return;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto n = ::write(wake_fd_, &one, sizeof one);
}

// ---- poll thread ----

void ReferenceCollector::run() {
  std::vector<pollfd> fds;
  std::vector<Conn *> polled;
  std::vector<Event> events;
  for (;;) {
    std::vector<Command> commands;
    Behaviour b;
    {
      std::lock_guard lock(mu_);
      if (stopping_) break;
      commands.swap(commands_);
      b = behaviour_;
    }
    apply(commands, events);
    publish(events);
    const int timeout_ms = beat(b);

    fds.clear();
    polled.clear();
    fds.push_back({wake_fd_, POLLIN, 0});
    fds.push_back({listen_fd_, POLLIN, 0});
    for (auto &[id, conn] : conns_) {
      const ConnKind kind = conn->kind();
      short want = 0;
      // Until its request is read a connection has no kind, and is always read.
      if (kind == ConnKind::Unknown || (kind == ConnKind::Control ? b.read_control : b.read_data)) {
        want |= POLLIN;
      }
      if (!conn->out.empty()) want |= POLLOUT;
      fds.push_back({conn->fd, want, 0});
      polled.push_back(conn.get());
    }
    if (::poll(fds.data(), fds.size(), timeout_ms) < 0) {
      if (errno == EINTR) continue;
      std::lock_guard lock(mu_);
      history_.errors.push_back(errno_text("poll"));
      break;
    }
    if (fds[0].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto n = ::read(wake_fd_, &count, sizeof count);
    }
    if ((fds[1].revents & POLLIN) != 0) accept_all(events);
    for (std::size_t i = 0; i < polled.size(); ++i) {
      Conn &conn = *polled[i];
      const pollfd &p = fds[i + 2];
      if (p.revents == 0 || conn.fd < 0) continue;
      if ((p.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        if ((p.events & POLLIN) != 0) {
          read_from(conn, events);
        } else if ((p.revents & (POLLHUP | POLLERR)) != 0) {
          close_conn(conn, events);  // gone while not being read; polling it would spin
        }
      }
      if (conn.fd >= 0 && (p.revents & POLLOUT) != 0) write_to(conn, events);
    }
    std::erase_if(conns_, [](const auto &entry) { return entry.second->fd < 0; });
    publish(events);
  }
  close_all(events);
}

void ReferenceCollector::close_all(std::vector<Event> &events) {
  for (auto &[id, conn] : conns_) close_conn(*conn, events);
  conns_.clear();
  publish(events);
}

void ReferenceCollector::accept_all(std::vector<Event> &events) {
  for (;;) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (!transient(errno) && errno != ECONNABORTED) {
        std::lock_guard lock(mu_);
        history_.errors.push_back(errno_text("accept"));
      }
      return;
    }
    // Scripted byte-by-byte writes must reach the agent as separate segments.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const int id = next_id_++;
    if (add_conn(id, fd, events)) close_conn(*conns_[id], events);
  }
}

bool ReferenceCollector::add_conn(int id, int fd, std::vector<Event> &events) {
  conns_.emplace(id, std::make_unique<Conn>(id, fd, config_.max_line_bytes));
  bool close_now = false;
  {
    std::lock_guard lock(mu_);
    ++history_.accepted;
    ++history_.counters[index_of(ConnKind::Unknown)].open;
    open_[id] = ConnKind::Unknown;
    close_now = behaviour_.close_on_accept;
  }
  changed_.notify_all();
  if (config_.observer)
    events.push_back(Event{Event::Type::Accepted, ConnKind::Unknown, id, {}, {}});
  return close_now;
}

void ReferenceCollector::read_from(Conn &conn, std::vector<Event> &events) {
  char buf[kReadChunk];
  const ssize_t n = ::recv(conn.fd, buf, sizeof buf, 0);
  if (n < 0 && transient(errno)) return;
  if (n <= 0) {
    close_conn(conn, events);
    return;
  }
  received(conn, std::string_view(buf, static_cast<std::size_t>(n)), events);
}

void ReferenceCollector::received(Conn &conn, std::string_view bytes, std::vector<Event> &events) {
  std::vector<Frame> frames;
  conn.decoder.feed(bytes, frames);
  {
    std::lock_guard lock(mu_);
    history_.counters[index_of(conn.kind())].bytes += bytes.size();
  }
  handle_frames(conn, frames, events);
}

void ReferenceCollector::handle_frames(Conn &conn, std::vector<Frame> &frames,
                                       std::vector<Event> &events) {
  const bool observe = static_cast<bool>(config_.observer);
  bool close_now = false;
  {
    std::lock_guard lock(mu_);
    const Behaviour &b = behaviour_;
    for (Frame &f : frames) {
      const auto now = Clock::now();
      KindCounters &counters = history_.counters[index_of(f.kind)];
      auto keep_line = [&] {
        if (config_.keep_history) {
          history_.lines[index_of(f.kind)].push_back(Line{f.kind, conn.id, now, f.text});
        }
      };
      switch (f.type) {
        case Frame::Type::Request: {
          --history_.counters[index_of(ConnKind::Unknown)].open;
          ++counters.connections;
          ++counters.open;
          open_[conn.id] = f.kind;
          keep_line();
          const RequestAction action =
              f.kind == ConnKind::Control ? b.on_control_request : b.on_data_request;
          std::string answer;
          if (f.kind == ConnKind::Control && !b.silent && action != RequestAction::Close) {
            answer = b.reply;
            if (action == RequestAction::HalfReplyThenClose) answer.resize(answer.size() / 2);
          }
          if (f.kind == ConnKind::Control) {
            conn.beats = true;
            if (b.heartbeat_interval > Clock::duration::zero()) {
              conn.next_beat = now + b.heartbeat_interval;
            }
          }
          if (!answer.empty()) {
            conn.queue(std::move(answer), SendOptions{b.reply_bytes_per_write,
                                                      action == RequestAction::HalfReplyThenClose});
          } else if (action != RequestAction::Reply) {
            close_now = true;
          }
          break;
        }
        case Frame::Type::Line:
          ++counters.lines;
          keep_line();
          if (f.kind == ConnKind::Control && b.echo_heartbeats && !b.silent) {
            if (const auto beat = parse_agent_heartbeat(f.text)) {
              conn.queue_line(
                  heartbeat_echo(*beat, b.echo_data_conn_state, b.echo_autosensor_conn_state),
                  SendOptions{b.reply_bytes_per_write, false});
            }
          }
          break;
        case Frame::Type::Blank:
          ++counters.blank_lines;
          break;
        case Frame::Type::Record:
          ++counters.lines;
          keep_line();
          f.record.kind = f.kind;
          f.record.conn_id = conn.id;
          f.record.received_at = now;
          if (config_.keep_history) history_.records.push_back(f.record);
          break;
        case Frame::Type::Error:
          history_.errors.push_back(std::string(to_string(f.kind)) + " connection " +
                                    std::to_string(conn.id) + ": " + f.text);
          close_now = true;
          break;
      }
      if (observe) {
        events.push_back(
            Event{event_type(f.type), f.kind, conn.id, std::move(f.text), std::move(f.record)});
      }
      if (close_now) break;
    }
  }
  changed_.notify_all();
  if (close_now) close_conn(conn, events);
}

void ReferenceCollector::write_to(Conn &conn, std::vector<Event> &events) {
  while (!conn.out.empty()) {
    auto &o = conn.out.front();
    const std::size_t left = o.bytes.size() - o.sent;
    const std::size_t per_write = o.options.bytes_per_write;
    const std::size_t chunk = per_write > 0 ? std::min(left, per_write) : left;
    if (chunk > 0) {
      const ssize_t n = ::send(conn.fd, o.bytes.data() + o.sent, chunk, MSG_NOSIGNAL);
      if (n < 0) {
        if (!transient(errno)) close_conn(conn, events);
        return;
      }
      o.sent += static_cast<std::size_t>(n);
    }
    if (o.sent == o.bytes.size()) {
      const bool close_after = o.options.close_after;
      conn.out.pop_front();
      if (close_after) {
        close_conn(conn, events);
        return;
      }
    }
    if (per_write > 0) return;  // one write per poll round keeps the writes apart
  }
}

void ReferenceCollector::close_conn(Conn &conn, std::vector<Event> &events) {
  if (conn.fd < 0) return;
  if (config_.transport != Transport::Tcp) {
    // Closed by the library on its next service; what it holds unsent is dropped, as a
    // TCP close here drops unsent bytes.
    if (conn.wsi != nullptr) lws_set_timeout(conn.wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    conn.wsi = nullptr;
  } else {
    // FIN after what is queued; unread input would turn close() into a reset that could
    // cost the peer the last bytes sent, so take what is already here first.
    ::shutdown(conn.fd, SHUT_WR);
    char buf[4096];
    for (int i = 0; i < 64 && ::recv(conn.fd, buf, sizeof buf, MSG_DONTWAIT) > 0; ++i) {
    }
    ::close(conn.fd);
  }
  conn.fd = -1;
  conn.out.clear();
  conn.held.clear();
  const ConnKind kind = conn.kind();
  {
    std::lock_guard lock(mu_);
    KindCounters &counters = history_.counters[index_of(kind)];
    --counters.open;
    ++counters.closed;
    open_.erase(conn.id);
  }
  changed_.notify_all();
  if (config_.observer) events.push_back(Event{Event::Type::Closed, kind, conn.id, {}, {}});
}

void ReferenceCollector::apply(std::vector<Command> &commands, std::vector<Event> &events) {
  for (Command &c : commands) {
    const auto it = conns_.find(c.conn_id);
    if (it == conns_.end() || it->second->fd < 0) continue;
    Conn &conn = *it->second;
    if (c.abort) {
      close_conn(conn, events);
    } else {
      conn.queue(std::move(c.bytes), c.options);
    }
  }
  std::erase_if(conns_, [](const auto &entry) { return entry.second->fd < 0; });
}

int ReferenceCollector::beat(const Behaviour &b) {
  const Clock::duration every = b.silent ? Clock::duration::zero() : b.heartbeat_interval;
  if (every <= Clock::duration::zero()) return -1;
  const auto now = Clock::now();
  auto next = Clock::time_point::max();
  for (auto &[id, conn] : conns_) {
    if (!conn->beats || conn->fd < 0) continue;
    // A shortened interval (or one switched back on) takes effect now, not after the old one.
    if (conn->next_beat - now > every) conn->next_beat = now + every;
    if (conn->next_beat <= now) {
      // Skipped, not held, while a scripted line is half-sent: beats must not pile up.
      if (!conn->mid_line) {
        conn->queue_line(heartbeat_echo(++conn->beats_sent, b.echo_data_conn_state,
                                        b.echo_autosensor_conn_state),
                         SendOptions{b.reply_bytes_per_write, false});
      }
      conn->next_beat = now + every;
    }
    next = std::min(next, conn->next_beat);
  }
  if (next == Clock::time_point::max()) return -1;
  // Rounded up, so the poll does not wake just before the beat is due and spin.
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
  return static_cast<int>(std::min<long long>(wait, std::numeric_limits<int>::max()));
}

void ReferenceCollector::publish(std::vector<Event> &events) {
  if (config_.observer) {
    for (const Event &e : events) config_.observer(e);
  }
  events.clear();
}

// ---- any thread ----

Behaviour ReferenceCollector::behaviour() const {
  std::lock_guard lock(mu_);
  return behaviour_;
}

void ReferenceCollector::set_behaviour(Behaviour behaviour) {
  update_behaviour([&](Behaviour &b) { b = std::move(behaviour); });
}

void ReferenceCollector::update_behaviour(const std::function<void(Behaviour &)> &change) {
  {
    std::lock_guard lock(mu_);
    change(behaviour_);
  }
  wake();  // reading may have been switched on or off
}

int ReferenceCollector::newest_open(ConnKind kind) const {
  for (auto it = open_.rbegin(); it != open_.rend(); ++it) {
    if (it->second == kind) return it->first;
  }
  return 0;
}

bool ReferenceCollector::send(ConnKind kind, std::string bytes, SendOptions options) {
  int id = 0;
  {
    std::lock_guard lock(mu_);
    id = newest_open(kind);
    if (id == 0) return false;
    commands_.push_back(Command{id, std::move(bytes), options, false});
  }
  wake();
  return true;
}

bool ReferenceCollector::send_to(int conn_id, std::string bytes, SendOptions options) {
  {
    std::lock_guard lock(mu_);
    if (!open_.contains(conn_id)) return false;
    commands_.push_back(Command{conn_id, std::move(bytes), options, false});
  }
  wake();
  return true;
}

bool ReferenceCollector::send_start(std::string_view pairs) {
  return send(ConnKind::Control, command("start_instrumentation", pairs));
}

bool ReferenceCollector::send_stop(std::string_view pairs) {
  return send(ConnKind::Control, command("stop_instrumentation", pairs));
}

bool ReferenceCollector::send_modify(std::string_view pairs) {
  return send(ConnKind::Control, command("modify", pairs));
}

bool ReferenceCollector::send_heartbeat_echo(int count) {
  const Behaviour b = behaviour();
  return send(ConnKind::Control,
              heartbeat_echo(count, b.echo_data_conn_state, b.echo_autosensor_conn_state));
}

std::size_t ReferenceCollector::close_connections(ConnKind kind) {
  std::size_t n = 0;
  {
    std::lock_guard lock(mu_);
    for (const auto &[id, k] : open_) {
      if (k != kind) continue;
      commands_.push_back(Command{id, {}, {}, true});
      ++n;
    }
  }
  if (n > 0) wake();
  return n;
}

History ReferenceCollector::snapshot() const {
  std::lock_guard lock(mu_);
  return history_;
}

std::vector<Line> ReferenceCollector::lines(ConnKind kind) const {
  std::lock_guard lock(mu_);
  return history_.lines_of(kind);
}

std::vector<Record> ReferenceCollector::records() const {
  std::lock_guard lock(mu_);
  return history_.records;
}

bool ReferenceCollector::wait_until(const std::function<bool(const History &)> &done,
                                    Clock::duration timeout) const {
  std::unique_lock lock(mu_);
  return changed_.wait_for(lock, timeout, [&] { return done(history_); });
}

std::optional<Line> ReferenceCollector::wait_for_line(
    ConnKind kind, const std::function<bool(std::string_view)> &match, Clock::duration timeout,
    std::size_t from) const {
  std::optional<Line> found;
  std::size_t scanned = from;
  wait_until(
      [&](const History &h) {
        const auto &ls = h.lines_of(kind);
        for (; scanned < ls.size(); ++scanned) {
          if (match(ls[scanned].text)) {
            found = ls[scanned];
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

std::optional<Line> ReferenceCollector::wait_for_control_line(
    const std::function<bool(std::string_view)> &match, Clock::duration timeout,
    std::size_t from) const {
  return wait_for_line(ConnKind::Control, match, timeout, from);
}

std::optional<Record> ReferenceCollector::wait_for_record(int number, Clock::duration timeout,
                                                          std::size_t from) const {
  std::optional<Record> found;
  std::size_t scanned = from;
  wait_until(
      [&](const History &h) {
        for (; scanned < h.records.size(); ++scanned) {
          if (h.records[scanned].number == number) {
            found = h.records[scanned];
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

bool ReferenceCollector::wait_for_connections(ConnKind kind, std::size_t n,
                                              Clock::duration timeout) const {
  return wait_until([&](const History &h) { return h.of(kind).connections >= n; }, timeout);
}

bool ReferenceCollector::wait_for_closed(ConnKind kind, std::size_t n,
                                         Clock::duration timeout) const {
  return wait_until([&](const History &h) { return h.of(kind).closed >= n; }, timeout);
}

bool ReferenceCollector::wait_for_heartbeats(std::size_t n, Clock::duration timeout) const {
  return wait_until([&](const History &h) { return h.of(ConnKind::Data).blank_lines >= n; },
                    timeout);
}

}  // namespace zxref
