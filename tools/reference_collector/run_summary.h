// What a run brought the collector, kept as the records arrive and printed
// when it ends: records by number, the per-BT tables and a few flowpaths.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "bt_table.h"
#include "collector_protocol.h"
#include "flowpath_decode.h"

namespace zxref {

class RunSummary {
 public:
  void add(const Record &record);
  // Blank lines on a data-like connection: the agent's heartbeats.
  void add_heartbeat() { ++heartbeats_; }

  const FlowpathStore &flowpaths() const { return flowpaths_; }
  const BTTable &bt_table() const { return table_; }
  std::size_t records() const { return records_; }

  std::string render(std::size_t flowpaths_shown) const;

 private:
  std::map<int, std::size_t> by_number_;
  std::size_t records_ = 0;
  std::size_t heartbeats_ = 0;
  std::size_t undecodable_ = 0;  // 74 and 96 the table refused
  FlowpathStore flowpaths_;
  BTTable table_;
};

}  // namespace zxref
