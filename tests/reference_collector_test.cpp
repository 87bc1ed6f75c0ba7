// The reference collector against a raw-socket client standing in for the agent.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "reference_collector.h"

namespace {

using zxref::Clock;
using zxref::ConnKind;
using zxref::ReferenceCollector;
using namespace std::chrono_literals;

constexpr auto kWait = 10s;
const std::string kCtrlRequest = "zx_ctrl_msg_req:appName=app;tierName=t;protoVer=1 \n";
const std::string kDataRequest = "zx_data_msg_req:appName=app;appID=1;testIdx=3;pid=42\n";
const std::string kHeartbeat = "zx_control_req:action=reconnect;heartBeat 7;\n";

// Record 96 with a payload that holds '\n' and NUL, as a t-digest serialisation may.
const std::string kPayload = std::string("\x02\n\0\x7f\n", 5);
const std::string kRecord96 = "96,1|2|,3|4:T1,S1,A1,login,1700000000000," +
                              std::to_string(kPayload.size()) + ",\n" + kPayload + "\n";

// The agent's end: a blocking loopback socket with deadline-bounded reads.
class Client {
 public:
  explicit Client(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;  // bytewise writes must leave as single bytes
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  }
  ~Client() { ::close(fd_); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;
  int fd() const { return fd_; }

  void write(std::string_view bytes, bool bytewise = false) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytewise ? 1 : bytes.size(), MSG_NOSIGNAL);
      ASSERT_GT(n, 0) << std::strerror(errno);
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  // The next line without its '\n'; nullopt on EOF or timeout.
  std::optional<std::string> read_line() {
    std::string line = take([](const std::string &b) { return b.find('\n'); }, 1);
    if (line.empty() || line.back() != '\n') return std::nullopt;
    line.pop_back();
    return line;
  }
  std::string read_bytes(std::size_t n) {
    return take([n](const std::string &b) { return b.size() >= n ? n : std::string::npos; });
  }
  // Everything up to and including the first `end`.
  std::string read_through(std::string_view end) {
    return take([end](const std::string &b) { return b.find(end); }, end.size());
  }
  // Whatever arrives within the window, and anything unread before it.
  std::string read_for(Clock::duration window) {
    return take([](const std::string &) { return std::string::npos; }, 0, window);
  }
  // Everything up to the peer's close; nullopt when it does not close in time.
  std::optional<std::string> read_to_eof() {
    std::string all = take([](const std::string &) { return std::string::npos; });
    return eof_ ? std::optional(all) : std::nullopt;
  }

 private:
  // The buffer's first `at(buffer) + extra` bytes once `at` finds something, or all that
  // came by the deadline.
  template <typename At>
  std::string take(At at, std::size_t extra = 0, Clock::duration timeout = kWait) {
    const auto deadline = Clock::now() + timeout;
    std::size_t n;
    while ((n = at(buf_)) == std::string::npos && fill(deadline)) {
    }
    std::string out = buf_.substr(0, n == std::string::npos ? n : n + extra);
    buf_.erase(0, out.size());
    return out;
  }
  bool fill(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (eof_ || left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
      return false;
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    eof_ = n <= 0;  // a reset counts as a close here
    if (n > 0) buf_.append(chunk, static_cast<std::size_t>(n));
    return n > 0;
  }

  int fd_ = -1;
  std::string buf_;
  bool eof_ = false;
};

std::unique_ptr<ReferenceCollector> started(zxref::Config config = {}) {
  auto c = std::make_unique<ReferenceCollector>(std::move(config));
  EXPECT_TRUE(c->start()) << c->error();
  EXPECT_NE(c->port(), 0);
  return c;
}

// Opens a control connection and consumes the reply.
std::unique_ptr<Client> control_client(ReferenceCollector &c) {
  auto client = std::make_unique<Client>(c.port());
  client->write(kCtrlRequest);
  EXPECT_TRUE(client->read_line().has_value());
  return client;
}

auto starts_with(std::string prefix) {
  return [prefix](std::string_view line) { return line.starts_with(prefix); };
}

// ---- the pure decoder ----

std::vector<std::string> decode_in_chunks(const std::string &stream, std::size_t chunk,
                                          std::size_t max_line = zxref::kDefaultMaxLineBytes) {
  zxref::StreamDecoder decoder(max_line);
  std::vector<zxref::Frame> frames;
  for (std::size_t i = 0; i < stream.size(); i += chunk) {
    decoder.feed(std::string_view(stream).substr(i, chunk), frames);
  }
  std::vector<std::string> out;
  for (const auto &f : frames) {
    out.push_back(std::to_string(static_cast<int>(f.type)) + "|" + f.text + "|" +
                  std::to_string(f.record.number) + "|" + f.record.payload);
  }
  return out;
}

// How the stream is split is judged over sockets (framing and records below).
TEST(StreamDecoder, RejectsAbuseAndIgnoresEverythingAfter) {
  const std::string line64(64, 'x');
  // A line of exactly the limit passes, one byte more kills the stream, with or without
  // its newline having arrived.
  auto ok = decode_in_chunks(kCtrlRequest.substr(0, 40) + "\n" + line64 + "\n", 1, 64);
  EXPECT_EQ(ok.back(), "1|" + line64 + "|0|");
  for (const std::string &tail : {line64 + "y\nnext\n", line64 + "y"}) {
    for (const std::size_t chunk : {1u, 1000u}) {
      auto frames = decode_in_chunks(kCtrlRequest.substr(0, 40) + "\n" + tail, chunk, 64);
      ASSERT_EQ(frames.size(), 2u);
      EXPECT_TRUE(frames[1].starts_with("4|line longer")) << frames[1];
    }
  }
  EXPECT_TRUE(decode_in_chunks("GET / HTTP/1.1\n", 3)[0].starts_with("4|unrecognised"));
  EXPECT_TRUE(decode_in_chunks(kDataRequest + "96,a,b\n", 3)[1].starts_with("4|record 96 header"));
  auto bad_end = decode_in_chunks(kDataRequest + "96,x,2,\nab!more\n", 3);
  EXPECT_TRUE(bad_end[1].starts_with("4|record 96 payload not followed")) << bad_end[1];
  EXPECT_EQ(bad_end.size(), 2u);
}

// ---- connection requests and replies ----

TEST(ReferenceCollectorReplies, AnswersEachRequestWithTheScriptedReply) {
  struct Case {
    std::string request;
    std::string reply;
    std::string expected;
  };
  const std::string saas = "mor_saas_auth_agent_msg_req:appName=app;protoVer=1\n";
  const Case cases[] = {
      {kCtrlRequest, zxref::reply::ok(), "zx_ctrl_msg_rep:result=Ok;"},
      {saas, zxref::reply::ok(), "zx_ctrl_msg_rep:result=Ok;"},
      {kCtrlRequest, zxref::reply::not_running(), "zx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;"},
      {kCtrlRequest, zxref::reply::running(), "zx_ctrl_msg_rep:result=Ok;status=RUNNING"},
      {kCtrlRequest, zxref::reply::error("bad key"), "zx_ctrl_msg_rep:result=Error:bad key;"},
      {kCtrlRequest, zxref::reply::with_protocols(zxref::reply::ok(), "TCP:7892,WSS:443"),
       "zx_ctrl_msg_rep:result=Ok;supportedProtocols=TCP:7892,WSS:443"},
      {kCtrlRequest, zxref::reply::with_protocols(zxref::reply::running(), "WS:8080"),
       "zx_ctrl_msg_rep:result=Ok;status=RUNNING;supportedProtocols=WS:8080"},
      {kCtrlRequest, "anything at all\n", "anything at all"},
  };
  auto collector = started();
  for (const auto &c : cases) {
    collector->update_behaviour([&](zxref::Behaviour &b) { b.reply = c.reply; });
    Client client(collector->port());
    client.write(c.request);
    EXPECT_EQ(client.read_line(), c.expected);
  }
  const auto lines = collector->lines(ConnKind::Control);
  ASSERT_EQ(lines.size(), std::size(cases));
  EXPECT_EQ(lines[1].text + "\n", saas);
  EXPECT_EQ(collector->snapshot().of(ConnKind::Control).connections, std::size(cases));

  collector->set_behaviour({.reply_bytes_per_write = 1});
  Client bytewise(collector->port());
  bytewise.write(kCtrlRequest);
  EXPECT_EQ(bytewise.read_line(), "zx_ctrl_msg_rep:result=Ok;") << "a reply written byte by byte";
}

// ---- framing of what the agent sends ----

TEST(ReferenceCollectorFraming, LinesSurviveAnySplitAndOverlongLinesCloseTheConnection) {
  zxref::Config config;
  config.max_line_bytes = 128;
  auto collector = started(config);

  Client bytewise(collector->port());
  bytewise.write(kCtrlRequest + "zx_control_rep:action=stop_instrumentation;\n", true);
  EXPECT_TRUE(collector->wait_for_control_line(
      [](std::string_view l) { return l == "zx_control_rep:action=stop_instrumentation;"; },
      kWait));

  Client batched(collector->port());
  batched.write(kCtrlRequest + "first\nsecond\n\npartial");
  ASSERT_TRUE(collector->wait_for_control_line(starts_with("second"), kWait));
  const auto lines = collector->lines(ConnKind::Control);
  ASSERT_EQ(lines.size(), 5u);  // two requests, one line, then first and second
  EXPECT_EQ(lines[3].text, "first");
  EXPECT_EQ(lines[3].conn_id, lines[4].conn_id);
  EXPECT_EQ(collector->snapshot().of(ConnKind::Control).blank_lines, 1u);

  Client abusive(collector->port());
  abusive.write(kCtrlRequest);
  ASSERT_TRUE(abusive.read_line());
  abusive.write(std::string(200, 'z'));  // no newline: still over the limit
  EXPECT_TRUE(abusive.read_to_eof());
  ASSERT_TRUE(collector->wait_for_closed(ConnKind::Control, 1, kWait));
  const auto history = collector->snapshot();
  ASSERT_EQ(history.errors.size(), 1u);
  EXPECT_NE(history.errors[0].find("longer than the limit"), std::string::npos);

  Client stranger(collector->port());
  stranger.write("hello\n");
  EXPECT_EQ(stranger.read_to_eof(), "");
  EXPECT_TRUE(collector->wait_until(
      [](const zxref::History &h) {
        return h.of(ConnKind::Unknown).closed == 1 && h.errors.size() == 2;
      },
      kWait));
}

// ---- data records ----

TEST(ReferenceCollectorRecords, DecodesRecordsCountsHeartbeatsAndWaits) {
  auto collector = started();
  EXPECT_FALSE(collector->wait_for_record(99, 20ms));  // times out rather than hangs

  Client data(collector->port());
  data.write(kDataRequest + "\n" + "\n99,NewConnection,FPGVersion:1.0\n");
  const auto hello = collector->wait_for_record(99, kWait);
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->fields, (std::vector<std::string>{"99", "NewConnection", "FPGVersion:1.0"}));
  EXPECT_EQ(hello->kind, ConnKind::Data);

  data.write(kRecord96, true);
  data.write("5,17,a/b.c\n\nnot a record\n74,1|2|,0,5\n");
  const auto monitor = collector->wait_for_record(74, kWait);
  ASSERT_TRUE(monitor);
  EXPECT_EQ(monitor->fields.back(), "5");

  const auto records = collector->records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[1].number, 96);
  EXPECT_EQ(records[1].payload, kPayload);
  EXPECT_EQ(records[2].number, 5);
  EXPECT_FALSE(collector->wait_for_record(5, 20ms, 3));  // `from` skips what was seen
  EXPECT_TRUE(collector->wait_for_heartbeats(3, kWait));
  const auto history = collector->snapshot();
  EXPECT_EQ(history.of(ConnKind::Data).connections, 1u);
  EXPECT_EQ(history.lines_of(ConnKind::Data).at(0).text + "\n", kDataRequest);
  EXPECT_EQ(history.lines_of(ConnKind::Data).at(4).text, "not a record");
  EXPECT_TRUE(history.errors.empty());
}

// ---- control traffic from the collector ----

TEST(ReferenceCollectorControl, SendsCommandsToTheNewestControlConnection) {
  auto collector = started();
  EXPECT_FALSE(collector->send_start("a=1"));  // nobody to send to

  auto older = control_client(*collector);
  auto newer = control_client(*collector);
  ASSERT_TRUE(collector->wait_for_connections(ConnKind::Control, 2, kWait));
  EXPECT_TRUE(collector->send_start("a=1;b=2"));
  EXPECT_TRUE(collector->send_stop());
  EXPECT_TRUE(collector->send_modify("x=y;"));
  EXPECT_EQ(newer->read_line(), "zx_control_req:action=start_instrumentation;a=1;b=2;");
  EXPECT_EQ(newer->read_line(), "zx_control_req:action=stop_instrumentation;");
  EXPECT_EQ(newer->read_line(), "zx_control_req:action=modify;x=y;");

  // The older connection got nothing: a direct send is the first thing it sees.
  const int older_id = collector->lines(ConnKind::Control)[0].conn_id;
  EXPECT_TRUE(collector->send_to(older_id, "direct\n"));
  EXPECT_EQ(older->read_line(), "direct");
}

TEST(ReferenceCollectorControl, EchoesHeartbeatsAsConfigured) {
  auto collector = started();
  auto client = control_client(*collector);
  client->write(kHeartbeat);
  EXPECT_EQ(client->read_line(),
            "zx_control_req:action=reconnect;heartBeat 7;dataConnState=1;AutosensorConnState=1;");

  collector->update_behaviour([](zxref::Behaviour &b) { b.echo_data_conn_state = 0; });
  client->write("zx_control_req:action=reconnect;heartBeat 8;\n");
  EXPECT_EQ(client->read_line(),
            "zx_control_req:action=reconnect;heartBeat 8;dataConnState=0;AutosensorConnState=1;");

  // With echoes off, a command sent after the heartbeat was read is the next line.
  for (const auto off : {+[](zxref::Behaviour &b) { b.echo_heartbeats = false; },
                         +[](zxref::Behaviour &b) { b.silent = true; }}) {
    collector->set_behaviour({});
    collector->update_behaviour(off);
    const std::size_t seen = collector->lines(ConnKind::Control).size();
    client->write(kHeartbeat);
    ASSERT_TRUE(collector->wait_for_control_line(starts_with("zx_control_req"), kWait, seen));
    collector->send(ConnKind::Control, "marker\n");
    EXPECT_EQ(client->read_line(), "marker");
  }
}

TEST(ReferenceCollectorControl, SendsItsOwnHeartbeatBetweenWholeLines) {
  const std::string beat = "zx_control_req:action=reconnect;heartBeat ";
  const std::string states = ";dataConnState=1;AutosensorConnState=1;";
  zxref::Behaviour on;
  on.heartbeat_interval = 20ms;
  zxref::Config config;
  config.behaviour = on;
  auto collector = started(config);
  auto client = control_client(*collector);
  EXPECT_EQ(client->read_line(), beat + "1" + states);
  EXPECT_EQ(client->read_line(), beat + "2" + states);

  // Half a scripted line holds back the beats, and the echo of an agent heartbeat waits
  // for the line to end.
  ASSERT_TRUE(collector->send(ConnKind::Control, "half"));
  std::string got = client->read_through("half");
  // Beats queued before the half line come first.
  while (got.starts_with(beat) && got.find('\n') != std::string::npos) {
    got.erase(0, got.find('\n') + 1);
  }
  EXPECT_EQ(got, "half");
  const std::size_t seen = collector->lines(ConnKind::Control).size();
  client->write(kHeartbeat);
  ASSERT_TRUE(collector->wait_for_control_line(starts_with(beat), kWait, seen));
  EXPECT_EQ(client->read_for(100ms), "");  // five intervals
  ASSERT_TRUE(collector->send(ConnKind::Control, "-done\n"));
  EXPECT_EQ(client->read_line(), "-done");
  EXPECT_EQ(client->read_line(), beat + "7" + states);
  EXPECT_TRUE(client->read_line().value_or("").starts_with(beat)) << "the beats resume";

  for (const auto off : {+[](zxref::Behaviour &b) { b.heartbeat_interval = {}; },
                         +[](zxref::Behaviour &b) { b.silent = true; }}) {
    collector->set_behaviour(on);
    ASSERT_TRUE(client->read_line().value_or("").starts_with(beat));
    collector->update_behaviour(off);
    // Seen by the poll thread no later than the marker, so nothing follows the marker.
    ASSERT_TRUE(collector->send(ConnKind::Control, "marker\n"));
    std::optional<std::string> line;
    while ((line = client->read_line()) && line->starts_with(beat)) {
    }
    EXPECT_EQ(line, "marker");
    EXPECT_EQ(client->read_for(100ms), "");
  }
}

// ---- faults on demand ----

TEST(ReferenceCollectorFaults, ClosesWhenAndHowItIsToldAndSendsHostileBytesIntact) {
  auto collector = started();
  auto expect_closed_with = [&](zxref::Behaviour b, const std::string &expected) {
    collector->set_behaviour(b);
    Client client(collector->port());
    // May already be refused by a closed peer; the read below is what counts.
    [[maybe_unused]] auto n =
        ::send(client.fd(), kCtrlRequest.data(), kCtrlRequest.size(), MSG_NOSIGNAL);
    EXPECT_EQ(client.read_to_eof(), expected);
  };
  zxref::Behaviour b;
  b.close_on_accept = true;
  expect_closed_with(b, "");
  b = {};
  b.on_control_request = zxref::RequestAction::Close;
  expect_closed_with(b, "");
  b.on_control_request = zxref::RequestAction::HalfReplyThenClose;
  b.reply = "0123456789\n";
  expect_closed_with(b, "01234");
  b.silent = true;  // silence suppresses the half reply, not the close
  expect_closed_with(b, "");
  ASSERT_TRUE(collector->wait_until(
      [](const zxref::History &h) {
        return h.of(ConnKind::Unknown).closed == 1 && h.of(ConnKind::Control).closed == 3;
      },
      kWait));
  EXPECT_EQ(collector->lines(ConnKind::Control).size(), 3u);  // requests were still kept

  collector->set_behaviour({});
  auto control = control_client(*collector);
  ASSERT_TRUE(collector->send(ConnKind::Control, "last words\n", {.close_after = true}));
  EXPECT_EQ(control->read_to_eof(), "last words\n");

  Client data(collector->port());
  data.write(kDataRequest);
  ASSERT_TRUE(collector->wait_for_connections(ConnKind::Data, 1, kWait));
  EXPECT_EQ(collector->close_connections(ConnKind::Data), 1u);
  EXPECT_EQ(data.read_to_eof(), "");
  EXPECT_TRUE(collector->wait_for_closed(ConnKind::Data, 1, kWait));

  // Hostile bytes go out intact, then a stop closes what is left.
  auto survivor = control_client(*collector);
  const std::string garbage("\0\xff\n\0zx_\r", 8);
  ASSERT_TRUE(collector->send(ConnKind::Control, garbage, {.bytes_per_write = 1}));
  const std::string huge(200 * 1024, 'L');  // no newline
  ASSERT_TRUE(collector->send(ConnKind::Control, huge));
  EXPECT_EQ(survivor->read_bytes(garbage.size()), garbage);
  EXPECT_EQ(survivor->read_bytes(huge.size()), huge);
  collector->stop();
  EXPECT_EQ(survivor->read_to_eof(), "");
}

}  // namespace
