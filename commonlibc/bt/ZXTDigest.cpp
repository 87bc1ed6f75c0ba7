#include "ZXTDigest.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "ZXAppMonitors.h"
#include "ZXAutoSensorData.h"
#include "ZXBTTrace.h"
#include "ZXFeatureKeywords.h"
#include "tdigest/pwlb_t_digest_quantile.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kMaxFields = 7;
constexpr char kFieldSeparator[] = "%20";

void traceHead(const char *name, const char *field, long long v) {
  ZX_CTRL_LOG(0, "Info", "Value set for %s.%s, value:%lld", name, field, v);
}

}  // namespace

void setTDigestPercentile(TDigestPercentile_t &s, const char *name, const char *value) {
  if (!value || !*value) {
    ZX_CTRL_LOG(0, "Info", "keyword value has not been provided. Hence returning.");
    return;
  }
  // Cut at every "%20" into at most seven fields.
  const char *fields[kMaxFields];
  int n = 0;
  for (const char *p = value; n < kMaxFields && p;) {
    fields[n++] = p;
    const char *sep = strstr(p, kFieldSeparator);
    p = sep ? sep + sizeof kFieldSeparator - 1 : nullptr;
  }
  for (int i = 0; i < n; ++i) {
    const long long v = atoll(fields[i]);
    switch (i) {
      case 0:
        s.is_enabled.store(static_cast<int>(v));
        traceHead(name, "is_enabled", v);
        break;
      case 1:
        s.aggregate_time.store(v * 60000);
        traceHead(name, "aggregate_time", v * 60000);
        break;
      case 2:
        s.serialization.store(static_cast<int>(v));
        traceHead(name, "serialization", v);
        break;
      case 3: {
        const double c = atof(fields[i]);
        if (c > 0) s.delta.store(1.0 / c);
        ZX_CTRL_LOG(0, "Info", "Value set for %s.delta, value:%f", name, s.delta.load());
        break;
      }
      case 4:
        s.k.store(static_cast<int>(v));
        traceHead(name, "k", v);
        break;
      case 5:
        s.group_id.store(static_cast<long>(v));
        traceHead(name, "group_id", v);
        break;
      default:
        s.graph_id.store(static_cast<int>(v));
        traceHead(name, "graph_id", v);
        break;
    }
  }
  if (n < kMaxFields)
    ZX_CTRL_LOG(0, "Info", "Finished setting %s, as no other value is provided", name);
}

void setTDigestPercentileBT(ZXAppMonitors &app, char *value, char *keyword, int index) {
  storeFeatureKeyword(app, value, keyword, index);
  setTDigestPercentile(app.tDigest.TDigestPercentileBT, "TDigestPercentileBT", value);
}

void setTDigestPercentileIP(ZXAppMonitors &app, char *value, char *keyword, int index) {
  storeFeatureKeyword(app, value, keyword, index);
  setTDigestPercentile(app.tDigest.TDigestPercentileIP, "TDigestPercentileIP", value);
}

namespace {

// The percentiles, traced only, at the BT trace level above 1.
void traceDigest(ZXAppMonitors &app, td_histogram_t *digest, const char *btName) {
  if (zxbt_trace_level(app) <= 1 || !digest) return;
  static constexpr struct {
    const char *label;
    double q;
  } kLevels[] = {{"80th", 0.8}, {"85th", 0.85}, {"90th", 0.9}, {"95th", 0.95}, {"99th", 0.99}};
  for (const auto &level : kLevels)
    ZXBT_APP_LOG(app, 1, "Info", "%s percentile for BT [%s]:%f", level.label, btName,
                 pwlb_t_digest_getquantile(digest, level.q));
  ZXBT_APP_LOG(app, 1, "Info", "TDigest Data count for BT [%s]:%d", btName,
               static_cast<int>(pwlb_t_digest_get_data_count(digest)));
}

// One record 96 appended whole, or nothing (false) when it does not fit.
bool appendRecord96(ZXAppMonitors &app, char *buf, int *len, int cap,
                    const std::vector<unsigned char> &payload, std::size_t size,
                    const char *btName) {
  const ZXBTMonitor_t &m = app.btMonitor;
  const TDigestPercentile_t &s = app.tDigest.TDigestPercentileBT;
  const long long now = my_gettimeofday() - app.Server.morEpochDiffTime;
  const int room = cap - *len;
  const int n = snprintf(buf + *len, static_cast<std::size_t>(room), "96,%s%ld|%d:%s%s,%lld,%d,\n",
                         m.vectorPrefixID, s.group_id.load(), s.graph_id.load(), m.vectorPrefix,
                         btName ? btName : "", now, static_cast<int>(size));
  // Header, payload and the closing "\n" go in whole or not at all.
  if (n < 0 || static_cast<long long>(n) + static_cast<long long>(size) + 1 > room - 1) {
    buf[*len] = '\0';
    return false;
  }
  char *out = buf + *len + n;
  if (size) std::memcpy(out, payload.data(), size);
  out[size] = '\n';
  *len += n + static_cast<int>(size) + 1;
  return true;
}

// The digest serialised with the configured mode; size 0 when it cannot be.
std::size_t serialise(ZXAppMonitors &app, td_histogram_t *digest,
                      std::vector<unsigned char> &payload) {
  payload.resize(ZXTD_INITIAL_SERIALIZE_SIZE);
  std::size_t size = 0;
  if (!pwlb_t_digest_serialize(digest, app.tDigest.TDigestPercentileBT.serialization.load(),
                               &payload, &size))
    size = 0;
  return size;
}

void recordDropped(ZXAppMonitors &app, const char *btName, int room) {
  app.tDigest.records96Dropped.fetch_add(1, std::memory_order_relaxed);
  ZXBT_APP_LOG(app, 0, "Warning", "Record 96 for BT [%s] does not fit (%d bytes left); dropped",
               btName ? btName : "", room);
}

// A BT's record into the report, after flushing a full buffer when one is
// given; false (logged and counted) when it is left out.
bool reportDigest(ZXAppMonitors &app, char *buf, int *len, int cap, td_histogram_t *digest,
                  const char *btName, ZXRecordFlush flush) {
  if (*len < 0 || *len >= cap) return false;
  traceDigest(app, digest, btName);
  std::vector<unsigned char> payload;
  const std::size_t size = serialise(app, digest, payload);
  if (appendRecord96(app, buf, len, cap, payload, size, btName)) return true;
  if (flush && *len > 0) {
    flush(app, buf, *len);
    *len = 0;
    if (appendRecord96(app, buf, len, cap, payload, size, btName)) return true;
  }
  recordDropped(app, btName, cap - *len);
  return false;
}

}  // namespace

bool dumpTDigestRecordForBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                            td_histogram_t *digest, const char *btName) {
  return buf && len && reportDigest(app, buf, len, cap, digest, btName, nullptr);
}

bool dumpTDigestRecordForOverallBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                                   td_histogram_t *digest) {
  ZXBT_APP_LOG(app, 0, "Info", "Going to dump 96 record for overall bt");
  return dumpTDigestRecordForBT(app, buf, len, cap, digest, "AllTransactions");
}

bool generateAndDumpTDigestDataForBT(ZXAppMonitors &app, char *buf, int *len, int cap,
                                     ZXRecordFlush flush) {
  if (!buf || !len) return false;
  ZXBTMonitor_t &m = app.btMonitor;
  const TDigestPercentile_t &s = app.tDigest.TDigestPercentileBT;
  drainResponseTimes(app);
  td_histogram_t *overall = nullptr;
  if (pwlb_t_digest_init(&overall, s.delta.load(), s.k.load()) != 0) return false;
  bool any = false;
  {
    std::lock_guard slots(m.slotLock);
    if (m.responseTimesDroppedUnlogged > 0) {
      ZXBT_APP_LOG(app, 0, "Warning",
                   "%lld response times left out of the percentiles since the last record 96 "
                   "(a thread's feed ring was full, or no slot or digest for its BT); %lld in all",
                   m.responseTimesDroppedUnlogged, m.responseTimesDropped.load());
      m.responseTimesDroppedUnlogged = 0;
    }
    const int size = m.aggDataArraySize.load(std::memory_order_acquire);
    for (int i = 1; i < size; ++i) {
      ZXBTMonitorDataCounters &slot = m.aggBTDataArr[i];
      if (!slot.tdigestDataExist.load(std::memory_order_relaxed)) continue;
      td_histogram_t *h = slot.tdigest_key.exchange(nullptr, std::memory_order_acq_rel);
      slot.tdigestDataExist.store(0, std::memory_order_relaxed);
      if (!h) continue;
      const BTObject *obj = slot.tlBTObj.load(std::memory_order_acquire);
      reportDigest(app, buf, len, cap, h, obj ? obj->bt_name : "", flush);
      pwlb_t_digest_merge(overall, h);
      pwlb_t_digest_destroy(&h);
      any = true;
    }
    if (any) {
      ZXBT_APP_LOG(app, 0, "Info", "Going to dump 96 record for overall bt");
      reportDigest(app, buf, len, cap, overall, "AllTransactions", flush);
    }
  }
  pwlb_t_digest_destroy(&overall);
  return any;
}

void generateAndDumpPartialTDigestBTRecords(ZXAppMonitors &app) {
  std::vector<char> buf(ZXBT_REPORT_BUFFER_SIZE);
  int len = 0;
  const ZXRecordFlush send = [](ZXAppMonitors &a, const char *data, int n) {
    dumpASData(&a, data, n);
  };
  if (generateAndDumpTDigestDataForBT(app, buf.data(), &len, ZXBT_REPORT_BUFFER_SIZE, send) &&
      len > 0)
    send(app, buf.data(), len);
  app.tDigest.nextLogTime.store(my_gettimeofday() - app.Server.morEpochDiffTime +
                                app.tDigest.TDigestPercentileBT.aggregate_time.load());
}
