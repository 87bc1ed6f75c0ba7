// Percentile sketches per business transaction: the settings that switch
// them on, and record 96, which ships each slot's t-digest once per
// aggregation period over the auto-sensor data connection.
//
// The slots' digests get every counted transaction's duration, drained from
// the threads' feed rings (ZXBTMonitor.h), or with tDigestIntervalSumsBT one
// point per thread per interval, its duration sum. The record-96 report
// writes, merges into the overall digest and destroys them. Feeding and
// reports hold the monitor's slotLock, so digests are never touched by two
// threads at once.
//
// Record 96 = text header, binary payload, "\n":
//   "96,<tier>|<app>|<group>|<graph>:<vector prefix><name>,<agent ms>,<len>,\n"
//   <len bytes of the serialised digest>"\n"
#pragma once

#include <atomic>

struct ZXAppMonitors;
struct td_histogram_t;

inline constexpr int ZXTD_DEFAULT_AGGREGATE_MS = 5 * 60000;
inline constexpr int ZXTD_INITIAL_SERIALIZE_SIZE = 1024;

// One settings keyword ("tDigestPercentileBT" or "tDigestPercentileIP").
// Written by the control thread, read by the monitoring timer.
struct TDigestPercentile_t {
  std::atomic<int> is_enabled{0};
  std::atomic<long long> aggregate_time{ZXTD_DEFAULT_AGGREGATE_MS};  // ms
  std::atomic<int> serialization{2};
  std::atomic<double> delta{0.01};
  std::atomic<int> k{100};
  std::atomic<long> group_id{0};
  std::atomic<int> graph_id{0};
};

struct ZXTDigest_t {
  TDigestPercentile_t TDigestPercentileBT;
  // Kept for the backend monitor, which owns the backend slots.
  TDigestPercentile_t TDigestPercentileIP;
  // Agent time (ms) at which the next period's records are due; timer only.
  std::atomic<long long> nextLogTime{0};
  // Records 96 left out whole: larger than a report buffer, or no flush.
  std::atomic<long long> records96Dropped{0};
};

// "%20"-separated fields: enabled, aggregation minutes, mode, compression
// (delta = 1 / value), k, group id, graph id; absent fields keep their value.
void setTDigestPercentileBT(ZXAppMonitors &app, char *value, char *keyword, int index);
void setTDigestPercentileIP(ZXAppMonitors &app, char *value, char *keyword, int index);
void setTDigestPercentile(TDigestPercentile_t &s, const char *name, const char *value);

// Where a full report buffer goes before the next record is written: digests
// fed every response time run to kilobytes each, so a period's records may
// need several buffers.
using ZXRecordFlush = void (*)(ZXAppMonitors &app, const char *buf, int len);

// Appends record 96 for every BT slot with digest data, then the overall
// "AllTransactions" record, destroying the slots' digests; drains the feed
// rings first and logs the points dropped since the last report. Advances *len,
// never past cap. A record that does not fit goes into an empty buffer after
// `flush` has taken the full one (*len is then restarted); without a flush,
// or when it does not fit even then, it is left out, logged and counted in
// records96Dropped. Takes slotLock.
bool generateAndDumpTDigestDataForBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                                     ZXRecordFlush flush = nullptr);
// One record 96 from `digest` (serialised with the configured mode).
bool dumpTDigestRecordForBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                            td_histogram_t *digest, const char *btName);
bool dumpTDigestRecordForOverallBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                                   td_histogram_t *digest);
// The period: builds the records and hands them to dumpASData, then sets
// nextLogTime one aggregation period ahead. Monitoring timer only.
void generateAndDumpPartialTDigestBTRecords(ZXAppMonitors &app);
