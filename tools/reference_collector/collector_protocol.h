// Wire texts and stream decoding of the reference collector. StreamDecoder turns the
// bytes of one agent connection into its connection request, text lines, blank lines
// (heartbeats) and data records. It does no I/O, so the fuzzer and the unit tests drive it
// directly; ReferenceCollector owns one per socket. The builders produce the collector's
// side of the conversation (connection replies, commands, heartbeat echoes).
#pragma once

#include <charconv>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zxref {

// The whole text as a decimal number of type T, or nullopt.
template <typename T>
std::optional<T> parse_number(std::string_view text) {
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

using Clock = std::chrono::steady_clock;

// Longest line (or binary payload) accepted before a connection is judged abusive.
inline constexpr std::size_t kDefaultMaxLineBytes = std::size_t{1} << 20;

// What a connection turned out to be, from its first line. Unknown until then.
enum class ConnKind { Unknown, Control, Data, AutoSensor };
inline constexpr std::size_t kConnKindCount = 4;

inline constexpr std::size_t index_of(ConnKind kind) {
  return static_cast<std::size_t>(kind);
}
std::string_view to_string(ConnKind kind);

// Data and auto-sensor connections carry record lines; control connections carry text.
inline constexpr bool carries_records(ConnKind kind) {
  return kind == ConnKind::Data || kind == ConnKind::AutoSensor;
}

// The kind of connection a first line opens; Unknown when no request prefix matches.
ConnKind classify_request(std::string_view first_line);

// One record from a data-like connection.
struct Record {
  int number = 0;
  std::vector<std::string> fields;  // header split at ','; fields[0] is the number
  std::string payload;              // binary bytes behind the header (record 96), no final '\n'
  // Filled in by the collector, not by the decoder.
  ConnKind kind = ConnKind::Unknown;
  int conn_id = 0;
  Clock::time_point received_at{};
};

// Splits a header line into a Record; nullopt when the first field is not a record number.
std::optional<Record> parse_record(std::string_view line);

// Record 96 announces its binary payload length in the field before its trailing ','
// ("96,...,<time>,<length>,"); nullopt when the header does not end that way.
std::optional<std::size_t> binary_payload_length(const Record &header);

struct Frame {
  enum class Type { Request, Line, Blank, Record, Error };
  Type type = Type::Line;
  ConnKind kind = ConnKind::Unknown;  // the connection's kind once known
  std::string text;                   // the line without '\n'; for Error the reason
  Record record;                      // Type::Record only
};

// Newline framing with a length cap, plus the per-kind decoding of complete lines.
// Frames come out the same however the input is split into feed() calls. After an Error
// frame the stream is dead and further input is ignored.
class StreamDecoder {
 public:
  explicit StreamDecoder(std::size_t max_line_bytes = kDefaultMaxLineBytes)
      : max_line_(max_line_bytes) {}

  void feed(std::string_view bytes, std::vector<Frame> &out);

  ConnKind kind() const { return kind_; }
  bool failed() const { return failed_; }

 private:
  void on_line(std::string_view line, std::vector<Frame> &out);
  void finish_payload(std::vector<Frame> &out);
  void fail(std::string reason, std::vector<Frame> &out);

  std::size_t max_line_;
  std::string partial_;           // unfinished line, or the binary payload being collected
  std::size_t payload_left_ = 0;  // bytes still owed to pending_ (payload plus its '\n')
  Record pending_;
  std::string pending_text_;
  bool seen_first_line_ = false;
  bool failed_ = false;
  ConnKind kind_ = ConnKind::Unknown;
};

// The agent's heartbeat ("zx_control_req:action=reconnect;heartBeat N;"): its number.
std::optional<int> parse_agent_heartbeat(std::string_view line);

// Non-printable bytes as \xNN, cut to max_chars (with "..." behind a cut).
std::string printable(std::string_view bytes, std::size_t max_chars = 200);

// Replies to a control connection request. Each ends in '\n'.
namespace reply {
std::string ok();
std::string not_running();
std::string running();
std::string error(std::string_view reason = "rejected");
// Appends a protocol offer ("TCP:7892,WSS:443") to a reply.
std::string with_protocols(std::string_view reply, std::string_view protocols);
}  // namespace reply

// "zx_control_req:action=<action>;<pairs>\n"; pairs ("kw=v;kw=v") get a closing ';'.
std::string command(std::string_view action, std::string_view pairs);
// The collector's answer to an agent heartbeat, with the connection states it imposes.
std::string heartbeat_echo(int count, int data_conn_state = 1, int autosensor_conn_state = 1);

}  // namespace zxref
