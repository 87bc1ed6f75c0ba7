// Record 96 read back: the collector's view of a t-digest report. The header
// "96,<tier id>|<app id>|<group id>|<graph id>:<vector prefix><name>,<time>,<length>,"
// names the monitor; the binary payload behind it is a serialised digest,
// decoded here so that tests and the zx_collector command can read its
// percentiles.
#pragma once

#include <optional>
#include <string>

#include "collector_protocol.h"
#include "tdigest/tdigest.h"

namespace zxref {

struct TDigestPercentiles {
  double p50 = 0;
  double p90 = 0;
  double p99 = 0;
};

struct TDigestRecord {
  std::string ids;   // "<tier id>|<app id>|<group id>|<graph id>"
  std::string name;  // the monitor's vector prefix and the BT or backend name
  long group_id = 0;
  int graph_id = 0;
  long long time_ms = 0;
  int mode = 0;       // serialisation mode of the payload
  int centroids = 0;  // as sent
  double count = 0;   // total weight
  // Absent when the payload carries no weight: an empty digest, or mode 1,
  // whose count fields hold only the low half of each weight's bits.
  std::optional<TDigestPercentiles> percentiles;
  // The payload's digest, for other quantiles (td_value_at, td_quantile_of).
  td_histogram_ptr digest;
};

// Nullopt when the record is not 96, its header is not as above, or its
// payload is not a digest.
std::optional<TDigestRecord> decode_tdigest_record(const Record &record);

// "p50=... p90=... p99=... (count N, C centroids, mode M)", for printing.
std::string describe(const TDigestRecord &record);

}  // namespace zxref
