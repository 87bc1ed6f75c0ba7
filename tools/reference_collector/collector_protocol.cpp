#include "collector_protocol.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace zxref {

namespace {

struct RequestPrefix {
  std::string_view prefix;
  ConnKind kind;
};

// New connection kinds slot in here; records are decoded for every kind that
// carries_records() accepts.
constexpr std::array<RequestPrefix, 4> kRequestPrefixes{{
    {"zx_ctrl_msg_req:", ConnKind::Control},
    {"mor_saas_auth_agent_msg_req:", ConnKind::Control},
    {"zx_data_msg_req:", ConnKind::Data},
    {"auto_sensor_thread_hotspot_data_req:", ConnKind::AutoSensor},
}};

constexpr std::string_view kHeartbeatPrefix = "zx_control_req:action=reconnect;heartBeat ";

// Record numbers and payload lengths: plain decimal, small enough for int.
template <typename T>
std::optional<T> parse_decimal(std::string_view text) {
  if (text.empty() || text.size() > 9) return std::nullopt;
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::string_view to_string(ConnKind kind) {
  switch (kind) {
    case ConnKind::Control:
      return "control";
    case ConnKind::Data:
      return "data";
    case ConnKind::AutoSensor:
      return "autosensor";
    case ConnKind::Unknown:
      break;
  }
  return "unknown";
}

ConnKind classify_request(std::string_view first_line) {
  for (const auto &p : kRequestPrefixes) {
    if (first_line.starts_with(p.prefix)) return p.kind;
  }
  return ConnKind::Unknown;
}

std::optional<Record> parse_record(std::string_view line) {
  const auto comma = line.find(',');
  const auto number = parse_decimal<int>(line.substr(0, comma));
  if (!number || *number < 0) return std::nullopt;
  Record rec;
  rec.number = *number;
  std::size_t start = 0;
  for (;;) {
    const auto next = line.find(',', start);
    rec.fields.emplace_back(line.substr(start, next - start));
    if (next == std::string_view::npos) break;
    start = next + 1;
  }
  return rec;
}

std::optional<std::size_t> binary_payload_length(const Record &header) {
  const auto &f = header.fields;
  if (f.size() < 3 || !f.back().empty()) return std::nullopt;
  return parse_decimal<std::size_t>(f[f.size() - 2]);
}

void StreamDecoder::feed(std::string_view bytes, std::vector<Frame> &out) {
  std::size_t pos = 0;
  while (pos < bytes.size() && !failed_) {
    if (payload_left_ > 0) {
      const std::size_t take = std::min(payload_left_, bytes.size() - pos);
      partial_.append(bytes.substr(pos, take));
      pos += take;
      payload_left_ -= take;
      if (payload_left_ == 0) finish_payload(out);
      continue;
    }
    const auto nl = bytes.find('\n', pos);
    if (nl == std::string_view::npos) {
      partial_.append(bytes.substr(pos));
      // Checked against what is held, not per chunk, so the verdict does not depend
      // on how the input was split.
      if (partial_.size() > max_line_) fail("line longer than the limit", out);
      return;
    }
    const std::string_view piece = bytes.substr(pos, nl - pos);
    pos = nl + 1;
    if (partial_.size() + piece.size() > max_line_) {
      fail("line longer than the limit", out);
      return;
    }
    if (partial_.empty()) {
      on_line(piece, out);
    } else {
      partial_.append(piece);
      const std::string line = std::move(partial_);
      partial_.clear();
      on_line(line, out);
    }
  }
}

void StreamDecoder::on_line(std::string_view line, std::vector<Frame> &out) {
  if (!seen_first_line_) {
    seen_first_line_ = true;
    kind_ = classify_request(line);
    if (kind_ == ConnKind::Unknown) {
      fail("unrecognised connection request '" + printable(line, 80) + "'", out);
      return;
    }
    out.push_back(Frame{Frame::Type::Request, kind_, std::string(line), {}});
    return;
  }
  if (line.empty()) {
    out.push_back(Frame{Frame::Type::Blank, kind_, {}, {}});
    return;
  }
  if (!carries_records(kind_)) {
    out.push_back(Frame{Frame::Type::Line, kind_, std::string(line), {}});
    return;
  }
  auto rec = parse_record(line);
  if (!rec) {
    out.push_back(Frame{Frame::Type::Line, kind_, std::string(line), {}});
    return;
  }
  if (rec->number == 96) {
    // A binary payload may hold '\n', so it is taken by its announced length, not framed.
    const auto len = binary_payload_length(*rec);
    if (!len) {
      fail("record 96 header without a payload length '" + printable(line, 80) + "'", out);
      return;
    }
    if (*len > max_line_) {
      fail("record 96 payload longer than the limit", out);
      return;
    }
    pending_ = std::move(*rec);
    pending_text_ = std::string(line);
    payload_left_ = *len + 1;
    return;
  }
  out.push_back(Frame{Frame::Type::Record, kind_, std::string(line), std::move(*rec)});
}

void StreamDecoder::finish_payload(std::vector<Frame> &out) {
  if (partial_.empty() || partial_.back() != '\n') {
    fail("record 96 payload not followed by a line feed", out);
    return;
  }
  partial_.pop_back();
  // The payload is kept as sent; decode_tdigest_record() reads the digest in it.
  pending_.payload = std::move(partial_);
  partial_.clear();
  out.push_back(Frame{Frame::Type::Record, kind_, std::move(pending_text_), std::move(pending_)});
  pending_ = Record{};
  pending_text_.clear();
}

void StreamDecoder::fail(std::string reason, std::vector<Frame> &out) {
  failed_ = true;
  partial_.clear();
  partial_.shrink_to_fit();
  out.push_back(Frame{Frame::Type::Error, kind_, std::move(reason), {}});
}

std::optional<int> parse_agent_heartbeat(std::string_view line) {
  if (!line.starts_with(kHeartbeatPrefix)) return std::nullopt;
  line.remove_prefix(kHeartbeatPrefix.size());
  const auto semi = line.find(';');
  if (semi == std::string_view::npos) return std::nullopt;
  const std::string_view digits = line.substr(0, semi);
  int value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (digits.empty() || ec != std::errc{} || end != digits.data() + digits.size()) {
    return std::nullopt;
  }
  return value;
}

std::string printable(std::string_view bytes, std::size_t max_chars) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char ch : bytes) {
    if (out.size() >= max_chars) {
      out += "...";
      break;
    }
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c < 0x7f) {
      out += ch;
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    }
  }
  return out;
}

namespace reply {

std::string ok() {
  return "zx_ctrl_msg_rep:result=Ok;\n";
}
std::string not_running() {
  return "zx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;\n";
}
std::string running() {
  return "zx_ctrl_msg_rep:result=Ok;status=RUNNING\n";
}

std::string error(std::string_view reason) {
  std::string text = "zx_ctrl_msg_rep:result=Error";
  if (!reason.empty()) {
    text += ':';
    text += reason;
  }
  return text + ";\n";
}

std::string with_protocols(std::string_view reply, std::string_view protocols) {
  std::string text(reply);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  if (text.empty() || text.back() != ';') text += ';';
  text += "supportedProtocols=";
  text += protocols;
  return text + "\n";
}

}  // namespace reply

std::string command(std::string_view action, std::string_view pairs) {
  std::string text = "zx_control_req:action=";
  text += action;
  text += ';';
  text += pairs;
  if (!pairs.empty() && pairs.back() != ';') text += ';';
  return text + "\n";
}

std::string heartbeat_echo(int count, int data_conn_state, int autosensor_conn_state) {
  return std::string(kHeartbeatPrefix) + std::to_string(count) +
         ";dataConnState=" + std::to_string(data_conn_state) +
         ";AutosensorConnState=" + std::to_string(autosensor_conn_state) + ";\n";
}

}  // namespace zxref
