// The keyword rule set and its keyword automaton: an Aho-Corasick matcher
// that finds every lexicon keyword occurring in a URL in one left-to-right
// pass, keeps the occurrences whose position constraint holds and names the
// BT of the one with the highest priority.
//
// The rule reader fills the lexicon and builds the automaton once per rule
// file; request threads search it at transaction start without a lock. A
// search never allocates, never copies the URL and changes nothing. The
// automaton and the rule set are plain values with no hidden process state
// on the search path, so a reload can build a new pair aside and publish it
// whole.
//
// Keywords "he" (index 0) and "she" (index 1), goto edges drawn, failure
// links listed:
//
//   (0) -h-> (1) -e-> (2){bit 0}
//    |
//    +--s-> (3) -h-> (4) -e-> (5){bits 1|0}      f(4) = 1, f(5) = 2
//
// State 5 carries both bits: its failure state 2 ends "he" too. Output bits
// are the lexicon index mod 32, so keywords j and j + 32 share a bit: an
// occurrence of either reports both, and each is then tested with its own
// length and constraint.
#pragma once

#include <array>
#include <bitset>
#include <memory>
#include <vector>

#include "zxbt/zxlb_keyword_lexicon.h"

// The matched alphabet: characters 32 (blank) to 126 ("~"). Any other byte
// of a URL sends the search back to the root.
inline constexpr int ZXLB_ALPHABET_FIRST = 32;
inline constexpr int ZXLB_ALPHABET_SIZE = 95;
inline constexpr unsigned int ZXLB_TRIE_DEFAULT_STATES = 256;
// all_keyword_len only grows across reloads; the automaton never takes more
// than this many states (128 MB of rows), and a build that needs more fails.
inline constexpr unsigned int ZXLB_TRIE_MAX_STATES = 1u << 18;
// A row holds the 95 symbols padded to 128 entries, so that a search finds
// the next row with a shift instead of a multiply on its load-to-load chain.
inline constexpr int ZXLB_TRIE_ROW = 128;
using zxlbTrieRow = std::array<int, ZXLB_TRIE_ROW>;

inline constexpr int ZXBT_MAX_PARAM_RULES = 256;

// One request-parameter condition of a keyword rule.
struct URIParamObject {
  char parameterName[256] = {};
  char checkExistence = 0;
  char parameterValue[256] = {};
  char parameterOperation = 0;
};

// The keyword rule set (one per published rule set).
struct ZXBTCustomRule {
  char chkExistence = 0;
  char activateReversCondition = 0;  // 1 = the URI condition is reversed
  char setEnabled = 0;               // 1 = keyword rules enabled
  char UriOperationType = 0;
  char matchHttpMethod = 0;  // GET 0, POST 1, PUT 2, DELETE 3
  char HTTPMethod[64] = {};
  char rule_name[128] = {};
  char setRuleName[256] = {};  // BT name that the rule assigns
  char MatchUriValue[256] = {};
  int rule_mode = 0;  // 1 = HTTP method, 2 = URI, 3 = request parameter; 0 = none read
  int match_only_uri_count = 0;
  unsigned int match_only_param_count = 0;
  unsigned int priority = 0;
  // Entries in use; the lexicon may hold more (empty) entries.
  unsigned int keyword_count = 0;
  std::vector<ZXLBKeywordLexicon> dictionary;
  // Parameter conditions by parameter rule; immutable once made, so a rule
  // set built aside shares them with the one it was copied from.
  std::array<std::shared_ptr<const URIParamObject>, ZXBT_MAX_PARAM_RULES> matchingURIParamObj;

  ZXBTCustomRule() = default;
  ZXBTCustomRule(const ZXBTCustomRule &) = delete;
  ZXBTCustomRule &operator=(const ZXBTCustomRule &) = delete;
  ~ZXBTCustomRule();  // clears DictionaryHeadPointer when it names this lexicon
};

// Keywords that can ever match (constraint 1 to 4), best first: priority
// down, then index down.
struct zxlbRankedKeyword {
  unsigned int priority;
  unsigned int index;
  unsigned int len;
  char match_constraint;
};

// What one distinct out_func value can match, summed up so that a search
// skips a position where no member keyword's constraint can hold.
struct zxlbMatchClass {
  zxlbRankedKeyword top{};  // the best member: where it holds, it wins
  unsigned int bits = 0;
  unsigned int min_contains_len = ~0u;  // a "contains" holds from this end index on
  bool has_ends_with = false;
  std::bitset<ZXLB_KEYWORD_SIZE> starts_with_len;  // holds where end index + 1 is one
  std::bitset<ZXLB_KEYWORD_SIZE> equals_len;       // holds where the text length is one
};

struct zxlbTrie {
  // Capacity in states: the size of childrens, out_func and f_func alike.
  unsigned int total_states = 0;
  // Goto function: childrens[s][c - 32] is the child of s on c, -1 = none.
  // Once built, every missing edge holds the state the failure function
  // leads to, so a search reads one entry per character.
  std::vector<zxlbTrieRow> childrens;
  std::vector<unsigned int> out_func;  // bit (k mod 32): keyword k ends here
  std::vector<int> f_func;             // failure function

  // Derived from the above and the lexicon as it was built. Past 20
  // keywords the empty entries put bits on the root, so most states report
  // a hundred candidates or more; testing them best first and stopping at
  // the first that holds keeps a search to a few tests per character.
  std::vector<zxlbRankedKeyword> ranked;
  std::vector<zxlbMatchClass> classes;  // [0]: nothing can match
  std::vector<unsigned int> out_class;  // per state, into classes
  unsigned int built_keyword_count = 0;
};

// Builds the automaton over the rule set's lexicon: 0, or -1 (the automaton
// is left empty).
int zxlb_init_automaton(zxlbTrie *trie_node, ZXBTCustomRule *rule);

// As zxlb_init_automaton, returning the number of states made, or -1.
int create_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule);

// The state after reading nextInput in currentState, following failure links.
int find_next_state(const zxlbTrie *trie_node, int currentState, char nextInput);

// The bt_name of the winning keyword in the NUL-terminated `input`, or null.
// Among equal priorities the occurrence that ends later wins, and at the same
// end the higher lexicon index; priority 0 still beats no match. Searched
// with the rule set it was built from; keywords added since are still seen.
const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule);

// The same answer by testing every keyword of every reported bit, each test
// traced at the detail levels; search_match_machine takes this way when
// those traces are on or the lexicon grew after the build.
const char *search_match_machine_exhaustive(const char *input, const zxlbTrie *trie_node,
                                            const ZXBTCustomRule *rule);

// 1 when keyword dictionary_idx, found at start_index, stands where its
// constraint requires in a text of in_str_len bytes; else 0.
int check_for_match_constraint(const ZXBTCustomRule *rule, int dictionary_idx, int start_index,
                               int in_str_len);

// Frees the automaton (total_states 0) and, when there is one, the lexicon.
void dealloc_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule);
