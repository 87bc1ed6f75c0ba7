#include "zxlb_mt_log.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ZXProxyServerRecord.h"
#include "ZXWebSocketConnection.h"
#include "test_support.h"
#include "zx_agent_internal.h"

using zxtest::read_file;
using zxtest::ScopedApp;
using zxtest::ScopedTraceKey;
using zxtest::TempDir;

namespace {

constexpr char kHeader[] =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function|"
    "Severity|Message";

class TraceLogTest : public ::testing::Test {
 protected:
  TraceLogTest()
      : app_(home_.str()),
        key_(zxlb_init_mt_trace_log_ex(home_.str().c_str(), "trace.log", 1, 100)) {
    app_->ZXSys.zxBuild.assign("build-42");
  }
  std::string file(int i) const {
    return read_file(home_.path() / ("trace.log_" + std::to_string(i)));
  }
  bool exists(int i) const {
    return std::filesystem::exists(home_.path() / ("trace.log_" + std::to_string(i)));
  }
  void log(const char *msg) {
    zxlb_mt_trace_log(trace_log_key, nullptr, 0, "CONTROL_THREAD", "Info", "f.cpp", 12, "fn", "%s",
                      msg);
  }

  TempDir home_;
  ScopedApp app_;
  ScopedTraceKey key_;
};

TEST_F(TraceLogTest, LineFormatWithAndWithoutTestRun) {
  log("first");
  app_->Server.TestRunIDValue = 7;
  log("second");
  std::string text = file(0);

  // Column header, then the build line, then lines that each start with "\n".
  ASSERT_EQ(text.rfind(std::string(kHeader) + "\nbuild-42\n", 0), 0u) << text;
  time_t now = time(nullptr);
  struct tm tmv;
  localtime_r(&now, &tmv);
  char year[8];
  snprintf(year, sizeof year, "/%02d ", (tmv.tm_year + 1900) % 2000);
  EXPECT_NE(text.find(year), std::string::npos) << "year is taken modulo 2000";

  long long tid = syscall(SYS_gettid);
  std::string tail1 = "|******||" + std::to_string(tid) + "|CONTROL_THREAD|f.cpp|12|fn|Info|first";
  std::string tail2 = "|TR7||" + std::to_string(tid) + "|CONTROL_THREAD|f.cpp|12|fn|Info|second";
  EXPECT_NE(text.find(tail1), std::string::npos) << text;
  EXPECT_NE(text.find(tail2), std::string::npos) << text;
  EXPECT_EQ(text.back(), 'd') << "lines carry no trailing newline";
}

TEST_F(TraceLogTest, RollsOverBetweenTwoFiles) {
  std::string line(100, 'x');
  app_->ZXSys.traceMaxSize = 400;
  while (!exists(1)) log(line.c_str());
  // _0 reached the limit and stays; _1 starts with the column header.
  EXPECT_GE(file(0).size(), 400u);
  EXPECT_EQ(file(1).rfind(kHeader, 0), 0u);

  // Filling _1 deletes _0 and restarts it, header first.
  log("marker-in-1");
  while (file(1).size() < 400) log(line.c_str());
  log("marker-in-0");
  std::string zero = file(0);
  EXPECT_EQ(zero.rfind(kHeader, 0), 0u);
  EXPECT_NE(zero.find("marker-in-0"), std::string::npos);
  EXPECT_EQ(zero.find("marker-in-1"), std::string::npos);
  EXPECT_LT(zero.size(), 400u);
}

TEST_F(TraceLogTest, ModesZeroAndTwo) {
  app_->ZXSys.sendLogsToProxy = 0;
  log("silent");
  EXPECT_FALSE(exists(0)) << "an agent in mode 0 writes nothing, not even the file";

  ZXProxy.proxyServerFlag = 1;
  log("proxy writes");
  ZXProxy.proxyServerFlag = 0;
  EXPECT_NE(file(0).find("proxy writes"), std::string::npos);

  app_->ZXSys.sendLogsToProxy = 2;
  app_->ZXBCISetting.tierName.assign("T");
  app_->ZXBCISetting.appServerName.assign("S");
  app_->ZXBCISetting.appName.assign("A");
  log("one");
  log("two");
  std::string gathered = app_->agentLogBuffer.get();
  EXPECT_NE(gathered.find("|AGENT-LOG<T_S_A>|f.cpp|12|fn|Info|one"), std::string::npos) << gathered;
  EXPECT_LT(gathered.find("one"), gathered.find("two"));
  EXPECT_EQ(file(0).find("one"), std::string::npos);
}

TEST_F(TraceLogTest, OverLongMessagesAreCutNotDropped) {
  std::string big(200000, 'm');
  log(big.c_str());
  std::string text = file(0);
  size_t start = text.find("|Info|");
  ASSERT_NE(start, std::string::npos);
  EXPECT_EQ(text.size() - text.rfind('\n', start), static_cast<size_t>(ZX_TRACE_LINE_MAX - 1));

  // Mode 2 keeps at most a buffer's worth, and a full buffer drops new lines.
  app_->ZXSys.sendLogsToProxy = 2;
  log(big.c_str());
  log("after-full");
  std::string gathered = app_->agentLogBuffer.get();
  EXPECT_EQ(gathered.size(), static_cast<size_t>(ZX_TRACE_LINE_MAX - 1));
  EXPECT_EQ(gathered.find("after-full"), std::string::npos);
}

TEST_F(TraceLogTest, GatedVariantsFollowTheirOwnLevels) {
  struct Case {
    decltype(&zxlb_mt_trace_log_win) fn;
    zx::Relaxed<int> *level;
    const char *tag;
  };
  std::vector<Case> cases = {
      {zxlb_mt_trace_log_win, &app_->ZXSys.agentTraceLevel, "win"},
      {zxlb_mt_trace_log_win_hs, &app_->ZXSys.agentHSTraceLevel, "hs"},
      {zxlb_mt_trace_log_win_ad, &app_->ZXSys.agentADTraceLevel, "ad"},
      {zxlb_mt_trace_log_win_pc, &app_->ZXSys.agentPCTraceLevel, "pc"},
      {zxlb_mt_trace_log_win_ex, &app_->ZXSys.agentEXTraceLevel, "ex"},
      {zxlb_mt_trace_log_win_ai, &app_->zxAutoInstrumentation.autoInstrTraceLevel, "ai"},
      {zxlb_mt_trace_log_win_dd, &app_->ZXDynamicSettings.ddTraceLevel, "dd"},
  };
  // Gated lines ignore the log mode.
  app_->ZXSys.sendLogsToProxy = 0;
  for (auto &c : cases) {
    *c.level = 2;
    c.fn(3, nullptr, 0, "M", "Info", "f", 1, "fn", "%s-too-detailed", c.tag);
    c.fn(2, nullptr, 0, "M", "Info", "f", 1, "fn", "%s-written", c.tag);
    *c.level = 0;
  }
  zxlb_mt_trace_log_mem(0, nullptr, 0, "MEMORY", "Info", "f", 1, "fn", "mem-off");
  zx_mem_trace_level = 1;
  zxlb_mt_trace_log_mem(99, nullptr, 0, "MEMORY", "Info", "f", 1, "fn", "mem-on");
  zx_mem_trace_level = 0;

  std::string text = file(0);
  for (auto &c : cases) {
    EXPECT_NE(text.find(std::string(c.tag) + "-written"), std::string::npos) << c.tag;
    EXPECT_EQ(text.find(std::string(c.tag) + "-too-detailed"), std::string::npos) << c.tag;
  }
  EXPECT_EQ(text.find("mem-off"), std::string::npos);
  EXPECT_NE(text.find("mem-on"), std::string::npos);
}

TEST_F(TraceLogTest, MissingDirectoryIsRetriedOnTheNextLine) {
  TempDir other;
  auto dir = other.path() / "later";
  ScopedTraceKey key(zxlb_init_mt_trace_log_ex(dir.c_str(), "t.log", 1, 100));
  log("lost");
  std::filesystem::create_directories(dir);
  log("kept");
  std::string text = read_file(dir / "t.log_0");
  EXPECT_EQ(text.find("lost"), std::string::npos);
  EXPECT_NE(text.find("kept"), std::string::npos);
}

TEST_F(TraceLogTest, WebSocketLibraryLinesAreGatedByControlLevel) {
  lws_log(1, "always");
  lws_log(2, "warn-hidden");
  lws_log(16, "odd-level");
  app_->ZXSys.controlTraceLevel = 1;
  lws_log(2, "warn-shown");
  lws_log(4, "info-hidden");
  const std::string text = file(0);
  for (const char *shown : {"|WS|", "lws:always", "level:16 log:odd-level", "lws:warn-shown"})
    EXPECT_NE(text.find(shown), std::string::npos) << shown;
  for (const char *hidden : {"warn-hidden", "info-hidden"})
    EXPECT_EQ(text.find(hidden), std::string::npos) << hidden;
}

TEST(TraceLogNoKey, NullKeyAndNullNameAreHarmless) {
  ScopedApp app;
  EXPECT_EQ(zxlb_init_mt_trace_log_ex("/tmp", nullptr, 1, 100), nullptr);
  zxlb_mt_trace_log(nullptr, nullptr, 0, "M", "Info", "f", 1, "fn", "nothing");
  ZX_CTRL_LOG(0, "Info", "no key: %d", 1);
}

// Many writers across many roll-overs: every line lands whole in one file.
TEST_F(TraceLogTest, ConcurrentWritersKeepLinesWhole) {
  app_->ZXSys.traceMaxSize = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 300; ++i) {
        zxlb_mt_trace_log(trace_log_key, nullptr, 0, "M", "Info", "f", 1, "fn", "<%d:%d:%s>", t, i,
                          "payload-payload-payload");
      }
    });
  }
  for (auto &th : threads) th.join();
  for (int f = 0; f < 2; ++f) {
    std::string text = file(f);
    size_t pos = 0;
    while ((pos = text.find("|fn|Info|", pos)) != std::string::npos) {
      size_t end = text.find('\n', pos);
      std::string rest = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
      EXPECT_EQ(rest.back(), '>') << rest;
      ++pos;
    }
  }
}

}  // namespace
