// The keyword lexicon: the keywords of the keyword ("custom") BT rules, each
// with the BT name it assigns, its priority and where in the URL it must
// stand. The keyword automaton is built over it and reports matches by
// lexicon index.
//
// The rule reader adds to it on its own thread; request threads only read
// the entries through the automaton. Entries are never removed while the agent
// runs, and an index, once given, keeps its keyword. The lexicon belongs to
// its rule set (ZXBTCustomRule::dictionary), so a new rule set can be filled
// aside without touching the one in use.
#pragma once

#include <atomic>

struct ZXBTCustomRule;

inline constexpr int ZXLB_KEYWORD_SIZE = 256;
inline constexpr int ZXLB_BT_NAME_SIZE = 128;
inline constexpr int ZXLB_LEXICON_INITIAL = 20;
// Keyword rules add to the lexicon on every reload and nothing removes
// entries, so its size is bounded here; add_to_lexicon refuses past it.
inline constexpr unsigned int ZXLB_LEXICON_MAX = 4096;

// Where a keyword must stand; the operation codes of the keyword rules. Any
// other value (0 for method and parameter-name keywords, the codes 5 to 7)
// is stored but never matches.
enum : char {
  ZXLB_MATCH_STARTS_WITH = 1,
  ZXLB_MATCH_ENDS_WITH = 2,
  ZXLB_MATCH_CONTAINS = 3,  // anywhere but at the very start
  ZXLB_MATCH_EQUALS = 4,
};

struct ZXLBKeywordLexicon {
  char keyword[ZXLB_KEYWORD_SIZE];
  char bt_name[ZXLB_BT_NAME_SIZE];
  char match_constraint;
  unsigned int priority;  // higher wins
  unsigned int elements_len;
};

// Sum of the lengths of every keyword ever added, in any lexicon; never
// reduced. Sizes the keyword automaton. Process-wide, so the rule readers of
// several applications update it at once.
extern std::atomic<unsigned int> all_keyword_len;
// The entries of the lexicon built or grown last; null before the first and
// once that lexicon is freed. Informational: lookups go through their rule
// set, never through it.
extern std::atomic<ZXLBKeywordLexicon *> DictionaryHeadPointer;

// A fresh lexicon of 20 empty entries with keyword_count 0. 0, or -1 when
// memory is short (the rule set is then left as it was).
int zxlb_build_lexicon(ZXBTCustomRule *rule);

// Stores a keyword at index keyword_count, building the lexicon first if
// there is none. Texts longer than their fields are cut; a null bt_name is
// stored empty. The 21st keyword lifts keyword_count from 20 to 41: it stands
// at index 20, followed by 20 empty entries that never match; indexes, and
// so the order that breaks ties between keywords, stay what they have always
// been. -1 for a null rule or keyword or a failed growth.
int add_to_lexicon(ZXBTCustomRule *rule, const char *keyword, unsigned int priority,
                   const char *bt_name, char match_constraint);

// Frees the entries; keyword_count becomes 0. all_keyword_len keeps its value.
void dealloc_lexicon(ZXBTCustomRule *rule);
