#include "zxlb_utiles.h"

#include <apr_time.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(SearchKeyword, CaseInsensitivePrefixWithValue) {
  char line1[] = "TierName=shop";
  EXPECT_STREQ(search_keyword(line1, "tier"), "shop") << "a prefix test claims longer names";
  char line2[] = "zxcHost=";
  EXPECT_EQ(search_keyword(line2, "zxcHost"), nullptr) << "empty value";
  char line3[] = "zxcHost";
  EXPECT_EQ(search_keyword(line3, "zxcHost"), nullptr) << "no '='";
  char line4[] = "zxcPort=1=2";
  EXPECT_STREQ(search_keyword(line4, "ZXCPORT"), "1=2");
  char line5[] = "port=1";
  EXPECT_EQ(search_keyword(line5, "zxcPort"), nullptr);
  EXPECT_EQ(search_keyword(nullptr, "x"), nullptr);
}

TEST(SplitKeyValue, SplitsAtFirstSeparatorAndBoundsTheKey) {
  char token[] = "key=a=b";
  char key[8] = "unset";
  EXPECT_STREQ(split_key_value(token, key, sizeof key), "a=b");
  EXPECT_STREQ(key, "key");

  char longkey[] = "averyveryverylongkey=v";
  EXPECT_STREQ(split_key_value(longkey, key, sizeof key), "v");
  EXPECT_STREQ(key, "averyve");

  char nosep[] = "novalue";
  strcpy(key, "same");
  EXPECT_EQ(split_key_value(nosep, key, sizeof key), nullptr);
  EXPECT_STREQ(key, "same") << "untouched without a separator";

  char hostport[] = "host:7892";
  char host[16];
  EXPECT_STREQ(split_key_value_colon(hostport, host, sizeof host), "7892");
  EXPECT_STREQ(host, "host");
  strcpy(host, "same");
  char nocolon[] = "host";
  EXPECT_EQ(split_key_value_colon(nocolon, host, sizeof host), nullptr);
  EXPECT_STREQ(host, "same");
  EXPECT_EQ(split_key_value_colon(nullptr, host, sizeof host), nullptr);
}

TEST(Tokens, SkipsRunsAndStopsAtTheLimit) {
  std::string text = ";;a;b;;c;";
  char *tokens[8];
  ASSERT_EQ(zxlb_get_tokens_with_multi_delimiter(text.data(), tokens, 8, ";"), 3);
  EXPECT_STREQ(tokens[0], "a");
  EXPECT_STREQ(tokens[2], "c");

  std::string many = "1,2|3,4|5";
  ASSERT_EQ(zxlb_get_tokens_with_multi_delimiter(many.data(), tokens, 3, ",|"), 3);
  EXPECT_STREQ(tokens[2], "3") << "the token at the limit is cut at its own end";

  std::string empty = ";;;";
  EXPECT_EQ(zxlb_get_tokens_with_multi_delimiter(empty.data(), tokens, 8, ";"), 0);
}

TEST(Time, MillisecondsSinceEpoch) {
  const long long before = apr_time_as_msec(apr_time_now());
  long long ms = my_gettimeofday();
  const long long after = apr_time_as_msec(apr_time_now());
  EXPECT_GT(ms, 1700000000000LL);
  EXPECT_LT(ms, 4102444800000LL);
  EXPECT_LE(before, ms) << "the same wall clock, truncated to the millisecond";
  EXPECT_LE(ms, after);
}

}  // namespace
