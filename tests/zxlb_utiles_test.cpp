#include "zxlb_utiles.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SearchKeyword, CaseInsensitivePrefixWithValue) {
  const struct {
    const char *line, *keyword, *value;  // value null: no match
  } cases[] = {
      {"TierName=shop", "tier", "shop"},  // a prefix test claims longer names
      {"zxcHost=", "zxcHost", nullptr},   // empty value
      {"zxcHost", "zxcHost", nullptr},    // no '='
      {"zxcPort=1=2", "ZXCPORT", "1=2"}, {"port=1", "zxcPort", nullptr},
  };
  for (const auto &c : cases) {
    std::string line = c.line;
    const char *got = search_keyword(line.data(), c.keyword);
    EXPECT_STREQ(got, c.value) << c.line;
  }
  EXPECT_EQ(search_keyword(nullptr, "x"), nullptr);
}

TEST(SplitKeyValue, SplitsAtFirstSeparatorBoundsTheKeyAndLeavesItAloneWithout) {
  char token[] = "key=a=b", longkey[] = "averyveryverylongkey=v", nosep[] = "novalue";
  char key[8] = "unset";
  EXPECT_STREQ(split_key_value(token, key, sizeof key), "a=b");
  EXPECT_STREQ(key, "key");
  EXPECT_STREQ(split_key_value(longkey, key, sizeof key), "v");
  EXPECT_STREQ(key, "averyve");
  EXPECT_EQ(split_key_value(nosep, key, sizeof key), nullptr);
  EXPECT_STREQ(key, "averyve");

  char hostport[] = "host:7892", nocolon[] = "host";
  char host[16];
  EXPECT_STREQ(split_key_value_colon(hostport, host, sizeof host), "7892");
  EXPECT_STREQ(host, "host");
  strcpy(host, "same");
  EXPECT_EQ(split_key_value_colon(nocolon, host, sizeof host), nullptr);
  EXPECT_EQ(split_key_value_colon(nullptr, host, sizeof host), nullptr);
  EXPECT_STREQ(host, "same");
}

TEST(Tokens, SkipsRunsAndStopsAtTheLimit) {
  std::string text = ";;a;b;;c;", many = "1,2|3,4|5", empty = ";;;";
  char *tokens[8];
  ASSERT_EQ(zxlb_get_tokens_with_multi_delimiter(text.data(), tokens, 8, ";"), 3);
  EXPECT_STREQ(tokens[0], "a");
  EXPECT_STREQ(tokens[2], "c");
  ASSERT_EQ(zxlb_get_tokens_with_multi_delimiter(many.data(), tokens, 3, ",|"), 3);
  EXPECT_STREQ(tokens[2], "3") << "the token at the limit is cut at its own end";
  EXPECT_EQ(zxlb_get_tokens_with_multi_delimiter(empty.data(), tokens, 8, ";"), 0);
}

}  // namespace
