#include "chaos_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <stdexcept>

extern char **environ;

namespace chaos {

std::uint64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

std::map<std::string, std::string> fields_of(std::string_view line) {
  std::map<std::string, std::string> out;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    std::size_t end = line.find(' ', i);
    if (end == std::string_view::npos) end = line.size();
    const std::string_view word = line.substr(i, end - i);
    const std::size_t eq = word.find('=');
    if (!word.empty()) {
      if (eq == std::string_view::npos)
        out.emplace(word, "");
      else
        out.emplace(word.substr(0, eq), word.substr(eq + 1));
    }
    i = end;
  }
  return out;
}

unsigned long long number_field(const std::map<std::string, std::string> &f,
                                const std::string &key) {
  auto it = f.find(key);
  return it == f.end() ? 0 : std::strtoull(it->second.c_str(), nullptr, 10);
}

namespace {

void close_fd(int &fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

sockaddr_in loopback(std::uint16_t port, const char *ip = "127.0.0.1") {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

int listen_on(std::uint16_t port, int backlog) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a = loopback(port);
  if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(fd, backlog) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// A non-blocking connect; true when it completed within `ms`. The socket is
// handed back either way.
bool connect_within(std::uint16_t port, int ms, int &fd) {
  fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in a = loopback(port);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) return true;
  if (errno != EINPROGRESS) return false;
  pollfd p{fd, POLLOUT, 0};
  if (::poll(&p, 1, ms) != 1) return false;
  int err = 0;
  socklen_t len = sizeof err;
  ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
  return err == 0;
}

}  // namespace

Process::Process(const Options &options) {
  int out[2], in[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  if (options.stdin_pipe && ::pipe2(in, O_CLOEXEC) != 0) {
    ::close(out[0]);
    ::close(out[1]);
    throw std::runtime_error("pipe2 failed");
  }
  std::vector<std::string> env;
  for (char **e = environ; *e; ++e) {
    const std::string entry(*e);
    const std::string name = entry.substr(0, entry.find('='));
    bool drop = false;
    for (const auto &u : options.unset_env) drop = drop || u == name;
    for (const auto &[k, v] : options.set_env) drop = drop || k == name;
    if (!drop) env.push_back(entry);
  }
  for (const auto &[k, v] : options.set_env) env.push_back(k + "=" + v);
  std::vector<char *> argv, envp;
  for (const auto &a : options.argv) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  for (auto &e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
  if (options.stdin_pipe) posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  const int rc = ::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (options.stdin_pipe) ::close(in[0]);
  if (rc != 0) {
    ::close(out[0]);
    if (options.stdin_pipe) ::close(in[1]);
    throw std::runtime_error("cannot start " + options.argv[0] + ": " + std::strerror(rc));
  }
  out_fd_ = out[0];
  in_fd_ = in[1];
  stop_fd_ = ::eventfd(0, EFD_CLOEXEC);
  reader_ = std::thread([this] { read_loop(); });
  waiter_ = std::thread([this] {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    const std::uint64_t at = now_ns();
    {
      std::lock_guard lock(mu_);
      exit_ = Exit{status, at};
    }
    changed_.notify_all();
  });
}

Process::~Process() {
  {
    std::unique_lock lock(mu_);
    if (!exit_) ::kill(pid_, SIGKILL);
  }
  waiter_.join();
  const std::uint64_t one = 1;
  // Grandchildren may hold the pipe open: the reader stops on request.
  if (::write(stop_fd_, &one, sizeof one) < 0) ::kill(pid_, SIGKILL);
  reader_.join();
  close_fd(out_fd_);
  close_fd(in_fd_);
  close_fd(stop_fd_);
}

void Process::read_loop() {
  char buf[65536];
  for (;;) {
    pollfd p[2] = {{out_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
    if (::poll(p, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (p[1].revents) break;
    const ssize_t n = ::read(out_fd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const std::uint64_t at = now_ns();
    partial_.append(buf, static_cast<std::size_t>(n));
    std::vector<OutputLine> complete;
    std::size_t start = 0, nl;
    while ((nl = partial_.find('\n', start)) != std::string::npos) {
      complete.push_back({partial_.substr(start, nl - start), at});
      start = nl + 1;
    }
    partial_.erase(0, start);
    if (!complete.empty()) {
      std::lock_guard lock(mu_);
      for (auto &l : complete) lines_.push_back(std::move(l));
    }
    changed_.notify_all();
  }
  {
    std::lock_guard lock(mu_);
    if (!partial_.empty()) lines_.push_back({partial_, now_ns()});
    output_closed_ = true;
  }
  changed_.notify_all();
}

bool Process::write_stdin(std::string_view text) {
  if (in_fd_ < 0) return false;
  while (!text.empty()) {
    const ssize_t n = ::write(in_fd_, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool Process::signal(int sig) const {
  std::lock_guard lock(mu_);
  return !exit_ && ::kill(pid_, sig) == 0;
}

std::vector<OutputLine> Process::lines() const {
  std::lock_guard lock(mu_);
  return lines_;
}

std::optional<OutputLine> Process::wait_for_line(const std::function<bool(std::string_view)> &match,
                                                 Millis timeout, std::size_t from) const {
  std::optional<OutputLine> found;
  wait_until(
      [&](const std::vector<OutputLine> &lines, bool closed) {
        for (; from < lines.size() && !found; ++from)
          if (match(lines[from].text)) found = lines[from];
        return found || closed;
      },
      timeout);
  return found;
}

bool Process::wait_until(const std::function<bool(const std::vector<OutputLine> &, bool)> &done,
                         Millis timeout) const {
  std::unique_lock lock(mu_);
  return changed_.wait_for(lock, timeout, [&] { return done(lines_, output_closed_); });
}

std::optional<Process::Exit> Process::wait_exit(Millis timeout) const {
  std::unique_lock lock(mu_);
  changed_.wait_for(lock, timeout, [&] { return exit_.has_value(); });
  return exit_;
}

bool Process::wait_output_closed(Millis timeout) const {
  std::unique_lock lock(mu_);
  return changed_.wait_for(lock, timeout, [&] { return output_closed_; });
}

std::string Process::output_tail(std::size_t max_bytes) const {
  std::lock_guard lock(mu_);
  std::string out;
  for (auto it = lines_.rbegin(); it != lines_.rend() && out.size() < max_bytes; ++it) {
    out.insert(0, it->text.substr(0, 300) + "\n");
  }
  return out;
}

BlackHole::BlackHole(std::uint16_t port) : port_(port) {
  listen_fd_ = listen_on(port, 0);
  if (listen_fd_ < 0) return;
  // Fill the accept queue; the first connect that does not complete is the
  // proof that the next SYN is dropped.
  for (int i = 0; i < 16; ++i) {
    int fd = -1;
    const bool done = connect_within(port, 100, fd);
    if (fd >= 0) fillers_.push_back(fd);
    if (!done) break;
  }
}

BlackHole::~BlackHole() {
  for (int &fd : fillers_) close_fd(fd);
  close_fd(listen_fd_);
}

bool BlackHole::swallows() const {
  if (listen_fd_ < 0) return false;
  int fd = -1;
  const bool done = connect_within(port_, 200, fd);
  if (fd >= 0) ::close(fd);
  return !done;
}

GarbageServer::GarbageServer(std::uint16_t port) {
  listen_fd_ = listen_on(port, 64);
  if (listen_fd_ < 0) return;
  ::fcntl(listen_fd_, F_SETFL, O_NONBLOCK);
  stop_fd_ = ::eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([this] { run(); });
}

GarbageServer::~GarbageServer() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    if (::write(stop_fd_, &one, sizeof one) == sizeof one) thread_.join();
  }
  close_fd(stop_fd_);
  close_fd(listen_fd_);
}

std::size_t GarbageServer::accepted() const {
  std::lock_guard lock(mu_);
  return accepted_;
}

void GarbageServer::run() {
  static const char *const kLines[] = {
      "zx_ctrl_msg_rep:status=\xff\xfe;;==;\n",
      "zx_control_req:action=;;;;\n",
      "zx_control_req:action=start_instrumentation;status=\n",
      "96,abc,,,,\n",
      "\n\n\n",
      "zx_control_req:action=modify;bciDataBufferMaxCount=-1;\n",
      "HTTP/1.1 400 Bad Request\r\n\r\n",
  };
  std::mt19937 rng(20240611u);
  std::vector<int> conns;
  char sink[65536];
  std::string noise;
  for (bool stop = false; !stop;) {
    std::vector<pollfd> p{{stop_fd_, POLLIN, 0}, {listen_fd_, POLLIN, 0}};
    for (int fd : conns) p.push_back({fd, POLLIN, 0});
    ::poll(p.data(), p.size(), 5);
    stop = p[0].revents != 0;
    int fd;
    while ((fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
      conns.push_back(fd);
      std::lock_guard lock(mu_);
      ++accepted_;
    }
    for (std::size_t i = 0; i < conns.size();) {
      bool closed = false;
      if (p.size() > i + 2 && p[i + 2].revents) {
        const ssize_t n = ::read(conns[i], sink, sizeof sink);
        closed = n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
      }
      if (!closed) {
        noise.assign(kLines[rng() % std::size(kLines)]);
        for (int b = 0; b < 64; ++b) noise.push_back(static_cast<char>(rng()));
        if (rng() % 16 == 0) noise.append(70000, 'A');  // a line longer than any buffer
        ::send(conns[i], noise.data(), noise.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      }
      if (closed) {
        ::close(conns[i]);
        conns.erase(conns.begin() + static_cast<long>(i));
        if (p.size() > i + 2) p.erase(p.begin() + static_cast<long>(i) + 2);
      } else {
        ++i;
      }
    }
  }
  for (int fd : conns) ::close(fd);
}

SilentNameServer::SilentNameServer(const std::string &resolv_conf_path) {
  // An address of its own per driver, so that parallel runs do not collide.
  const unsigned id = static_cast<unsigned>(::getpid());
  address_ = "127.53." + std::to_string((id >> 8) & 0xff) + "." + std::to_string(1 + id % 250);
  fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(53, address_.c_str());
  if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) close_fd(fd_);
  std::ofstream(resolv_conf_path) << "nameserver " << address_ << "\n";
}

SilentNameServer::~SilentNameServer() {
  close_fd(fd_);
}

}  // namespace chaos
