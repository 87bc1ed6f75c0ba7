#include "tdigest_record.h"

#include <charconv>
#include <cstdio>
#include <string_view>

namespace zxref {

namespace {

template <typename T>
bool parse_number(std::string_view text, T &value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && ec == std::errc{} && end == text.data() + text.size();
}

// "<tier>|<app>|<group>|<graph>": the last two are the collector's monitor.
bool parse_ids(std::string_view ids, long &group_id, int &graph_id) {
  std::string_view parts[4];
  for (int i = 0; i < 3; ++i) {
    const auto bar = ids.find('|');
    if (bar == std::string_view::npos) return false;
    parts[i] = ids.substr(0, bar);
    ids.remove_prefix(bar + 1);
  }
  parts[3] = ids;
  int tier = 0;
  int app = 0;
  return parse_number(parts[0], tier) && parse_number(parts[1], app) &&
         parse_number(parts[2], group_id) && parse_number(parts[3], graph_id);
}

}  // namespace

std::optional<TDigestRecord> decode_tdigest_record(const Record &record) {
  const auto &f = record.fields;
  // 96, the subject (which may itself hold ','), time, length, and the empty
  // field behind the closing ','.
  if (record.number != 96 || f.size() < 5 || !f.back().empty()) return std::nullopt;
  std::string subject = f[1];
  for (std::size_t i = 2; i + 3 < f.size(); ++i) subject += "," + f[i];
  const auto colon = subject.find(':');
  if (colon == std::string::npos) return std::nullopt;

  TDigestRecord out;
  out.ids = subject.substr(0, colon);
  out.name = subject.substr(colon + 1);
  std::size_t length = 0;
  if (!parse_ids(out.ids, out.group_id, out.graph_id) ||
      !parse_number(std::string_view(f[f.size() - 3]), out.time_ms) ||
      !parse_number(std::string_view(f[f.size() - 2]), length) || length != record.payload.size()) {
    return std::nullopt;
  }
  const auto *bytes = reinterpret_cast<const unsigned char *>(record.payload.data());
  out.digest.reset(td_deserialize(bytes, record.payload.size(), 0));
  if (!out.digest) return std::nullopt;
  out.mode = static_cast<int>(bytes[0]);  // a little-endian int32 of 1 or 2
  out.centroids = out.digest->merged_nodes + out.digest->unmerged_nodes;
  out.count = td_total_count(out.digest.get());
  if (out.count > 0) {
    td_histogram_t *h = out.digest.get();
    out.percentiles =
        TDigestPercentiles{td_value_at(h, 0.5), td_value_at(h, 0.9), td_value_at(h, 0.99)};
  }
  return out;
}

std::string describe(const TDigestRecord &record) {
  char text[256];
  if (record.percentiles) {
    std::snprintf(text, sizeof text, "p50=%g p90=%g p99=%g (count %.0f, %d centroids, mode %d)",
                  record.percentiles->p50, record.percentiles->p90, record.percentiles->p99,
                  record.count, record.centroids, record.mode);
  } else {
    std::snprintf(text, sizeof text, "no weights (%d centroids, mode %d)", record.centroids,
                  record.mode);
  }
  return text;
}

}  // namespace zxref
