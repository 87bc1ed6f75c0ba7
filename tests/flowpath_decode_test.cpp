// The collector's reading of a run: flowpath blobs and records back into call
// trees, and records 74/96 into the per-BT table.

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bt_table.h"
#include "collector_protocol.h"
#include "flowpath_decode.h"
#include "run_summary.h"
#include "tdigest/tdigest.h"

namespace {

using zxref::BlobEntry;
using Type = zxref::BlobEntry::Type;

zxref::Record rec(const std::string &line) {
  auto r = zxref::parse_record(line);
  EXPECT_TRUE(r) << line;
  return r ? *r : zxref::Record{};
}

// Every field of an entry, so that one comparison covers them all.
std::string show(const BlobEntry &e) {
  std::ostringstream o;
  o << static_cast<int>(e.type) << " m" << e.method_id << " t" << e.thread_id << " ms" << e.ms
    << " ev" << e.event << " cpu" << e.cpu << " seq" << e.seq << " page" << e.page_id
    << (e.async ? " async " + e.url : "") << (e.error ? " error" : "") << " kind" << e.kind
    << " res" << e.resource << " at" << e.start_ms << " status" << e.status << " url"
    << e.resource_url;
  return o.str();
}

// Expected entries name only the fields their form sets; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

TEST(FlowpathBlob, ReadsEveryEntryFormAndSkipsMalformedPieces) {
  using enum Type;
  // clang-format off
  const std::pair<const char *, BlobEntry> forms[] = {
      {"1:77_0_0__", {.method_id = 1, .thread_id = 77}},
      {"9_0_5_3_", {.method_id = 9, .ms = 5, .page_id = 3}},  // page id, no thread
      {"4:77:1:/a_b:c_0_6__",  // async; its URL holds '_' and ':'
       {.method_id = 4, .thread_id = 77, .ms = 6, .async = true, .url = "/a_b:c"}},
      {"4:77_1_2____", {.type = Exit, .method_id = 4, .thread_id = 77, .ms = 2, .event = 1}},
      {"6:77_3_8_120___",  // with cpu
       {.type = Exit, .method_id = 6, .thread_id = 77, .ms = 8, .event = 3, .cpu = 120}},
      {"6:77_1:12_9____",  // with a sequence number
       {.type = Exit, .method_id = 6, .thread_id = 77, .ms = 9, .event = 1, .seq = 12}},
      {"T3:6:35:10:4:12_",  // database call-out
       {.type = CallOut, .method_id = 6, .ms = 35, .seq = 3, .kind = 10, .resource = 4,
        .start_ms = 12}},
      {"E4:8:300:1:0:50:503:7_",  // failed HTTP call-out with its URL's id
       {.type = CallOut, .method_id = 8, .ms = 300, .seq = 4, .error = true, .kind = 1,
        .start_ms = 50, .status = 503, .resource_url = 7}},
      {"T5:8:20:1:0:60:2_",
       {.type = CallOut, .method_id = 8, .ms = 20, .seq = 5, .kind = 1, .start_ms = 60,
        .resource_url = 2}},
  };
  // clang-format on
  std::string blob;
  for (const auto &[text, want] : forms) blob += text;
  const auto parsed = zxref::parse_blob(blob);  // all forms in one blob
  EXPECT_EQ(parsed.skipped, 0u);
  ASSERT_EQ(parsed.entries.size(), std::size(forms));
  for (std::size_t i = 0; i < std::size(forms); ++i)
    EXPECT_EQ(show(parsed.entries[i]), show(forms[i].second)) << forms[i].first;

  // Malformed pieces are skipped and the rest read: a lost separator,
  // garbage, a call-out short of fields, an overflowing id.
  const auto skipped = zxref::parse_blob(
      "1:5_0_0_2:5_0_1__xx_T1:2:3_99999999999999999999:5_0_1__3:5_0_2__3:5_1_1____");
  ASSERT_GE(skipped.entries.size(), 3u);
  EXPECT_GT(skipped.skipped, 0u);
  EXPECT_EQ(skipped.entries[0].method_id, 1);
  EXPECT_EQ(skipped.entries[1].method_id, 2) << "the entry behind a lost '_' survives";
  EXPECT_EQ(skipped.entries.back().type, Type::Exit);
  EXPECT_EQ(skipped.entries.back().method_id, 3);

  for (const char *bad : {"", "_", "__", "T", "E1:2:3:4:5:6_", "5:1:1:", "5:1:1:/x_0_", "5:1_0_",
                          "5:1_9_1____", "-:1_0_1__", "5:1_1:x_1____", "4:77:2:u_0_1__"}) {
    const auto p = zxref::parse_blob(bad);
    for (const auto &entry : p.entries) EXPECT_EQ(entry.type, Type::Entry) << bad;
  }
}

TEST(FlowpathTree, NestsMethodsAndPlacesCallOuts) {
  // Begin > Cart.load > orders-db (a backend whose exit brings its call-out),
  // a call-out of Cart.load itself, a method without an exit closed by its
  // caller's, and a stray exit.
  const auto parsed = zxref::parse_blob(
      "1:7_0_0__2:7_0_1__3:7_0_2__3:7_1_30____T1:3:30:10:4:2_T2:9:5:1:0:33_"
      "4:7_0_40__2:7_1_45____8:7_1_1____1:7_1_50____");
  ASSERT_EQ(parsed.skipped, 0u);
  const auto tree = zxref::build_call_tree(parsed.entries);
  ASSERT_EQ(tree.roots.size(), 1u);
  EXPECT_EQ(tree.unmatched_exits, 1u);
  const auto &begin = tree.roots[0];
  EXPECT_EQ(begin.wall_ms, 50);
  ASSERT_EQ(begin.children.size(), 1u);
  const auto &cart = begin.children[0];
  EXPECT_EQ(cart.wall_ms, 45);
  ASSERT_EQ(cart.children.size(), 2u);
  const auto &db = cart.children[0];
  ASSERT_EQ(db.callouts.size(), 1u) << "the backend's own call-out";
  EXPECT_EQ(db.callouts[0].kind, 10);
  ASSERT_EQ(cart.callouts.size(), 1u) << "a call-out of another backend stays with the caller";
  EXPECT_EQ(cart.callouts[0].method_id, 9);
  EXPECT_EQ(cart.children[1].wall_ms, -1) << "closed without an exit";

  // Nesting deeper than the limit is cut.
  std::string deep;
  for (int i = 0; i < 1000; ++i) deep += std::to_string(i) + ":1_0_" + std::to_string(i) + "__";
  EXPECT_EQ(zxref::build_call_tree(zxref::parse_blob(deep).entries).too_deep,
            1000 - zxref::kMaxCallDepth);
}

TEST(FlowpathRecords, HeaderForms) {
  auto h =
      zxref::parse_flowpath_header(rec("2,123,1700000000,42,42.1,3,/shop/cart?id=7,,0,0,0,,1,5"));
  ASSERT_TRUE(h);
  EXPECT_EQ(h->instance, 123);
  EXPECT_FALSE(h->forced);
  EXPECT_EQ(h->bt_id, 3);
  EXPECT_EQ(h->url, "/shop/cart?id=7");
  EXPECT_EQ(h->queue_ms, 5);

  h = zxref::parse_flowpath_header(
      rec("2,9F:4F:6F,1700000000,42,1_2.1,3,/a?x=1,2,corr,0,000000000000000000011,0,,1,0"));
  ASSERT_TRUE(h) << "chained, forced, a URL holding a comma";
  EXPECT_EQ(h->instance, 9);
  EXPECT_EQ(h->first_instance, 4);
  EXPECT_EQ(h->prev_instance, 6);
  EXPECT_TRUE(h->forced);
  EXPECT_EQ(h->url, "/a?x=1,2");
  EXPECT_EQ(h->correlation, "corr");

  for (const char *bad : {"2,1,2,3", "2,x,1,1,1.1,1,/u,,0,0,0,,1,0",
                          "2,1:2,1,1,1.1,1,/u,,0,0,0,,1,0", "3,1,1,1,1.1,1,/u,,0,0,0,,1,0"})
    EXPECT_FALSE(zxref::parse_flowpath_header(rec(bad))) << bad;
}

TEST(FlowpathRecords, StoreJoinsBlocksAndNames) {
  zxref::FlowpathStore store(2);
  EXPECT_TRUE(store.add(rec("5,Profiler.Morvane.BeginRequest,1")));
  EXPECT_TRUE(store.add(rec("5,Cart.load(int a;char b)void,2")));
  EXPECT_TRUE(store.add(rec("5,orders-db,3")));
  EXPECT_TRUE(store.add(rec("7,4,/shop/cart")));
  EXPECT_TRUE(store.add(rec("2,11F,1700000000,42,42.1,4,/shop/cart,,0,0,0,,1,0")));
  EXPECT_TRUE(store.add(rec("3,11F,1:42_0_0__2:42_0_1__")));
  EXPECT_TRUE(store.add(rec("3,11F,3:42_0_2__3:42_1_7____T1:3:7:10:5:2_")));
  EXPECT_EQ(store.open_count(), 1u);
  EXPECT_TRUE(store.add(rec("5,payments,9")));
  EXPECT_TRUE(
      store.add(rec("4,11F,500,13,0,812,4,1,E2:9:3:1:0:9:502_4:42_0_12__4:42_1_1____2:42_1_20____"
                    "1:42_1_812____")));
  EXPECT_EQ(store.open_count(), 0u);
  ASSERT_EQ(store.finished().size(), 1u);
  const zxref::Flowpath &fp = store.finished()[0];
  EXPECT_EQ(fp.status, 500);
  EXPECT_EQ(fp.resp_ms, 812);
  EXPECT_EQ(store.names().method(2), "Cart.load(int a;char b)void");
  EXPECT_EQ(store.names().bt(4), "/shop/cart");
  EXPECT_EQ(store.names().method(99), "method#99");

  const std::string text = zxref::render_flowpath(fp, store.names());
  EXPECT_NE(text.find("\n      Cart.load(int a;char b)void  +1 ms, 20 ms\n"
                      "        orders-db  +2 ms, 7 ms\n"
                      "          -> database, 7 ms at +2 ms, query #5\n"
                      "        -> HTTP payments, 3 ms at +9 ms, FAILED 502\n"
                      "        method#4  +12 ms, 1 ms\n"),
            std::string::npos)
      << "call-outs and calls in the order they ran:\n"
      << text;

  // A final block without its header still counts; past the limit only counting goes on.
  EXPECT_TRUE(store.add(rec("4,12,200,10,0,5,4,1,")));
  EXPECT_TRUE(store.add(rec("4,13,200,10,0,6,4,1,")));
  EXPECT_EQ(store.finished().size(), 2u);
  EXPECT_EQ(store.finished_count(), 3u);
  EXPECT_EQ(store.last_end().resp_ms, 6);

  for (const char *bad :
       {"4,1,200,10,0,5,4", "4,x,200,10,0,5,4,1,", "5,name", "5,name,x", "7,x,n", "3,1"})
    EXPECT_FALSE(store.add(rec(bad))) << bad;
  EXPECT_EQ(store.malformed(), 6u);
}

TEST(FlowpathRecords, ExamplesShowSlowestErrorThenOnePerBT) {
  // {bt, ms, status}; the slowest is discarded (-99): nothing to show.
  const int rows[][3] = {{1, 10, 200}, {1, 20, 200}, {2, 900, 200},
                         {2, 30, 500}, {3, 40, 200}, {1, 5000, -99}};
  std::vector<zxref::Flowpath> fps(6);
  for (int i = 0; i < 6; ++i) {
    fps[i].instance = i;
    fps[i].bt_id = rows[i][0];
    fps[i].resp_ms = rows[i][1];
    fps[i].status = rows[i][2];
  }
  std::vector<long long> picked;
  for (const auto *fp : zxref::pick_examples(fps, 4)) picked.push_back(fp->instance);
  EXPECT_EQ(picked, (std::vector<long long>{2, 3, 0, 4}));
}

// Record 74 as the monitor writes it: 40 values, the ones the table reads set.
std::string record74(const std::string &name, double avg, int count, int slow, int very_slow,
                     int errors) {
  std::vector<double> v(40, 0);
  v[1] = avg, v[4] = count, v[14] = slow, v[18] = very_slow, v[22] = errors;
  std::string line = "74,3|9|2:T>S>A>" + name + "|";
  for (double x : v) line += std::to_string(x) + " ";
  line.pop_back();
  return line;
}

zxref::Record record96(const std::string &name, std::initializer_list<double> points) {
  td_histogram_ptr h(td_new(0.01, 100));
  for (double p : points) td_add(h.get(), p, 1);
  std::vector<unsigned char> buf(1024);
  std::size_t size = 0;
  td_serialize(h.get(), 2, &buf, &size);
  auto r = rec("96,3|9|0|1:T>S>A>" + name + ",1700000000123," + std::to_string(size) + ",");
  r.payload.assign(reinterpret_cast<const char *>(buf.data()), size);
  return r;
}

TEST(BTTable, SumsIntervalsMergesDigestsAndRanksResponses) {
  zxref::BTTable table;
  EXPECT_TRUE(table.add(rec(record74("/shop/cart", 100, 4, 1, 0, 1))));
  EXPECT_TRUE(table.add(rec(record74("/shop/cart", 200, 6, 0, 2, 0))));
  EXPECT_TRUE(table.add(rec(record74("AllTransactions", 160, 10, 1, 2, 1))));
  EXPECT_FALSE(table.add(rec("74,3|9|2:T>S>A>x|1 2 3")));
  EXPECT_FALSE(table.add(rec("74,no bar")));

  EXPECT_TRUE(table.add(record96("/shop/cart", {10, 20})));
  EXPECT_TRUE(table.add(record96("/shop/cart", {30})));

  const zxref::BTRow &cart = table.rows().at("/shop/cart");
  EXPECT_EQ(cart.count, 10);
  EXPECT_DOUBLE_EQ(cart.duration_sum, 1600);
  EXPECT_EQ(cart.slow, 1);
  EXPECT_EQ(cart.very_slow, 2);
  EXPECT_EQ(cart.errors, 1);
  ASSERT_TRUE(cart.digest);
  EXPECT_DOUBLE_EQ(td_total_count(cart.digest.get()), 3);

  for (long long ms = 1; ms <= 100; ++ms) table.add_response(4, ms);
  const std::string text = table.render({{4, "/shop/cart"}});
  EXPECT_NE(text.find("  /shop/cart                10    160.0      1         2      1      20.0"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("  /shop/cart                 100        50        90        99       100"),
            std::string::npos)
      << text;
  EXPECT_LT(text.find("  /shop/cart "), text.find("  AllTransactions ")) << "the total comes last";
}

}  // namespace
