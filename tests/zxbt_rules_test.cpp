#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ZXDataDispatcher.h"
#include "ZXFileBasedKeywords.h"
#include "test_support.h"
#include "zxbt_rule_execute.h"
#include "zxbt_utils.h"

using zxtest::ScopedApp;
using zxtest::TempDir;

namespace {

// An agent home with the given rule and threshold files (none when empty),
// an application started the way start-up starts BT classification, and a
// send-buffer pool to read the records it sends.
class BTRules : public ::testing::Test {
 protected:
  void start(const std::string &rules, const std::string &thresholds = "") {
    if (!rules.empty()) home_.write("BTRuleFile.txt", rules);
    if (!thresholds.empty()) home_.write("BTThresholdFile.txt", thresholds);
    app_->allSlow = 3000;
    app_->allVerySlow = 5000;
    app_->maxStates = 128;
    app_->ZXSys.bciDataBufferMaxSize = 1 << 16;
    app_->ZXSys.dataBuffMaxCount = 4;
    ASSERT_EQ(buff_list_init(&*app_), 0);
    ASSERT_EQ(ZXBTConfigModelInit(*tlzxApplication), 0);
  }
  // Every record sent so far.
  std::string records() { return sent_ += zxtest::drain_records(*app_); }
  BTObject *bt(const char *url, const char *params = "", const char *header = nullptr,
               const char *method = "GET") {
    std::string h = header ? header : "";
    return get_obj_from_bt_name(*tlzxApplication, url, params, header ? h.data() : nullptr, nullptr,
                                method);
  }
  std::string name_of(const char *url, const char *params = "", const char *header = nullptr,
                      const char *method = "GET") {
    BTObject *o = bt(url, params, header, method);
    return o ? std::string(o->bt_name) + "#" + std::to_string(o->bt_id.load()) : "(none)";
  }
  const ZXBTRuleSet &rules() { return *app_->btRules.current.current_for_writer(); }
  void push(int index, const char *keyword, std::string text) {
    ZXFileBasedKeywords(*tlzxApplication, text.data(), const_cast<char *>(keyword), index);
  }

  TempDir home_;
  ScopedApp app_{home_.str()};
  std::string sent_;
};

TEST_F(BTRules, WithoutFilesTheDefaultGlobalRuleNamesByTwoSegmentsAndHeader) {
  start("");
  EXPECT_EQ(rules().bt_rule, 0);
  EXPECT_EQ(name_of("/a/b/c"), "/a/b#2");
  EXPECT_EQ(name_of("/a/b/d"), "/a/b#2") << "same name, same object";
  EXPECT_EQ(name_of("/a/b/c", "", "X=1&CustomeHeader=v1&Y=2"), "/a/b.v1#3");
  EXPECT_EQ(name_of("/a/b/c", "", "CustomeHeader=v1"), "/a/b#2") << "no '&' after it: no value";
  EXPECT_EQ(records(), "7,2,/a/b\n7,3,/a/b.v1\n") << "record 7 once per BT";
}

TEST_F(BTRules, PatternFamilyFromRuleTextToObjectsAndSlots) {
  start(
      "5|200\n"
      "7|Short|9|0|/v\n"  // five fields: rejected
      "7|Login|5|0|/app/login|0\n"
      "7|Admin|6|1|/admin|0\n"
      "7|Static|8|0|/static/*|1\n"
      "7|Cart|300|4|/cart/*/add|0\n"
      "7|Mode1|10|0|/m|0|1|x\n"
      "7|Mode3|11|0|/n|0|3|x\n"  // mode 3 needs nine fields
      "1|1|n|d|-|-|-|-|-\n");
  EXPECT_EQ(rules().bt_rule, 7);
  EXPECT_EQ(app_->maxStates, 200);
  EXPECT_FALSE(rules().global_rule) << "a pattern rule keeps the global line unread";

  EXPECT_EQ(name_of("/app/login"), "Login#5");
  EXPECT_EQ(name_of("/app/login", "a=1"), "Login#5") << "a final match ignores the query";
  EXPECT_EQ(name_of("/adminx/y"), "Admin#6") << "immediate";
  EXPECT_EQ(bt("/static/logo.png"), nullptr) << "exclusion";
  EXPECT_EQ(name_of("/unknown"), "Others#1");
  EXPECT_EQ(name_of("/v"), "Others#1");
  EXPECT_EQ(name_of("/mAAxB"), "Mode1#10") << "/m*x*";
  EXPECT_EQ(name_of("/n"), "Others#1");

  // Id 300 grew the slot array to the first multiple of 257 above it.
  EXPECT_EQ(app_->btMonitor.aggDataArraySize.load(), 514);
  EXPECT_EQ(name_of("/cart/9/add"), "Cart#300");
  EXPECT_EQ(find_bt_obj_in_manager_map(*tlzxApplication, "Login"), bt("/app/login"));
  EXPECT_EQ(find_bt_obj_in_manager_map(*tlzxApplication, "Static"), nullptr)
      << "exclusions make no BT";
  // Others, Login, Admin, Cart and Mode1 were made; ids from 2 up count.
  EXPECT_EQ(app_->btManager.config.total_bt_count.load(), 5);
  EXPECT_EQ(records(), "") << "no test run: records wait for run-time naming";
}

TEST_F(BTRules, GlobalRuleNamingSources) {
  ZXBTRuleSet set;
  char name[ZXBT_NAME_SIZE];
  auto run = [&](const char *line, const char *uri, const char *params = nullptr,
                 const char *method = nullptr, const char *header = nullptr) {
    EXPECT_EQ(parse_global_rule(set, line), 0);
    const char *r = zxbt_execute_global_rule(*tlzxApplication, set, uri, params, method, header,
                                             name, sizeof name);
    return std::string(r ? r : "(null)");
  };
  EXPECT_EQ(run("1|2|n|d|FromFirst|2|Request-Method|-|-", "/shop/cart/add", nullptr, "POST"),
            "/shop/cart.POST");
  EXPECT_EQ(run("1|2|n|d|FromLast|1|-|-|-", "/a/b/c"), "/c");
  EXPECT_EQ(run("1|2|n|d|FromLast|2|-|-|-", "/a/b/c"), "/b/c");
  EXPECT_EQ(run("1|1|n|d|-|-|Request-Parameter-Value|id|-", "/a/b", "x=1&id=42&y=2"), "/a/b.42");
  EXPECT_EQ(run("1|1|n|d|-|-|Request-Parameter-Value|id|-", "/a/b", "id=7"), "/a/b.7");
  EXPECT_EQ(run("1|1|n|d|-|-|Request-Parameter-Value|id|-", "/a/b", "xid=7"), "/a/b");
  EXPECT_EQ(run("1|1|n|d|-|-|Request-Header|h|-", "/a", nullptr, nullptr, "v"), "/a.v");
  EXPECT_EQ(run("1|2|n|d|FromFirst|3|Request-URI-Segments-Numbers|1%2C3|-", "/a/b/c/d"), "/a/c");
  EXPECT_EQ(run("1|2|n|d|FromFirst|3|Request-URI-Segments-Numbers|1%2C9|-", "/a/b/c/d"), "/a");
  EXPECT_EQ(run("1|2|n|d|FromFirst|3|Request-URI-Segments-Numbers|-|-", "/a/b/c"), "/a/b");
  EXPECT_EQ(run("1|9|n|d|-|-|-|-|-", "/a"), "(null)") << "unknown rule mode names nothing";
  // Eight fields: the default line instead.
  EXPECT_EQ(parse_global_rule(set, "1|1|n|d|-|-|Request-Method|-"), 0);
  EXPECT_EQ(set.global_rule->seg_type, ZXBT_SEG_HEADER);
  EXPECT_STREQ(set.global_rule->header, "CustomeHeader");
  // Over-long texts are cut, never overrun.
  std::string big = "1|1|n|d|-|-|Request-Parameter-Value|" + std::string(600, 'p') + "|-";
  EXPECT_EQ(parse_global_rule(set, big.c_str()), 0);
  EXPECT_EQ(std::strlen(set.global_rule->parameter), 256u);
  std::string uri = "/" + std::string(10000, 'u');
  EXPECT_EQ(run("1|1|n|d|-|-|-|-|-", uri.c_str()).size(), 255u);
}

TEST_F(BTRules, KeywordFamilyFromRuleTextToObjects) {
  start(
      "2|2|r1|Pay|-|1|1|[input1=contains&input2=pay]|-\n"
      "2|2|r2|Payment|-|1|1|[ input1 = contains & input2 = payment ]|-\n"
      "2|2|r3|Bad|-|1|1|[input1=contains&bogus=1]|-\n"
      "2|2|r4|Short|-|1|1\n"
      "2|1|r5|Gets|-|1|0|GET|-\n"
      "2|1|r6|Fetch|-|1|0|FETCH|-\n"
      "2|3|r7|Param|-|1|0|[input1=x&input2=id&input3=EQUALS&input4=7]|-\n"
      "2|3|r8|Has|-|1|0|[input1=checkForExistance&input2=tok]|-\n"
      "2|9|r9|Mode|-|1|0|[x=y]|-\n");
  const ZXBTCustomRule &cr = rules().custom_rule;
  EXPECT_EQ(cr.match_only_uri_count, 3);
  EXPECT_EQ(cr.match_only_param_count, 2u);
  ASSERT_TRUE(cr.matchingURIParamObj[0]);
  EXPECT_STREQ(cr.matchingURIParamObj[0]->parameterName, "id");
  EXPECT_EQ(cr.matchingURIParamObj[0]->parameterOperation, ZXBT_OP_EQUALS);
  EXPECT_STREQ(cr.matchingURIParamObj[0]->parameterValue, "7");
  EXPECT_EQ(cr.matchingURIParamObj[1]->checkExistence, 1);
  EXPECT_EQ(cr.setEnabled, 1);

  EXPECT_EQ(name_of("/x/payment"), "Payment#2") << "both match; the later end wins";
  EXPECT_EQ(name_of("/x/pay/now"), "Pay#3");
  EXPECT_EQ(name_of("payx"), "others#4") << "contains never holds at the very start";
  EXPECT_EQ(name_of("/x/payment"), "Payment#2");
  EXPECT_EQ(records(), "7,2,Payment\n7,3,Pay\n7,4,others\n");
}

TEST_F(BTRules, ThresholdsAndCategories) {
  start("7|Login|5|0|/login|0\n",
        "# defaults\n"
        "ALL|100|200\n"
        "all|4000|4000\n"  // slow not below very slow
        "ALL|0|10\n"
        "ALL|1|2|3\n"
        "Login|10|20\n");  // read before the rule that gives Login its id
  BTObject *others = find_bt_obj_in_manager_map(*tlzxApplication, "Others");
  BTObject *login = bt("/login");
  ASSERT_TRUE(others && login);
  EXPECT_EQ(app_->allSlow, 100);
  EXPECT_EQ(app_->allVerySlow, 200);
  EXPECT_EQ(others->bt_threshold.slow.load(), 100);
  EXPECT_EQ(login->bt_threshold.very_slow.load(), 200);

  push(1, "BTTConfig", "Login|10|20\nall|300|400\n");
  EXPECT_EQ(login->bt_threshold.slow.load(), 10);
  EXPECT_EQ(login->bt_threshold.very_slow.load(), 20);
  EXPECT_EQ(others->bt_threshold.slow.load(), 100) << "ALL does not revise existing BTs";
  EXPECT_EQ(app_->allSlow, 300);

  auto category = [&](int ms, int status, char *captured = nullptr) {
    return findCategoryOfBT(*tlzxApplication, login->bt_threshold, ms, status, captured);
  };
  EXPECT_EQ(category(9, 200), ZXBT_CATEGORY_NORMAL);
  EXPECT_EQ(category(10, 200), ZXBT_CATEGORY_SLOW);
  EXPECT_EQ(category(19, 200), ZXBT_CATEGORY_SLOW);
  EXPECT_EQ(category(20, 200), ZXBT_CATEGORY_VERY_SLOW);
  EXPECT_EQ(category(1, 500), ZXBT_CATEGORY_NORMAL) << "no error table yet";

  push(2, "BTErrorRules", "# failing codes\n500|F\n502-504|F\n503|-\nbad\n700|F\n");
  EXPECT_EQ(category(1, 500), ZXBT_CATEGORY_ERROR);
  EXPECT_EQ(category(1, 502), ZXBT_CATEGORY_ERROR);
  EXPECT_EQ(category(1, 503), ZXBT_CATEGORY_NORMAL) << "later line wins";
  EXPECT_EQ(category(99, 504), ZXBT_CATEGORY_ERROR);
  EXPECT_EQ(category(1, 700), ZXBT_CATEGORY_NORMAL);
  EXPECT_EQ(category(1, -1), ZXBT_CATEGORY_NORMAL);
  push(2, "BTErrorRules", "404|F\n");
  EXPECT_EQ(category(1, 500), ZXBT_CATEGORY_NORMAL) << "a read replaces";

  app_->ZXSys.captureMethodForAllFP = 1;
  app_->ZXSys.bciInstrSessionPct = 0;
  char captured = 1;
  EXPECT_EQ(category(1, 200, &captured), ZXBT_CATEGORY_NONE);
  EXPECT_EQ(captured, 0);
  captured = 1;
  EXPECT_EQ(category(15, 200, &captured), ZXBT_CATEGORY_SLOW);
  EXPECT_EQ(captured, 1);
}

TEST_F(BTRules, TwoHundredFiftySixIdsThenOthers) {
  start("1|1|n|d|-|-|-|-|-\n");  // whole URI
  ASSERT_EQ(rules().bt_rule, 1);
  for (int i = 2; i <= 256; ++i) {
    std::string url = "/u" + std::to_string(i);
    BTObject *o = bt(url.c_str());
    ASSERT_TRUE(o);
    ASSERT_EQ(o->bt_id.load(), i);
  }
  char name[ZXBT_NAME_SIZE] = "/u257";
  BTObject *o = updateBTObject(*tlzxApplication, name);
  ASSERT_TRUE(o);
  EXPECT_EQ(o->bt_id.load(), 1);
  EXPECT_STREQ(name, "Others");
  EXPECT_EQ(bt("/u258"), o);
  EXPECT_EQ(bt("/u2")->bt_id.load(), 2) << "existing names keep their ids";
  EXPECT_EQ(app_->btManager.config.total_bt_count.load(), 256);
  const std::string r = records();
  EXPECT_EQ(std::count(r.begin(), r.end(), '\n'), 256);
  EXPECT_NE(r.find("7,256,/u256\n7,1,Others\n"), std::string::npos);
  EXPECT_EQ(btMonitorSlot(app_->btMonitor, 256)->tlBTObj.load(), bt("/u256"));
}

TEST_F(BTRules, RuntimeReloadSwitchesFamiliesAndKeepsWhatCarriesOver) {
  start("4|3\n7|Users|2|0|/v1/users|0\n2|2|r|K|-|1|1|[input1=endswith&input2=.do]|-\n");
  EXPECT_EQ(app_->skipCount, 3);
  EXPECT_EQ(name_of("/users"), "Users#2") << "the stored pattern lost its first three characters";
  EXPECT_FALSE(rules().zx_trie_node) << "no keyword automaton beside pattern rules";
  app_->isRunTime = 1;

  push(0, "BTRuleConfig", "1|1|n|d|-|-|-|-|-\n");
  EXPECT_EQ(rules().bt_rule, 1);
  EXPECT_EQ(name_of("/a/x.do"), "others#3")
      << "once keyword rules were read they name requests, here without an automaton";
  push(0, "BTRuleConfig", "2|2|r|Z|-|1|1|[input1=startswith&input2=/z]|-\n");
  EXPECT_EQ(rules().bt_rule, 0) << "no pattern or global line in the new text";
  EXPECT_EQ(rules().custom_rule.keyword_count, 2u) << "keyword rules add up over reloads";
  EXPECT_EQ(name_of("/a/x.do"), "K#4");
  EXPECT_EQ(name_of("/zz"), "Z#5");
  push(0, "BTRuleConfig", "");
  EXPECT_EQ(name_of("/zz"), "Z#5") << "an empty push leaves keyword rules in force";

  // File mode: the pushed value is a path.
  app_->ZXBCISetting.fileBasedKeywordMode = 1;
  const std::string path = home_.write("pushed.txt", "4|0\n7|Other|7|0|/o|0\n").string();
  push(0, "BTRuleConfig", path);
  EXPECT_EQ(name_of("/o"), "Other#7");
  push(0, "BTRuleConfig", home_.str() + "/missing.txt");
  EXPECT_EQ(rules().bt_rule, 0);
}

TEST_F(BTRules, HostileRuleFilesCostBoundedWork) {
  std::string text = "5|2000000000\n4|-7\n7|" + std::string(2000, 'x') + "\n";
  text += "7|-|-|-|-|-|-|-|-|-|-|-|-|-|-\n7|n|abc|2|/p|0\n7|Huge|2147483647|0|/h|0\n";
  text += "7|Neg|-99999999999999|0|/neg|0\n7|Zero|0|0|/zero|0\n";
  text += std::string("7|Bin|12|0|/b\x01\xff|0\n2|3|r|B|-|1|1|\x80\x81|-\n1|\x90\n");
  for (int i = 0; i < 2000; ++i)
    text += "7|P" + std::to_string(i) + "|" + std::to_string(20 + i % 200) + "|0|/p" +
            std::to_string(i) + "/" + std::string(40, 'a' + i % 26) + "|0\n";
  for (int i = 0; i < 5000; ++i)
    text += "2|2|r|K|-|1|1|[input1=contains&input2=k" + std::to_string(i) + "]|-\n";
  start(text);
  EXPECT_EQ(app_->maxStates, ZXBT_MAX_STATES_HINT);
  EXPECT_EQ(rules().bt_rule, 7);
  EXPECT_EQ(name_of("/p"), "Others#1") << "a non-numeric id is 0, which the automaton ignores";
  EXPECT_EQ(bt("/h"), nullptr) << "an id beyond the slot array names no object";
  EXPECT_EQ(name_of("/neg"), "Others#1");
  EXPECT_EQ(name_of(("/p1999/" + std::string(40, 'a' + 1999 % 26)).c_str()), "P1999#219");
  EXPECT_LE(rules().custom_rule.keyword_count, ZXLB_LEXICON_MAX);
  EXPECT_EQ(app_->btMonitor.aggDataArraySize.load(), 257);

  const std::string long_url = "/p1/" + std::string(10 * 1024, 'a');
  EXPECT_EQ(name_of(long_url.c_str()), "Others#1");
  EXPECT_EQ(name_of("/p\xc3\xa9"), "Others#1");
  EXPECT_EQ(name_of(""), "Others#1");
  EXPECT_EQ(bt(nullptr, nullptr), find_bt_obj_in_manager_map(*tlzxApplication, "Others"));
}

TEST(BTRuleText, LinesAreCutNeverOverrun) {
  const std::string text = std::string(2000, 'a') + "\r\nb\n\nc";
  const char *pos = text.c_str();
  char line[ZXBT_LINE_SIZE];
  std::vector<std::string> lines;
  while (getNextLine(line, sizeof line, &pos)) lines.emplace_back(line);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].size(), 1023u);
  EXPECT_EQ(lines[1], "b");
  EXPECT_EQ(lines[2], "");
  EXPECT_EQ(lines[3], "c");
  EXPECT_EQ(pos, nullptr);

  EXPECT_EQ(getOperationType("containsXYZ"), ZXBT_OP_CONTAINS);
  EXPECT_EQ(getOperationType("equals"), ZXBT_OP_EQUALS);
  EXPECT_EQ(getOperationType("INLIST"), ZXBT_OP_IN_LIST);
  EXPECT_EQ(getOperationType("start"), ZXBT_OP_INVALID);
  EXPECT_EQ(getHTTPMethodValue("delete"), 3);
  EXPECT_EQ(getHTTPMethodValue("GETX"), static_cast<char>(255));
  EXPECT_EQ(zxbt_parse_int("99999999999"), 2147483647);
  EXPECT_EQ(zxbt_parse_int("-99999999999"), -2147483647 - 1);
  EXPECT_EQ(zxbt_parse_int("x1"), 0);

  TempDir dir;
  std::string big(100000, 'z');
  std::string read;
  EXPECT_EQ(getLineFromFile(dir.write("big.txt", big).c_str(), read), 0);
  EXPECT_EQ(read, big) << "read whole, not into a fixed buffer";
  EXPECT_EQ(getLineFromFile((dir.str() + "/none").c_str(), read), -1);
  EXPECT_TRUE(read.empty());
}

// A reload publishes a new rule set while other threads classify: each
// lookup sees one whole set, old or new, and nothing is freed under it.
TEST_F(BTRules, ReloadWhileOtherThreadsClassify) {
  const std::string pattern_rules = "7|Alpha|2|0|/alpha|0\n7|Beta|3|0|/beta/*|0\n";
  const std::string global_rules = "1|2|n|d|FromFirst|1|Request-Method|-|-\n";
  start(pattern_rules);
  app_->isRunTime = 1;
  std::atomic<bool> stop{false};
  std::atomic<long> lookups{0};
  std::atomic<int> unexpected{0};
  auto classify = [&] {
    const std::set<std::string> names = {"Alpha", "Beta", "Others", "/alpha.GET", "/beta.GET"};
    while (!stop.load()) {
      for (const char *url : {"/alpha", "/beta/x"}) {
        BTObject *o = bt(url);
        if (!o || !names.count(o->bt_name)) unexpected.fetch_add(1);
        lookups.fetch_add(1);
      }
    }
  };
  std::thread a(classify), b(classify);
  for (int i = 0; i < 40; ++i) {
    push(0, "BTRuleConfig", i % 2 ? pattern_rules : global_rules);
    push(1, "BTTConfig", "Alpha|10|20\n");
  }
  ASSERT_TRUE(zxtest::wait_until([&] { return lookups.load() > 2000; }));
  stop = true;
  a.join();
  b.join();
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(rules().bt_rule, 7);
}

}  // namespace
