// Flowpath records read back: the header (record 2), the sequence blocks
// (3 flushed early, 4 final), and the method (5) and BT (7) names a
// collector needs to show one traced transaction as a call tree. All of it is
// outside input: a malformed record is refused and a malformed blob piece is
// skipped, never trusted.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector_protocol.h"

namespace zxref {

// One entry of a sequence blob.
struct BlobEntry {
  enum class Type { Entry, Exit, CallOut };
  Type type = Type::Entry;
  long long method_id = 0;
  long long thread_id = -1;  // -1: not given (the page-id entry form)
  // Entry: ms since the flowpath began. Exit: the method's wall time.
  // Call-out: its duration.
  long long ms = 0;
  int event = 0;       // 0 entry; 1, 3 or 4 exit
  long long cpu = -1;  // exits; -1: not given
  long long seq = -1;  // "_1:<seq>_" exits and call-outs
  long long page_id = -1;
  bool async = false;
  std::string url;  // async entries
  // Call-outs ("T..." or, failed, "E...").
  bool error = false;
  int kind = 0;  // 10 database, 1 HTTP, 8 other
  long long resource = 0;
  long long start_ms = 0;
  int status = 0;               // failed call-outs
  long long resource_url = -1;  // HTTP call-outs that name their URL's id
};

struct ParsedBlob {
  std::vector<BlobEntry> entries;
  std::size_t skipped = 0;  // malformed pieces passed over
};

ParsedBlob parse_blob(std::string_view blob);

// The methods of one flowpath nested as they ran.
struct CallNode {
  long long method_id = 0;
  long long thread_id = -1;
  long long start_ms = 0;
  long long wall_ms = -1;  // -1: no exit seen
  long long cpu = -1;
  std::vector<BlobEntry> callouts;  // made by this method, or by the backend it is
  std::vector<CallNode> children;
};

struct CallTree {
  std::vector<CallNode> roots;
  std::vector<BlobEntry> loose_callouts;  // made outside any open method
  std::size_t unmatched_exits = 0;
  std::size_t too_deep = 0;  // entries past the nesting limit, left out
};

inline constexpr std::size_t kMaxCallDepth = 128;

CallTree build_call_tree(const std::vector<BlobEntry> &entries);

// Record 2.
struct FlowpathHeader {
  long long instance = 0;
  long long first_instance = 0;  // chained flowpaths: the chain's first and
  long long prev_instance = 0;   // the calling tier's flowpath; 0 otherwise
  bool forced = false;
  long long start_sec = 0;
  long long thread_id = 0;
  std::string position;
  int bt_id = 0;
  std::string url;
  std::string correlation;
  long long session_id = 0;
  std::string sid;
  long long page_id = 0;
  int fp_type = 0;
  long long queue_ms = 0;
};

std::optional<FlowpathHeader> parse_flowpath_header(const Record &record);

// A flowpath as far as its records have arrived.
struct Flowpath {
  long long instance = 0;
  std::optional<FlowpathHeader> header;
  std::string blob;  // the 3 blocks' blobs, then the 4 block's
  bool complete = false;
  // From record 4.
  int status = 0;  // -99: discarded by the agent, only its end was sent
  int category = 0;
  long long cpu = 0;
  long long resp_ms = 0;
  int bt_id = 0;
  int fp_type = 0;
};

// Record 5 ("5,<name>,<id>"; the name may itself hold ',') and record 7
// ("7,<id>,<name>").
struct NameBook {
  std::map<long long, std::string> methods;
  std::map<int, std::string> bts;

  std::string method(long long id) const;
  std::string bt(int id) const;
};

// Record 4's outcome, kept for the last one even past the store's limit.
struct FlowpathEnd {
  int bt_id = 0;
  int status = 0;
  int category = 0;
  long long resp_ms = 0;
};

// Collects flowpaths from the record stream. Bounded: past max_kept finished
// (or open) flowpaths, further ones are only counted.
class FlowpathStore {
 public:
  explicit FlowpathStore(std::size_t max_kept = 20000) : max_kept_(max_kept) {}

  // Takes records 2, 3, 4, 5 and 7; false for other numbers and malformed ones.
  bool add(const Record &record);

  const NameBook &names() const { return names_; }
  const std::vector<Flowpath> &finished() const { return finished_; }
  std::size_t finished_count() const { return finished_count_; }
  const FlowpathEnd &last_end() const { return last_end_; }
  std::size_t open_count() const { return open_.size(); }
  std::size_t not_kept() const { return not_kept_; }
  std::size_t malformed() const { return malformed_; }

 private:
  Flowpath *open_for(long long instance);

  std::size_t max_kept_;
  NameBook names_;
  std::map<long long, Flowpath> open_;
  std::vector<Flowpath> finished_;
  std::size_t finished_count_ = 0;
  FlowpathEnd last_end_;
  std::size_t not_kept_ = 0;
  std::size_t malformed_ = 0;
};

// "normal", "slow", "very slow", "error", or the number.
std::string category_name(int category);

// The flowpath's summary line and its indented method tree with call-outs.
std::string render_flowpath(const Flowpath &fp, const NameBook &names);

// Up to n finished flowpaths worth showing: the slowest, the first error,
// then one per BT not yet shown, in arrival order.
std::vector<const Flowpath *> pick_examples(const std::vector<Flowpath> &finished, std::size_t n);

}  // namespace zxref
