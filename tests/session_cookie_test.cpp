// Session cookies: both parsers against valid and hostile values, the
// capture decision through a session's life, the enableZXSession value, and
// percent-decoding.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "Server.h"
#include "ZXFeatureKeywords.h"
#include "ZXPerThreadData.h"
#include "ZXSessionCookie.h"
#include "test_support.h"

namespace {

constexpr long long kNow = 1'700'000'000'000;

TEST(SessionCookie, ParsersAcceptOnlyInRangeFieldsAndClearOnReject) {
  auto r = std::make_unique<ZXPerThreadData_t>();
  ASSERT_EQ(parseZXCookieStr(r.get(), "\"0009223372036854775807:2147483646:17\""), 1);
  EXPECT_EQ(r->zxSessionId, 9223372036854775807LL);
  EXPECT_EQ(r->totalFpcount, 2147483646);
  EXPECT_EQ(r->prev_fp_start_time, 17);
  for (const char *bad : {"", "42:7", "42:7:1:1", "0:7:1", "-42:7:1", " 42:7:1", "42::1",
                          "9223372036854775808:1:1", "1:2147483647:1", "\"42:7:1", "\""}) {
    r->zxSessionId = r->prev_fp_start_time = r->totalFpcount = 99;
    EXPECT_EQ(parseZXCookieStr(r.get(), bad), 0) << bad;
    // A reused slot must not keep the previous request's session.
    EXPECT_EQ(r->zxSessionId + r->totalFpcount + r->prev_fp_start_time, 0) << bad;
  }
  EXPECT_EQ(parseZXCookieStr(r.get(), (std::string(200, '0') + "1:1:1").c_str()), 0);

  ASSERT_EQ(parseRBCookieStr(r.get(), "000000000000000012345:3:1699999999000"), 1);
  EXPECT_EQ(r->morSID, 12345);
  EXPECT_EQ(r->ZXPageID, 3);
  EXPECT_EQ(r->last_fptimestamp_from_cookie, 1699999999000);
  EXPECT_EQ(parseRBCookieStr(r.get(), "12345:3"), 0);
  EXPECT_EQ(r->morSID + r->ZXPageID + r->last_fptimestamp_from_cookie, 0);

  r->zxSessionId = 777, r->totalFpcount = 5;
  char buf[64];
  ASSERT_EQ(zx_format_zx_cookie(r.get(), kNow, buf, sizeof buf), 19u);
  EXPECT_STREQ(buf, "777:5:1700000000000");
  EXPECT_EQ(zx_format_zx_cookie(r.get(), kNow, buf, 8), 0u);
  EXPECT_STREQ(buf, "");
}

class CaptureDecision : public ::testing::Test {
 protected:
  // A session id whose sampling answer at pct is `wanted`.
  static long long sessionWith(bool wanted, int pct) {
    for (long long id = 1;; ++id)
      if (zx_session_instrumented(id, pct) == wanted) return id;
  }
  void decide(long long id, int count, long long lastMs, int pct, long long now = kNow) {
    const std::string c =
        std::to_string(id) + ":" + std::to_string(count) + ":" + std::to_string(lastMs);
    r_->tlIsFPCaptured = 0;
    zx_decide_capture_ex(s_, pct, r_.get(), c.c_str(), now);
  }
  ZXSessionSettings_t s_{1, 0, 0};
  std::unique_ptr<ZXPerThreadData_t> r_ = std::make_unique<ZXPerThreadData_t>();
};

TEST_F(CaptureDecision, NewSessionsAreCapturedContinuedOnesBySamplingOrForce) {
  zx_decide_capture_ex(s_, 0, r_.get(), "garbage", kNow);
  EXPECT_EQ(r_->tlIsFPCaptured, 1);
  EXPECT_GT(r_->zxSessionId, 0);
  EXPECT_EQ(r_->totalFpcount, 1);

  const long long in = sessionWith(true, 30), out = sessionWith(false, 30);
  decide(in, 2, kNow - 1000, 30);
  EXPECT_EQ(r_->tlIsFPCaptured, 1);
  EXPECT_EQ(r_->zxSessionId, in);
  EXPECT_EQ(r_->totalFpcount, 3);
  EXPECT_EQ(r_->prev_fp_start_time, kNow - 1000);
  decide(out, 2, kNow - 1000, 30);
  EXPECT_EQ(r_->tlIsFPCaptured, 0);
  EXPECT_EQ(r_->zxSessionId, out);
  r_->tlIsForceDump = 1;
  decide(out, 2, kNow - 1000, 30);
  EXPECT_EQ(r_->tlIsFPCaptured, 1);

  s_.enabled = 0;
  decide(out, 2, kNow, 0);
  EXPECT_EQ(r_->tlIsFPCaptured, 1);
  EXPECT_EQ(r_->zxSessionId, 0);
}

TEST_F(CaptureDecision, CountAndIdleLimitsStartANewCapturedSession) {
  s_.maxFPCountInSession = 3;
  s_.zxSessionIdleTimeOutSecs = 60;
  const long long id = sessionWith(false, 50);
  decide(id, 2, kNow - 59'999, 50);  // the third, just short of idle
  EXPECT_EQ(r_->zxSessionId, id);
  EXPECT_EQ(r_->tlIsFPCaptured, 0);
  for (auto [count, last] : {std::pair{3, kNow}, std::pair{1, kNow - 60'000}}) {
    decide(id, count, last, 50);
    EXPECT_NE(r_->zxSessionId, id);
    EXPECT_EQ(r_->totalFpcount, 1);
    EXPECT_EQ(r_->prev_fp_start_time, 0);
    EXPECT_EQ(r_->tlIsFPCaptured, 1);
  }
  // A cookie time ahead of the clock is no idle time, and must not overflow.
  decide(id, 1, 9223372036854775807LL, 50, 5);
  EXPECT_EQ(r_->zxSessionId, id);
}

TEST(SessionIds, UniquePositiveAndSampledNearThePercentage) {
  std::set<long long> ids;
  for (int i = 0; i < 20000; ++i) ids.insert(zx_new_session_id(kNow));
  EXPECT_EQ(ids.size(), 20000u);
  EXPECT_GT(*ids.begin(), 0);
  EXPECT_GT(zx_new_session_id(-1), 0);
  int sampled = 0;
  for (long long id : ids) sampled += zx_session_instrumented(id, 30);
  EXPECT_NEAR(sampled, 6000, 600);
}

TEST(SessionSettings, KeywordValueIsAppliedWholeOrNotAtAll) {
  zxtest::ScopedApp app;
  char keyword[] = "enableZXSession", good[] = "1%2010%2030", bad[] = "1%20ten";
  parseEnableZXSession(*tlzxApplication, good, keyword, NameToIndex(keyword));
  parseEnableZXSession(*tlzxApplication, bad, keyword, NameToIndex(keyword));
  EXPECT_STREQ(featureKeywordValue(*tlzxApplication, keyword), "1%20ten");
  const ZXSessionSettings_t s = zx_session_settings(*tlzxApplication);
  EXPECT_EQ(s.enabled, 1);
  EXPECT_EQ(s.maxFPCountInSession, 10);
  EXPECT_EQ(s.zxSessionIdleTimeOutSecs, 30);

  ZXSessionSettings_t t;
  ASSERT_TRUE(zx_parse_session_settings("2 5%20%20", &t).ok());
  EXPECT_EQ(t.enabled + t.maxFPCountInSession + t.zxSessionIdleTimeOutSecs, 6);
  for (const char *v : {"", "%20", "1%20-5", "1%2010x", "1%2099999999999", "1%21"})
    EXPECT_EQ(zx_parse_session_settings(v, &t), zx::Errc::bad_input) << v;
}

std::string unescape(const char *in, std::size_t size = 2048) {
  std::string out(size, '\x7f');
  const std::size_t n = zx_unescape_url(in, out.data(), size);
  EXPECT_EQ(out[n], '\0');
  return out.substr(0, n);
}

TEST(UnescapeUrl, DecodesPlusOnlyInQueryKeepsBadEscapesAndCutsAtTheBuffer) {
  EXPECT_EQ(unescape("/a%20b/c%2Fd%2f"), "/a b/c/d/");
  // '+' is data in a path, and a decoded '?' does not start the query.
  EXPECT_EQ(unescape("/a+b%3Fc+d?q=x+y&r=%2B"), "/a+b?c+d?q=x y&r=+");
  EXPECT_EQ(unescape("%G1%1G%%41%4"), "%G1%1G%A%4");
  EXPECT_EQ(unescape("a%00b"), "a%00b");
  EXPECT_EQ(unescape(nullptr), "");
  EXPECT_EQ(unescape("%41%42%43", 3), "AB");
  EXPECT_EQ(unescape(std::string(5000, 'x').c_str()).size(), 2047u);
}

}  // namespace
