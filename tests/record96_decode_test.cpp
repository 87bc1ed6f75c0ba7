// Record 96 as the agent writes it, read back by the reference collector: the
// header names the monitor, the binary payload is the digest, and the
// percentiles the collector reports are those of the agent's digest.

#include <cmath>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "collector_protocol.h"
#include "tdigest/tdigest.h"
#include "tdigest_record.h"

namespace {

const std::string kDataRequest = "zx_data_msg_req:appName=app;appID=5;pid=42\n";

std::string payload_of(td_histogram_t *h, int mode) {
  std::vector<unsigned char> buf(1024);
  std::size_t size = 0;
  EXPECT_NE(td_serialize(h, mode, &buf, &size), nullptr);
  return std::string(reinterpret_cast<const char *>(buf.data()), size);
}

// "96,%s%ld|%d:%s%s,%lld,%d,\n", the payload, "\n".
std::string record96(const std::string &name, long group, const std::string &payload) {
  return "96,3|5|" + std::to_string(group) + "|1:" + name + ",1700000000123," +
         std::to_string(payload.size()) + ",\n" + payload + "\n";
}

// The record frames of one data connection's bytes, fed `chunk` bytes at a time.
std::vector<zxref::Record> records_of(const std::string &stream, std::size_t chunk) {
  zxref::StreamDecoder decoder;
  std::vector<zxref::Frame> frames;
  for (std::size_t at = 0; at < stream.size(); at += chunk) {
    decoder.feed(std::string_view(stream).substr(at, chunk), frames);
  }
  std::vector<zxref::Record> out;
  for (auto &f : frames) {
    EXPECT_NE(f.type, zxref::Frame::Type::Error) << f.text;
    if (f.type == zxref::Frame::Type::Record) out.push_back(std::move(f.record));
  }
  return out;
}

// Mode 2 sends each mean as a float difference: values agree to float
// precision, not bit for bit.
void expect_close(double got, double want) {
  EXPECT_NEAR(got, want, 1e-6 * std::fabs(want) + 1e-9);
}

TEST(Record96Decode, PercentilesMatchTheAgentsDigest) {
  std::mt19937_64 rng(4);
  std::lognormal_distribution<double> response_ms(5, 1);
  td_histogram_ptr login(td_new(0.01, 100)), overall(td_new(0.01, 100));
  for (int i = 0; i < 100000; ++i) td_add(login.get(), response_ms(rng), 1);
  // Whole milliseconds, as the monitor feeds.
  for (int i = 0; i < 300; ++i) td_add(overall.get(), std::round(response_ms(rng)), 1);

  const std::string stream =
      kDataRequest + record96("T1>S1>A1>login", 793, payload_of(login.get(), 2)) +
      "74,3|5|,other record\n" +
      record96("T1,S1,A1,AllTransactions", 793, payload_of(overall.get(), 2));
  for (std::size_t chunk : {stream.size(), std::size_t{7}, std::size_t{1}}) {
    const auto records = records_of(stream, chunk);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_FALSE(zxref::decode_tdigest_record(records[1]));  // not record 96

    const auto bt = zxref::decode_tdigest_record(records[0]);
    ASSERT_TRUE(bt);
    EXPECT_EQ(bt->ids, "3|5|793|1");
    EXPECT_EQ(bt->name, "T1>S1>A1>login");
    EXPECT_EQ(bt->group_id, 793);
    EXPECT_EQ(bt->graph_id, 1);
    EXPECT_EQ(bt->time_ms, 1700000000123);
    EXPECT_EQ(bt->mode, 2);
    EXPECT_EQ(bt->centroids, td_centroid_count(login.get()));
    EXPECT_EQ(bt->count, 100000);
    ASSERT_TRUE(bt->percentiles);
    expect_close(bt->percentiles->p50, td_value_at(login.get(), 0.5));
    expect_close(bt->percentiles->p90, td_value_at(login.get(), 0.9));
    expect_close(bt->percentiles->p99, td_value_at(login.get(), 0.99));
    expect_close(td_value_at(bt->digest.get(), 0.999), td_value_at(login.get(), 0.999));
    EXPECT_NE(zxref::describe(*bt).find("count 100000"), std::string::npos);

    // A vector separator of ',' leaves more header fields; the name keeps them.
    const auto all = zxref::decode_tdigest_record(records[2]);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->name, "T1,S1,A1,AllTransactions");
    ASSERT_TRUE(all->percentiles);
    // Whole milliseconds and float differences: exact.
    EXPECT_EQ(all->percentiles->p50, td_value_at(overall.get(), 0.5));
    EXPECT_EQ(all->percentiles->p99, td_value_at(overall.get(), 0.99));
  }
}

TEST(Record96Decode, PayloadsWithoutWeightsAndMalformedRecords) {
  td_histogram_ptr h(td_new(0.01, 100));
  for (double v : {10.0, 20.0, 30.0}) td_add(h.get(), v, 2);

  // Mode 1 carries the low half of each weight's bits: zero for whole weights.
  auto raw = zxref::decode_tdigest_record(
      records_of(kDataRequest + record96("login", 794, payload_of(h.get(), 1)), 64)[0]);
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->mode, 1);
  EXPECT_EQ(raw->group_id, 794);
  EXPECT_EQ(raw->centroids, 3);
  EXPECT_FALSE(raw->percentiles);
  EXPECT_NE(zxref::describe(*raw).find("no weights"), std::string::npos);

  td_histogram_ptr empty(td_new(0.01, 100));
  auto none = zxref::decode_tdigest_record(
      records_of(kDataRequest + record96("idle", 793, payload_of(empty.get(), 2)), 64)[0]);
  ASSERT_TRUE(none);
  EXPECT_EQ(none->centroids, 0);
  EXPECT_FALSE(none->percentiles);

  auto decode = [](const std::string &header, const std::string &payload) {
    const auto records = records_of(
        kDataRequest + header + std::to_string(payload.size()) + ",\n" + payload + "\n", 64);
    return records.size() == 1 ? zxref::decode_tdigest_record(records[0]) : std::nullopt;
  };
  const std::string good = payload_of(h.get(), 2);
  ASSERT_TRUE(decode("96,3|5|793|1:login,17,", good));
  EXPECT_FALSE(decode("96,3|5|793|1:login,17,", good.substr(0, good.size() - 1)));   // cut short
  EXPECT_FALSE(decode("96,3|5|793|1:login,17,", std::string(good.size(), '\x07')));  // not a digest
  EXPECT_FALSE(decode("96,3|5|793:login,17,", good));                                // no graph id
  EXPECT_FALSE(decode("96,3|5|793|1 login,17,", good));   // no ':' before the name
  EXPECT_FALSE(decode("96,3|5|793|1:login,t17,", good));  // time not a number
}

}  // namespace
