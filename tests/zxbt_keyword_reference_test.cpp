// Keyword classification against a plain scan: every keyword looked for
// with std::string::find, each occurrence tested for its position, and the
// winner chosen by priority, then the later end, then the later keyword.
// Rule sets of any size, built straight into the lexicon or read from rule
// files, on seeded random URLs that often hold keywords.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "zx_bt_custom_rule.h"
#include "zxbt_rule_execute.h"

namespace {

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
  ZXBTCustomRule rule;
  for (std::size_t j = 0; j < keywords.size(); ++j) {
    const Keyword &k = keywords[j];
    ASSERT_EQ(
        add_to_lexicon(&rule, k.text.c_str(), k.priority, std::to_string(j).c_str(), k.constraint),
        0);
  }
  zxlbTrie trie;
  ASSERT_GT(create_match_machine(&trie, &rule), 0);
  for (int q = 0; q < urls; ++q) {
    const std::string url = g.url(keywords, max_filler);
    const char *got = search_match_machine(url.c_str(), &trie, &rule);
    const char *all = search_match_machine_exhaustive(url.c_str(), &trie, &rule);
    const int want = reference(keywords, url);
    const std::string name = want < 0 ? "<none>" : std::to_string(want);
    ASSERT_EQ(got ? got : "<none>", name) << "url '" << url << "' with " << keywords.size();
    ASSERT_EQ(all ? all : "<none>", name) << "url '" << url << "', every keyword tested";
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
