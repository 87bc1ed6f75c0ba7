// The keyword rule set and its keyword automaton: an Aho-Corasick matcher
// that finds every lexicon keyword occurring in a URL in one left-to-right
// pass, keeps the occurrences whose position constraint holds and names the
// BT of the best one: highest priority, then the later end, then the higher
// lexicon index.
//
// The rule reader fills the lexicon and builds the automaton once per rule
// file; request threads search it at transaction start without a lock. A
// search never allocates, never copies the URL and changes nothing. The
// automaton and the rule set are plain values with no hidden process state
// on the search path, so a reload can build a new pair aside and publish it
// whole.
//
// Keywords "he" (index 0, contains) and "she" (index 1, starts with), goto
// edges drawn, failure links listed:
//
//   (0) -h-> (1) -e-> (2){he}
//    |
//    +--s-> (3) -h-> (4) -e-> (5){she}        f(4) = 1, f(5) = 2
//
// Every state knows, per constraint, the best keyword that ends in it: its
// own ones, and through its failure chain those that end in a suffix of its
// path (state 5 reports "she" and "he"). Keywords are known by rank, their
// (priority, index) order, so "best" is a plain maximum. A keyword that can
// never match (empty, constraint other than 1 to 4, a byte outside the
// alphabet) has no path and no rank.
//
// The search takes one table read per byte, and splits longer URLs among up
// to four walks whose reads overlap:
//   - while the text so far is a path from the root (depth = bytes read),
//     "starts with" keywords of the state itself hold, and so do "contains"
//     keywords of its suffixes; at the last byte "equals" and "ends with";
//   - after that the state can no longer be the prefix, so its whole
//     "contains" output holds. States with one are numbered last: a single
//     compare finds them. At the last byte, "ends with".
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "zxlb_keyword_lexicon.h"

// The matched alphabet: characters 32 (blank) to 126 ("~"). Any other byte
// of a URL sends the search back to the root.
inline constexpr int ZXLB_ALPHABET_FIRST = 32;
inline constexpr int ZXLB_ALPHABET_SIZE = 95;
// all_keyword_len only grows across reloads and a lexicon holds up to 4,096
// keywords of 255 bytes; the automaton never takes more than this many
// states (at most 128 MB of rows), and a build that needs more fails.
inline constexpr unsigned int ZXLB_TRIE_MAX_STATES = 1u << 18;

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

// A keyword that can match, as the automaton was built with it.
struct zxlbRankedKeyword {
  unsigned int priority;
  unsigned int index;  // into the lexicon
  unsigned int len;
  char match_constraint;
};

// The best keyword (a rank, 0 = none) that holds in a state, by constraint.
struct zxlbStateOutput {
  std::uint16_t contains_all;     // own or ending in a suffix state
  std::uint16_t contains_suffix;  // ending in a suffix state only
  std::uint16_t ends_all;         // own or ending in a suffix state
  std::uint16_t starts_own;
  std::uint16_t equals_own;
  std::uint8_t depth;  // length of the state's path
};

struct zxlbTrie {
  unsigned int total_states = 0;  // states made; every per-state array has this many
  // A row has 1 << row_shift entries, one per symbol class (padded).
  unsigned int row_shift = 0;
  unsigned int max_depth = 0;  // the longest keyword's length
  // Entry (see childrens) of the first state with a "contains" output; all
  // later states have one too.
  std::uint32_t contains_from = 0;
  // Byte to symbol class; class 0 (bytes of no keyword, and all outside the
  // alphabet) leads every state back to the root.
  std::array<std::uint8_t, 256> symbol_class{};
  // childrens[(s << row_shift) + class]: the state after s on that class, as
  // the byte offset of its row, s << (row_shift + 2); the next read is then
  // one load from an address that the byte alone decides plus the entry.
  // Complete: missing goto edges hold where the failure function leads, so a
  // search reads one entry per byte.
  std::vector<std::uint32_t> childrens;
  std::vector<zxlbStateOutput> out_func;  // per state
  std::vector<int> f_func;                // failure function, per state; the root's is -1
  // Keywords whose text is the path of state s, by rank:
  // own_rank[own_first[s] .. own_first[s + 1]).
  std::vector<std::uint32_t> own_first;
  std::vector<std::uint16_t> own_rank;
  std::vector<zxlbRankedKeyword> ranked;  // by rank, ascending (priority, index); [0] unused
};

// Builds the automaton over the rule set's lexicon: 0, or -1 (the automaton
// is left empty).
int zxlb_init_automaton(zxlbTrie *trie_node, ZXBTCustomRule *rule);

// As zxlb_init_automaton, returning the number of states made, or -1.
int create_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule);

// The state after reading nextInput in currentState (0 for a state that
// does not exist).
int find_next_state(const zxlbTrie *trie_node, int currentState, char nextInput);

// The bt_name of the winning keyword in the NUL-terminated `input`, or null:
// the highest priority among the keywords that occur where their constraint
// allows; among equal priorities the occurrence that ends later, and at the
// same end the higher lexicon index. Priority 0 still beats no match. Only
// the keywords present when the automaton was built are found; `rule` must
// be the rule set it was built from (or one grown from it).
const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule);
// The same with the BT trace level given (request paths pass their
// application's).
const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule, int trace);

// The same answer by walking every state's failure chain and testing every
// keyword that ends there, each test traced at the detail levels;
// search_match_machine takes this way when those traces are on.
const char *search_match_machine_exhaustive(const char *input, const zxlbTrie *trie_node,
                                            const ZXBTCustomRule *rule);

// 1 when keyword dictionary_idx, found at start_index, stands where its
// constraint requires in a text of in_str_len bytes; else 0.
int check_for_match_constraint(const ZXBTCustomRule *rule, int dictionary_idx, int start_index,
                               int in_str_len);

// Frees the automaton (total_states 0) and, when there is one, the lexicon.
void dealloc_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule);
