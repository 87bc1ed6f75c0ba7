#include "bt_table.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "tdigest_record.h"

namespace zxref {

namespace {

constexpr const char *kAll = "AllTransactions";

// Record 74's values, space separated.
std::vector<double> values_of(std::string_view text) {
  std::vector<double> out;
  while (!text.empty()) {
    const auto start = text.find_first_not_of(' ');
    if (start == std::string_view::npos) break;
    text.remove_prefix(start);
    const auto end = std::min(text.find(' '), text.size());
    double v = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + end, v);
    if (ec != std::errc{} || ptr != text.data() + end) return {};
    out.push_back(v);
    text.remove_prefix(end);
  }
  return out;
}

// A count field, which the agent writes as an integer; anything else refuses the record.
bool count_of(double v, long long &out) {
  if (!std::isfinite(v) || v < 0 || v > 1e15) return false;
  out = static_cast<long long>(v);
  return true;
}

// The rows by name, AllTransactions last.
template <typename Map>
std::vector<typename Map::const_iterator> ordered(const Map &rows) {
  std::vector<typename Map::const_iterator> out;
  for (auto it = rows.begin(); it != rows.end(); ++it) {
    if (it->first != kAll) out.push_back(it);
  }
  if (auto all = rows.find(kAll); all != rows.end()) out.push_back(all);
  return out;
}

}  // namespace

std::string bt_name_of(std::string_view subject) {
  const auto colon = subject.find(':');
  if (colon != std::string_view::npos) subject.remove_prefix(colon + 1);
  const auto gt = subject.rfind('>');
  if (gt != std::string_view::npos) subject.remove_prefix(gt + 1);
  return std::string(subject);
}

long long nearest_rank(std::vector<long long> &values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto n = static_cast<double>(values.size());
  const auto rank = static_cast<std::size_t>(std::max(1.0, std::ceil(p * n)));
  return values[std::min(rank, values.size()) - 1];
}

bool BTTable::add(const Record &r) {
  if (r.number == 96) {
    auto decoded = decode_tdigest_record(r);
    if (!decoded || !decoded->digest) return false;
    BTRow &row = rows_[bt_name_of(decoded->name)];
    if (!row.digest) {
      row.digest = std::move(decoded->digest);
    } else {
      td_merge(row.digest.get(), decoded->digest.get());
    }
    return true;
  }
  if (r.number != 74 || r.fields.size() < 2) return false;
  // "74,<ids>:<prefix><name>|<values>"; a ',' in the name split it.
  std::string text = r.fields[1];
  for (std::size_t i = 2; i < r.fields.size(); ++i) text += "," + r.fields[i];
  const auto bar = text.rfind('|');
  if (bar == std::string::npos || text.find(':') > bar) return false;
  const std::vector<double> v = values_of(std::string_view(text).substr(bar + 1));
  long long count = 0, slow = 0, very_slow = 0, errors = 0;
  if (v.size() < 23 || !count_of(v[4], count) || !count_of(v[14], slow) ||
      !count_of(v[18], very_slow) || !count_of(v[22], errors) || !std::isfinite(v[1])) {
    return false;
  }
  BTRow &row = rows_[bt_name_of(std::string_view(text).substr(0, bar))];
  row.count += count;
  row.duration_sum += v[1] * static_cast<double>(count);
  row.slow += slow;
  row.very_slow += very_slow;
  row.errors += errors;
  return true;
}

void BTTable::add_response(int bt_id, long long ms) {
  responses_[bt_id].push_back(ms);
}

std::string BTTable::render(const std::map<int, std::string> &bt_names) const {
  std::string out;
  char line[512];
  std::snprintf(line, sizeof line, "  %-20s %7s %8s %6s %9s %6s %9s %9s %9s\n", "BT", "count",
                "avg ms", "slow", "very slow", "errors", "p50", "p90", "p99");
  out += line;
  for (const auto &it : ordered(rows_)) {
    const BTRow &row = it->second;
    char q[3][32] = {"-", "-", "-"};
    const double levels[3] = {0.5, 0.9, 0.99};
    for (int i = 0; i < 3 && row.digest; ++i) {
      std::snprintf(q[i], sizeof q[i], "%.1f", td_value_at(row.digest.get(), levels[i]));
    }
    const double avg = row.count ? row.duration_sum / static_cast<double>(row.count) : 0.0;
    std::snprintf(line, sizeof line, "  %-20.60s %7lld %8.1f %6lld %9lld %6lld %9s %9s %9s\n",
                  it->first.c_str(), row.count, avg, row.slow, row.very_slow, row.errors, q[0],
                  q[1], q[2]);
    out += line;
  }

  std::map<std::string, std::vector<long long>> by_name;
  std::vector<long long> all;
  for (const auto &[id, times] : responses_) {
    const auto name = bt_names.find(id);
    auto &dst = by_name[name != bt_names.end() ? name->second : "BT#" + std::to_string(id)];
    dst.insert(dst.end(), times.begin(), times.end());
    all.insert(all.end(), times.begin(), times.end());
  }
  if (by_name.empty()) return out;
  by_name[kAll] = std::move(all);
  out += "  Response times of the finished flowpaths (record 4), exact:\n";
  std::snprintf(line, sizeof line, "  %-20s %9s %9s %9s %9s %9s\n", "BT", "flowpaths", "p50", "p90",
                "p99", "max");
  out += line;
  for (auto &it : ordered(by_name)) {
    std::vector<long long> &times = by_name[it->first];
    const long long p50 = nearest_rank(times, 0.5);
    std::snprintf(line, sizeof line, "  %-20.60s %9zu %9lld %9lld %9lld %9lld\n", it->first.c_str(),
                  times.size(), p50, nearest_rank(times, 0.9), nearest_rank(times, 0.99),
                  times.back());
    out += line;
  }
  return out;
}

}  // namespace zxref
