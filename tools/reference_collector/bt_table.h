// The collector's per-BT view of a run: record 74 counters summed over the
// monitor's intervals, record 96 digests merged over its periods, and the
// response times of the flowpaths that finished (record 4).
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "collector_protocol.h"
#include "tdigest/tdigest.h"

namespace zxref {

struct BTRow {
  long long count = 0;
  long long slow = 0;
  long long very_slow = 0;
  long long errors = 0;
  double duration_sum = 0;  // ms
  td_histogram_ptr digest;  // null until a record 96 arrives
};

// The BT name of a monitor subject "<ids>:<vector prefix><name>": what follows
// the prefix's last '>'.
std::string bt_name_of(std::string_view subject);

// p in [0, 1] of the values by nearest rank; 0 for none. Sorts `values`.
long long nearest_rank(std::vector<long long> &values, double p);

class BTTable {
 public:
  // Takes records 74 and 96; false for others and for malformed ones.
  bool add(const Record &record);
  void add_response(int bt_id, long long ms);

  const std::map<std::string, BTRow> &rows() const { return rows_; }

  // Both tables; bt_names resolves the flowpaths' BT ids (record 7).
  std::string render(const std::map<int, std::string> &bt_names) const;

 private:
  std::map<std::string, BTRow> rows_;
  std::map<int, std::vector<long long>> responses_;
};

}  // namespace zxref
