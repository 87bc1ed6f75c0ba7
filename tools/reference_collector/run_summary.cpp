#include "run_summary.h"

#include <cstdio>

namespace zxref {

namespace {

const char *record_label(int number) {
  switch (number) {
    case 2:
      return "flowpath headers";
    case 3:
      return "early sequence blocks";
    case 4:
      return "final sequence blocks";
    case 5:
      return "method names";
    case 7:
      return "BT names";
    case 74:
      return "BT counters";
    case 96:
      return "BT t-digests";
    case 99:
      return "connection starts";
    default:
      return "";
  }
}

}  // namespace

void RunSummary::add(const Record &r) {
  ++records_;
  ++by_number_[r.number];
  if (r.number == 74 || r.number == 96) {
    if (!table_.add(r)) ++undecodable_;
    return;
  }
  const std::size_t finished = flowpaths_.finished_count();
  if (!flowpaths_.add(r) || flowpaths_.finished_count() == finished) return;
  // Discarded flowpaths (status -99) still carry their true response time.
  table_.add_response(flowpaths_.last_end().bt_id, flowpaths_.last_end().resp_ms);
}

std::string RunSummary::render(std::size_t flowpaths_shown) const {
  std::string out = "== Records received: " + std::to_string(records_) + " (" +
                    std::to_string(heartbeats_) + " heartbeats besides)\n";
  for (const auto &[number, count] : by_number_) {
    char line[128];
    std::snprintf(line, sizeof line, "  %4d  %8zu  %s\n", number, count, record_label(number));
    out += line;
  }
  if (undecodable_) out += "  (" + std::to_string(undecodable_) + " records 74/96 undecodable)\n";

  out += "== Business transactions (records 7, 74 and 96)\n";
  out += table_.render(flowpaths_.names().bts);

  const auto &fps = flowpaths_;
  out += "== Flowpaths: " + std::to_string(fps.finished_count()) + " finished, " +
         std::to_string(fps.open_count()) + " unfinished at exit";
  if (fps.not_kept()) out += ", " + std::to_string(fps.not_kept()) + " records past the limit";
  if (fps.malformed()) out += ", " + std::to_string(fps.malformed()) + " malformed records";
  out += "\n";
  for (const Flowpath *fp : pick_examples(fps.finished(), flowpaths_shown)) {
    out += render_flowpath(*fp, fps.names());
  }
  return out;
}

}  // namespace zxref
