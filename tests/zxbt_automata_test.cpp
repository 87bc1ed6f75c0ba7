#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "test_support.h"
#include "zx_bt_custom_rule.h"
#include "zxbt_rule_execute.h"
#include "zxlb_state_machine.h"

namespace {

// ---- Pattern automaton ----------------------------------------------------

class Patterns : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(zxlb_state_machine_init(&sm_, 0), 0); }
  int add(std::string_view p, int id, int match_type = 0, int skip = 0) {
    return zxlb_state_machine_add(&sm_, p.data(), static_cast<int>(p.size()), id, match_type, skip);
  }
  int get(std::string_view url) const {
    return zxlb_state_machine_get(&sm_, url.data(), static_cast<int>(url.size()), 0);
  }
  zxlbStateMachine sm_;
};

TEST_F(Patterns, EmptyFreedNullOrForeignBytesAnswerOthers) {
  EXPECT_EQ(get("/anything"), 1);
  zxlbStateMachine never_initialised;
  EXPECT_EQ(zxlb_state_machine_get(&never_initialised, "/a", 2, 0), 1);
  EXPECT_EQ(zxlb_state_machine_add(&never_initialised, "/a", 2, 2, 0, 0), -1);
  EXPECT_EQ(add("", 2), -1);
  ASSERT_EQ(add("/a", 2), 0);
  EXPECT_EQ(zxlb_state_machine_free(&sm_), 0);
  EXPECT_EQ(zxlb_state_machine_free(&sm_), 0) << "freeing twice is harmless";
  EXPECT_EQ(get("/a"), 1);

  ASSERT_EQ(zxlb_state_machine_init(&sm_, 0), 0);
  EXPECT_EQ(add("/a\x80", 2), -1);
  EXPECT_EQ(sm_.state_count, 3) << "states made before the bad byte stay";
  EXPECT_EQ(add("/b\x1f", 2), -1);
  ASSERT_EQ(add("/del\x7f", 16), 0) << "127 belongs to the pattern alphabet";
  EXPECT_EQ(get("/del\x7f"), 16);
  ASSERT_EQ(add("/big/*", 17), 0);
  const std::string url = "/big/" + std::string(10240, 'x');
  EXPECT_EQ(get(url), 17);
  EXPECT_EQ(get(url + "\xc3\xa9"), 1);
}

TEST_F(Patterns, FirstComeIdsImmediateFinalResultsAndSkipCount) {
  ASSERT_EQ(add("/a", 2), 0);
  EXPECT_EQ(add("/a", 3), 0) << "a duplicate is accepted but not recorded";
  EXPECT_EQ(get("/a"), 2);
  ASSERT_EQ(add("/long", 4), 0);
  ASSERT_EQ(add("/lo", 5), 0);
  EXPECT_EQ(get("/lo"), 1) << "a prefix of an earlier pattern creates no state";

  ASSERT_EQ(add("/ib", 6, 1), 0);
  ASSERT_EQ(add("/ibcd", 7, 1), 0);
  EXPECT_EQ(get("/ibc/d"), 6) << "returned as soon as 'b' is read";
  EXPECT_EQ(get("/ibcd"), 6) << "the shortest immediate on the path wins";

  ASSERT_EQ(add("/xy", 8), 0);
  EXPECT_EQ(get("/xyz"), 1) << "a final result needs the scan to end there";
  EXPECT_EQ(get("/xy?x=1"), 8) << "a final match ignores the query string";
  EXPECT_EQ(get("/x?y"), 1) << "'?' stops only on a state with a final result";
  ASSERT_EQ(add("/q?id=1", 9), 0);
  EXPECT_EQ(get("/q?id=1"), 9) << "a stored '?' is an ordinary transition";

  // A skip count leaves out the stored prefix only.
  ASSERT_EQ(add("/v1/users", 15, 0, 3), 0);
  EXPECT_EQ(get("/users"), 15);
  EXPECT_EQ(get("/v1/users"), 1);
  EXPECT_EQ(zxlb_state_machine_get(&sm_, "/users", 6, 3), 15) << "lookup skip count is ignored";
}

TEST_F(Patterns, WildcardsBackOffToTheLastOne) {
  ASSERT_EQ(add("/app/*/list", 5), 0);
  EXPECT_EQ(get("/app/x/y/list"), 5);
  EXPECT_EQ(get("/app/x/lisX"), 1);
  EXPECT_EQ(get("/app/x/list?a=1"), 5);
  EXPECT_EQ(get("/app/x/lis/list"), 5) << "a failed partial match backs off and retries";
  ASSERT_EQ(add("/a/*/b/*/c", 13), 0);
  EXPECT_EQ(get("/a/x/b/y/d/c"), 13) << "backing off to the first '*' would lose the '/b/'";

  ASSERT_EQ(add("/static/*", 12), 0);
  EXPECT_EQ(get("/static/css/site.css"), 12) << "a trailing '*' holds the id itself";
  EXPECT_EQ(get("/stat"), 1);
  ASSERT_EQ(add("*abc", 14), 0);
  EXPECT_EQ(get("xxabc"), 14) << "a wildcard root swallows leading characters";
  EXPECT_EQ(get("abxabc"), 1) << "but is never a back-off point";
}

TEST_F(Patterns, GrowsEveryRowPastItsInitialSize) {
  ASSERT_EQ(zxlb_state_machine_init(&sm_, 4), 0);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(add("/svc/" + std::to_string(i) + "/*", i + 2), 0);
  EXPECT_GT(sm_.state_count, 256);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(get("/svc/" + std::to_string(i) + "/op"), i + 2) << i;

  ASSERT_EQ(zxlb_state_machine_init(&sm_, 0), 0);
  ASSERT_EQ(add("/" + std::string(199, 'p'), 3), 0);
  EXPECT_EQ(sm_.max_state, 128 + 128 + 200) << "a pattern longer than the step adds its length";
}

// ---- Keyword lexicon and automaton ------------------------------------------

// One rule set with its automaton, built at the first search.
struct KeywordSet {
  void add(const char *kw, unsigned priority, const char *bt, char constraint) {
    ASSERT_EQ(add_to_lexicon(&rule, kw, priority, bt, constraint), 0);
  }
  std::string search(const std::string &url) {
    if (!built) {
      EXPECT_GT(create_match_machine(&trie, &rule), 0);
      built = true;
    }
    const char *bt = search_match_machine(url.c_str(), &trie, &rule);
    EXPECT_EQ(bt, search_match_machine_exhaustive(url.c_str(), &trie, &rule)) << url;
    return bt ? bt : "<none>";
  }
  ZXBTCustomRule rule;
  zxlbTrie trie;
  bool built = false;
};

std::string lone(const char *kw, char constraint, const std::string &url, unsigned priority = 1) {
  KeywordSet k;
  k.add(kw, priority, "K", constraint);
  return k.search(url);
}

TEST(Keywords, TwentyFirstKeywordJumpsTheCountAndEmptyEntriesMatchNothing) {
  EXPECT_EQ(lone("abc", ZXLB_MATCH_ENDS_WITH, "/xyz"), "<none>");
  EXPECT_EQ(DictionaryHeadPointer.load(), nullptr) << "forgotten with its rule set";
  KeywordSet k;
  const unsigned len_before = all_keyword_len;
  for (int i = 0; i < 20; ++i) {
    if (i == 9)
      k.add("abc", 9, "A", ZXLB_MATCH_ENDS_WITH);
    else
      k.add(("#" + std::to_string(i)).c_str(), 0, "F", 0);
  }
  k.add("twentyfirst", 1, "T", ZXLB_MATCH_CONTAINS);
  EXPECT_STREQ(k.rule.dictionary[20].keyword, "twentyfirst");
  EXPECT_EQ(k.rule.keyword_count, 41u);
  for (int i = 21; i <= 40; ++i) EXPECT_EQ(k.rule.dictionary[i].keyword[0], '\0') << i;
  k.add("xyz", 1, "X", ZXLB_MATCH_CONTAINS);
  EXPECT_STREQ(k.rule.dictionary[41].keyword, "xyz");
  for (int i = 0; i < 200; ++i) k.add("k", 0, "F", 0);
  k.add("", 7, "EMPTY", ZXLB_MATCH_CONTAINS);
  k.add("", 7, "EMPTY", ZXLB_MATCH_ENDS_WITH);
  EXPECT_EQ(k.rule.keyword_count, 244u);
  EXPECT_EQ(DictionaryHeadPointer.load(), k.rule.dictionary.data())
      << "follows the lexicon's growth";

  // Index 41 and "abc" (9) once shared an output bit, and the empty entries
  // put theirs on the root: neither may report a keyword that is not there.
  EXPECT_EQ(k.search("/xyz"), "X");
  EXPECT_EQ(k.search("/xyzabc"), "A");
  EXPECT_EQ(k.search("/a/twentyfirst/"), "T");
  EXPECT_EQ(k.search("/nothing/here"), "<none>") << "empty keywords occur nowhere";

  k.add(std::string(300, 'w').c_str(), 1, std::string(200, 'b').c_str(), ZXLB_MATCH_CONTAINS);
  EXPECT_EQ(k.rule.dictionary[244].elements_len, 255u) << "cut to the field";
  EXPECT_EQ(std::strlen(k.rule.dictionary[244].bt_name), 127u);
  EXPECT_EQ(k.search("/" + std::string(255, 'w')), "<none>") << "added after the build";
  EXPECT_EQ(k.search("/xyz/"), "X");
  dealloc_match_machine(&k.trie, &k.rule);
  EXPECT_EQ(k.trie.total_states + k.rule.keyword_count, 0u);
  EXPECT_EQ(DictionaryHeadPointer.load(), nullptr);
  EXPECT_EQ(search_match_machine("/xyz", &k.trie, &k.rule), nullptr);
  EXPECT_EQ(all_keyword_len - len_before, 48 + 3 + 11 + 3 + 200 + 255) << "never reduced";
}

TEST(Keywords, SharedPathsAndTheStateBound) {
  KeywordSet k;
  auto keyword = [](int j) { return static_cast<char>('A' + j) + std::string(20 + j, 'z'); };
  for (int j = 0; j < 20; ++j)
    k.add(keyword(j).c_str(), 1, std::to_string(j).c_str(), ZXLB_MATCH_EQUALS);
  k.add("zzz", 0, "Z", ZXLB_MATCH_CONTAINS);
  k.add("Azz", 1, "N", 0);
  ASSERT_EQ(create_match_machine(&k.trie, &k.rule), 1 + 20 * 21 + 190 + 3)
      << "paths shared, keywords that never match get none";
  k.built = true;
  EXPECT_EQ(k.trie.out_func.size() + k.trie.f_func.size(), 2 * k.trie.total_states);
  for (int j = 0; j < 20; ++j) EXPECT_EQ(k.search(keyword(j)), std::to_string(j));
  EXPECT_EQ(k.search("B" + std::string(19, 'z')), "Z");

  // More states than the bound: refused before the table is allocated.
  KeywordSet huge;
  std::mt19937 rng(3);
  for (unsigned j = 0; j < 1100; ++j) {  // about 1100 * 253 states
    std::string kw(255, ' ');
    for (char &c : kw) c = static_cast<char>('a' + rng() % 26);
    huge.add(kw.c_str(), 1, "H", ZXLB_MATCH_CONTAINS);
  }
  EXPECT_EQ(create_match_machine(&huge.trie, &huge.rule), -1);
  EXPECT_EQ(huge.trie.total_states, 0u);
  EXPECT_EQ(search_match_machine("/abc", &huge.trie, &huge.rule), nullptr);
}

TEST(Keywords, BytesOutsideTheAlphabetRestartAtTheRoot) {
  KeywordSet k;
  k.add("pay", 1, "P", ZXLB_MATCH_CONTAINS);
  k.add("p\x80y", 2, "BAD", ZXLB_MATCH_CONTAINS);
  k.add("/checkout", 1, "C", ZXLB_MATCH_ENDS_WITH);
  EXPECT_EQ(k.search("/pa\x80y"), "<none>");
  EXPECT_EQ(k.search("/pa\x7fy"), "<none>") << "127 is outside the keyword alphabet";
  EXPECT_EQ(k.search("/\xffpay"), "P");
  EXPECT_EQ(k.search("/p\x80y"), "<none>") << "such a keyword has no path";
  EXPECT_EQ(k.search(std::string(10240, 'q') + "/checkout"), "C");
  EXPECT_EQ(k.search(std::string(10240, '\xfe')), "<none>");
}

TEST(Keywords, BuildArgumentsAndTraces) {
  KeywordSet k;
  EXPECT_EQ(create_match_machine(&k.trie, nullptr), -1);
  EXPECT_EQ(search_match_machine("/x", &k.trie, &k.rule), nullptr) << "never built";
  EXPECT_EQ(add_to_lexicon(&k.rule, nullptr, 1, "N", 3), -1);

  // With detail traces on, every line formats cleanly and the answer holds.
  zxtest::ScopedApp app;
  zxtest::TempDir dir;
  zxtest::ScopedTraceKey key(zxlb_init_mt_trace_log_ex(dir.str().c_str(), "t.log", 1, 0));
  app->ZXSys.btMonitorTraceLevel = 4;
  k.add("pay", 1, "P", ZXLB_MATCH_CONTAINS);
  EXPECT_EQ(k.search("/pay\x80"), "P");
  EXPECT_EQ(k.search("/none"), "<none>");
  EXPECT_EQ(find_next_state(&k.trie, 2, 'y'), 3);
  EXPECT_NE(zxtest::read_file(dir.path() / "t.log_0").find("(null)"), std::string::npos)
      << "the traces were written, a missing answer among them";
}

// ---- Keyword automaton against a plain scan --------------------------------

// Keyword classification against a plain scan: every keyword looked for
// with std::string::find, each occurrence tested for its position, and the
// winner chosen by priority, then the later end, then the later keyword.
// Rule sets of any size, built straight into the lexicon or read from rule
// files, on seeded random URLs that often hold keywords.
struct Keyword {
  std::string text;
  unsigned priority;
  char constraint;
};

// Index into `keywords` of the winner for `url`, or -1.
int reference(const std::vector<Keyword> &keywords, const std::string &url) {
  int best = -1;
  unsigned best_priority = 0;
  std::size_t best_end = 0;
  for (std::size_t j = 0; j < keywords.size(); ++j) {
    const Keyword &k = keywords[j];
    if (k.text.empty()) continue;
    for (std::size_t at = url.find(k.text); at != std::string::npos;
         at = url.find(k.text, at + 1)) {
      const std::size_t end = at + k.text.size() - 1;
      const bool stands = k.constraint == ZXLB_MATCH_STARTS_WITH ? at == 0
                          : k.constraint == ZXLB_MATCH_ENDS_WITH ? end + 1 == url.size()
                          : k.constraint == ZXLB_MATCH_CONTAINS  ? at >= 1
                          : k.constraint == ZXLB_MATCH_EQUALS    ? k.text.size() == url.size()
                                                                 : false;
      if (!stands) continue;
      // j only grows, so at an equal end the later keyword wins.
      if (best < 0 || k.priority > best_priority ||
          (k.priority == best_priority && end >= best_end)) {
        best = static_cast<int>(j);
        best_priority = k.priority;
        best_end = end;
      }
    }
  }
  return best;
}

// Random keyword sets and URLs made of an alphabet's bytes; URLs often
// carry keywords at the start, the end, in the middle or as the whole text.
class Generator {
 public:
  Generator(unsigned seed, std::string alphabet) : rng_(seed), alphabet_(std::move(alphabet)) {}

  unsigned below(unsigned n) { return static_cast<unsigned>(rng_() % n); }
  std::string text(unsigned min_len, unsigned max_len) {
    std::string s(min_len + below(max_len - min_len + 1), ' ');
    for (char &c : s) c = alphabet_[below(static_cast<unsigned>(alphabet_.size()))];
    return s;
  }
  // Constraints 1 to 4, sometimes one that never matches (0, 5 to 7).
  std::vector<Keyword> keywords(unsigned n, unsigned min_len, unsigned max_len,
                                unsigned priorities) {
    std::vector<Keyword> out;
    for (unsigned j = 0; j < n; ++j) {
      std::string t = text(min_len, max_len);
      // Shared prefixes and keywords inside keywords make long failure chains.
      if (!out.empty() && below(3) == 0) {
        const std::string &other = out[below(static_cast<unsigned>(out.size()))].text;
        t = below(2) ? other.substr(0, 1 + below(static_cast<unsigned>(other.size()))) + t
                     : t.substr(0, below(static_cast<unsigned>(t.size()))) + other;
        if (t.size() > 255) t.resize(255);
      }
      const char constraint = below(10) == 0 ? static_cast<char>("\0\5\6\7"[below(4)])
                                             : static_cast<char>(1 + below(4));
      out.push_back({t, below(priorities), constraint});
    }
    return out;
  }
  std::string url(const std::vector<Keyword> &keywords, unsigned max_filler) {
    const std::string &some = keywords[below(static_cast<unsigned>(keywords.size()))].text;
    switch (below(6)) {
      case 0:
        return text(0, max_filler);
      case 1:
        return some;
      case 2:
        return some + text(0, max_filler);
      case 3:
        return text(0, max_filler) + some;
      default: {
        std::string u = text(0, max_filler);
        for (unsigned n = 1 + below(3); n > 0; --n)
          u.insert(below(static_cast<unsigned>(u.size()) + 1),
                   keywords[below(static_cast<unsigned>(keywords.size()))].text);
        return u;
      }
    }
  }

 private:
  std::mt19937 rng_;
  std::string alphabet_;
};

// Builds the automaton over `keywords` (BT name: the keyword's position)
// and checks `urls` URLs against the reference.
void check_lexicon(Generator &g, const std::vector<Keyword> &keywords, int urls,
                   unsigned max_filler) {
  KeywordSet set;  // its search holds the exhaustive search to the fast one
  for (std::size_t j = 0; j < keywords.size(); ++j)
    set.add(keywords[j].text.c_str(), keywords[j].priority, std::to_string(j).c_str(),
            keywords[j].constraint);
  for (int q = 0; q < urls && !::testing::Test::HasFailure(); ++q) {
    const std::string url = g.url(keywords, max_filler);
    const int want = reference(keywords, url);
    ASSERT_EQ(set.search(url), want < 0 ? "<none>" : std::to_string(want))
        << "url '" << url << "' with " << keywords.size();
  }
}

// A tiny alphabet, so that overlaps, shared prefixes, failure chains and the
// empty lexicon entries past the 20th keyword all occur often.
TEST(KeywordReference, SmallRuleSetsOverATinyAlphabet) {
  Generator g(7, "ab/");
  for (int round = 0; round < 400; ++round) {
    const auto keywords = g.keywords(1 + g.below(round % 2 ? 20 : 80), 1, 4, 3);
    check_lexicon(g, keywords, 25, 40);
  }
}

// Long URLs are searched in stretches, each walked from a little before its
// start; keywords longer than that lead-in, over two letters, often straddle
// a stretch's start and must still be found whole.
TEST(KeywordReference, LongKeywordsAcrossTheStretchesOfLongUrls) {
  Generator g(31, "ab");
  for (int round = 0; round < 60; ++round) {
    const auto keywords = g.keywords(1 + g.below(30), 6, round % 2 ? 24 : 70, 2);
    check_lexicon(g, keywords, 40, 400);
  }
}

TEST(KeywordReference, ThreeHundredKeywordsOnThousandsOfUrls) {
  Generator g(2024, "abcdefghijklmnopqrstuvwxyzABCXYZ0123456789/._-?=&%~ ");
  for (unsigned priorities : {1u, 5u, 1000u}) {
    const auto keywords = g.keywords(300, 1, 12, priorities);
    check_lexicon(g, keywords, 3000, 64);
  }
}

// The same through rule-file lines: URI keyword rules with every position
// operation the rules have, named by the keyword family.
TEST(KeywordReference, ThreeHundredKeywordRulesFromARuleFile) {
  zxtest::TempDir home;
  zxtest::ScopedApp app(home.str());
  Generator g(99, "abcxyz/.0123_-");
  const auto keywords = g.keywords(300, 1, 8, 4);
  static const char *const kOperation[] = {"-", "startswith", "endswith", "contains", "EQUALS"};
  std::string text;
  std::vector<Keyword> read;  // what the rules add, in their order
  for (std::size_t j = 0; j < keywords.size(); ++j) {
    const Keyword &k = keywords[j];
    if (k.constraint < ZXLB_MATCH_STARTS_WITH || k.constraint > ZXLB_MATCH_EQUALS) continue;
    text += "2|2|r" + std::to_string(j) + "|BT" + std::to_string(read.size()) + "|-|1|" +
            std::to_string(k.priority) + "|[input1=" + kOperation[static_cast<int>(k.constraint)] +
            "&input2=" + k.text + "]|-\n";
    read.push_back(k);
  }
  ASSERT_TRUE(zxbt_read_rule_file_ex(*tlzxApplication, text.c_str(), false).ok());
  ASSERT_GT(read.size(), 250u);
  char name[ZXBT_NAME_SIZE];
  for (int q = 0; q < 3000; ++q) {
    const std::string url = g.url(read, 40);
    ASSERT_TRUE(zxbt_execute_custom_rule(*tlzxApplication, url.c_str(), nullptr, nullptr, name,
                                         sizeof name));
    const int want = reference(read, url);
    ASSERT_EQ(std::string(name), want < 0 ? "others" : "BT" + std::to_string(want)) << url;
  }
}

}  // namespace
