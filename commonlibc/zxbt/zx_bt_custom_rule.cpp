#include "zxbt/zx_bt_custom_rule.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <unordered_map>

#include "ZXProxyInstance.h"
#include "zxlb_mt_log.h"

namespace {

int bt_trace_level() {
  return tlzxApplication ? tlzxApplication->ZXSys.btMonitorTraceLevel : 0;
}

#define ZXBT_LOG(level, above, severity, ...) \
  ZX_LOG_IF((level) > (above), "BT_MON", severity, __VA_ARGS__)

constexpr zxlbTrieRow kNoChildren = [] {
  zxlbTrieRow row{};
  row.fill(-1);
  return row;
}();

// Symbol of a byte, or -1 outside the alphabet.
inline int symbol_of(char c) {
  const int s = static_cast<unsigned char>(c) - ZXLB_ALPHABET_FIRST;
  return s >= 0 && s < ZXLB_ALPHABET_SIZE ? s : -1;
}

// A byte outside the alphabet has no transition anywhere, so the match
// restarts at the root. The root row is complete, which ends every chain
// (and a built automaton has no missing edge at all).
inline int next_state(const zxlbTrie &t, int state, char c) {
  const int a = symbol_of(c);
  if (a < 0) return 0;
  while (t.childrens[state][a] == -1) state = t.f_func[state];
  return t.childrens[state][a];
}

// Grows all three arrays to `states` together. Reports which one failed, as
// the trace has always told the two apart.
bool grow_states(zxlbTrie &t, unsigned int states, int trace) {
  try {
    t.childrens.resize(states, kNoChildren);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(static_cast<long long>(states) * sizeof(kNoChildren), "keyword automaton rows",
               t.childrens.size());
    ZXBT_LOG(trace, 0, "Error",
             "Unable to allocate memory to children to trie, freeing earlier allocated spaces");
    return false;
  }
  try {
    t.out_func.resize(states, 0);
    t.f_func.resize(states, -1);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(static_cast<long long>(states) * sizeof(int), "keyword automaton outputs",
               t.out_func.size());
    ZXBT_LOG(trace, 0, "Error", "Unable to allocate space to out_func");
    return false;
  }
  t.total_states = states;
  return true;
}

// Goto function over the whole lexicon. -1 when memory is short.
int build_goto(zxlbTrie &t, const ZXBTCustomRule &rule, int trace) {
  // Never 0, so a growth always makes room.
  const unsigned int step =
      std::clamp(all_keyword_len, ZXLB_TRIE_DEFAULT_STATES, ZXLB_TRIE_MAX_STATES);
  if (!grow_states(t, step, trace)) return -1;
  unsigned int next_free = 1;
  for (unsigned int k = 0; k < rule.keyword_count && k < rule.dictionary.size(); ++k) {
    const ZXLBKeywordLexicon &e = rule.dictionary[k];
    // A keyword with a byte outside the alphabet can never be read to its
    // end, so it gets no path; it may still be reported through a bit it
    // shares with another keyword.
    bool in_alphabet = true;
    for (unsigned int i = 0; i < e.elements_len; ++i) in_alphabet &= symbol_of(e.keyword[i]) >= 0;
    if (!in_alphabet) continue;

    int state = 0;
    for (unsigned int i = 0; i < e.elements_len; ++i) {
      const int a = symbol_of(e.keyword[i]);
      ZXBT_LOG(trace, 2, "Info", "character = '%c' and its value after mapping = %d", e.keyword[i],
               a);
      if (t.childrens[state][a] == -1) {
        t.childrens[state][a] = static_cast<int>(next_free++);
        if (next_free >= t.total_states) {
          if (t.total_states + step > ZXLB_TRIE_MAX_STATES) return -1;
          if (!grow_states(t, t.total_states + step, trace)) return -1;
        }
      }
      state = t.childrens[state][a];
    }
    t.out_func[state] |= 1u << (k % 32);
  }
  return static_cast<int>(next_free);
}

// Failure function, breadth first: a state's failure lies at a smaller depth,
// so it is final before any child of the state is reached. Once a state's
// children are done, its missing edges are filled with its failure state's
// (already complete) row: a search then reads one entry per character
// instead of walking failure chains, and reaches the same states.
void build_failure(zxlbTrie &t, unsigned int keyword_count) {
  std::vector<int> queue;  // FIFO: read at head, appended at the end
  queue.reserve(keyword_count);
  auto push = [&queue](int s) {
    if (queue.size() == queue.capacity()) queue.reserve(2 * queue.capacity() + 1);
    queue.push_back(s);
  };
  for (int &child : t.childrens[0]) {
    if (child == -1) child = 0;  // the root loops to itself
  }
  for (int child : t.childrens[0]) {
    if (child == 0) continue;
    t.f_func[child] = 0;
    push(child);
  }
  for (std::size_t head = 0; head < queue.size(); ++head) {
    const int s = queue[head];
    const int fs = t.f_func[s];
    for (int a = 0; a < ZXLB_ALPHABET_SIZE; ++a) {
      int &child = t.childrens[s][a];
      if (child == -1) {
        child = t.childrens[fs][a];
        continue;
      }
      t.f_func[child] = t.childrens[fs][a];
      t.out_func[child] |= t.out_func[t.f_func[child]];
      push(child);
    }
  }
}

// Where a keyword of length klen, found at `start`, must stand in a text of
// `len` bytes. An occurrence at the very start does not count as "contains".
inline bool holds(char constraint, long long klen, int start, int len) {
  switch (constraint) {
    case ZXLB_MATCH_STARTS_WITH:
      return start == 0;
    case ZXLB_MATCH_ENDS_WITH:
      return klen + start == len;
    case ZXLB_MATCH_CONTAINS:
      return start >= 1;
    case ZXLB_MATCH_EQUALS:
      return klen == len;
    default:  // stored, never matched
      return false;
  }
}

int constraint_holds(const ZXLBKeywordLexicon &e, int start, int len, int trace) {
  const int ret = holds(e.match_constraint, e.elements_len, start, len);
  ZXBT_LOG(trace, 1, "Info", "match_constraint is [%c] for keyword [%s]",
           '0' + static_cast<unsigned char>(e.match_constraint) % 10, e.keyword);
  ZXBT_LOG(trace, 1, "Info", "ret_val = %c", ret ? '1' : '0');
  return ret;
}

// Sums up what the out_func value `bits` can match; 0 when nothing.
unsigned int make_class(zxlbTrie &t, unsigned int bits) {
  zxlbMatchClass m;
  m.bits = bits;
  bool any = false;
  for (const zxlbRankedKeyword &r : t.ranked) {
    if (!((bits >> (r.index % 32)) & 1)) continue;
    if (!any) m.top = r;
    any = true;
    switch (r.match_constraint) {
      case ZXLB_MATCH_STARTS_WITH:
        m.starts_with_len.set(r.len);
        break;
      case ZXLB_MATCH_ENDS_WITH:
        m.has_ends_with = true;
        break;
      case ZXLB_MATCH_CONTAINS:
        m.min_contains_len = std::min(m.min_contains_len, r.len);
        break;
      default:
        m.equals_len.set(r.len);
        break;
    }
  }
  if (!any) return 0;
  t.classes.push_back(m);
  return static_cast<unsigned int>(t.classes.size() - 1);
}

void build_ranking(zxlbTrie &t, const ZXBTCustomRule &rule, unsigned int states) {
  const unsigned int count = std::min<std::size_t>(rule.keyword_count, rule.dictionary.size());
  for (unsigned int j = 0; j < count; ++j) {
    const ZXLBKeywordLexicon &e = rule.dictionary[j];
    if (e.match_constraint >= ZXLB_MATCH_STARTS_WITH && e.match_constraint <= ZXLB_MATCH_EQUALS &&
        e.elements_len < ZXLB_KEYWORD_SIZE)
      t.ranked.push_back({e.priority, j, e.elements_len, e.match_constraint});
  }
  std::sort(t.ranked.begin(), t.ranked.end(), [](const auto &a, const auto &b) {
    return a.priority != b.priority ? a.priority > b.priority : a.index > b.index;
  });
  t.classes.assign(1, zxlbMatchClass{});
  t.out_class.assign(t.total_states, 0);
  std::unordered_map<unsigned int, unsigned int> class_of;
  for (unsigned int s = 0; s < states; ++s) {
    const unsigned int bits = t.out_func[s];
    if (!bits) continue;
    auto [it, fresh] = class_of.try_emplace(bits, 0);
    if (fresh) it->second = make_class(t, bits);
    t.out_class[s] = it->second;
  }
  t.built_keyword_count = rule.keyword_count;
}

// Every keyword of every reported bit, in ascending index: with ">=" the
// last of equal priority wins, so the higher index at the same end.
int scan_all(const char *input, int len, const zxlbTrie &t, const ZXBTCustomRule &rule, int trace) {
  const unsigned int count = std::min<std::size_t>(rule.keyword_count, rule.dictionary.size());
  ZXBT_LOG(trace, 1, "Info", "keyword_count:%d", count);
  int best = -1;
  unsigned int highest_priority = 0;
  int state = 0;
  for (int i = 0; i < len; ++i) {
    state = next_state(t, state, input[i]);
    ZXBT_LOG(trace, 2, "Info", "currentState:%d", state);
    const unsigned int bits = t.out_func[state];
    if (!bits) continue;
    for (unsigned int base = 0; base < count; base += 32) {
      for (unsigned int rest = bits; rest; rest &= rest - 1) {
        const unsigned int j = base + static_cast<unsigned int>(__builtin_ctz(rest));
        if (j >= count) break;
        const ZXLBKeywordLexicon &e = rule.dictionary[j];
        const int start = i - static_cast<int>(e.elements_len) + 1;
        ZXBT_LOG(trace, 1, "Info", "Word:%s with priority: %d appear from %d to %d in pattern:%s",
                 e.keyword, e.priority, start, i, input);
        if (e.priority >= highest_priority && constraint_holds(e, start, len, trace)) {
          best = static_cast<int>(j);
          highest_priority = e.priority;
        }
      }
    }
  }
  return best;
}

// The same winner as scan_all: at each end index the first ranked keyword
// that is reported and holds is the highest (priority, index) there, and one
// below the best so far could not replace it.
int scan_ranked(const char *input, int len, const zxlbTrie &t) {
  int best = -1;
  unsigned int highest_priority = 0;
  unsigned int state = 0;
  for (int i = 0; i < len; ++i) {
    const int a = symbol_of(input[i]);
    state = a < 0 ? 0 : static_cast<unsigned int>(t.childrens[state][a]);
    const unsigned int cls = t.out_class[state];
    if (!cls) continue;
    const zxlbMatchClass &m = t.classes[cls];
    if (m.top.priority < highest_priority) continue;
    const int top_start = i - static_cast<int>(m.top.len) + 1;
    if (m.top.match_constraint == ZXLB_MATCH_CONTAINS
            ? top_start >= 1
            : holds(m.top.match_constraint, m.top.len, top_start, len)) {
      best = static_cast<int>(m.top.index);
      highest_priority = m.top.priority;
      continue;
    }
    const bool possible = static_cast<unsigned int>(i) >= m.min_contains_len ||
                          (i + 1 < ZXLB_KEYWORD_SIZE && m.starts_with_len[i + 1]) ||
                          (m.has_ends_with && i == len - 1) ||
                          (len < ZXLB_KEYWORD_SIZE && m.equals_len[len]);
    if (!possible) continue;
    for (const zxlbRankedKeyword &r : t.ranked) {
      if (r.priority < highest_priority) break;
      if (!((m.bits >> (r.index % 32)) & 1)) continue;
      if (holds(r.match_constraint, r.len, i - static_cast<int>(r.len) + 1, len)) {
        best = static_cast<int>(r.index);
        highest_priority = r.priority;
        break;
      }
    }
  }
  return best;
}

// Common front of both searches: -2 when there is nothing to search.
int search_length(const char *input, const zxlbTrie *trie_node, const ZXBTCustomRule *rule) {
  if (!input || !trie_node || !rule || trie_node->childrens.empty()) return -2;
  const std::size_t n = std::strlen(input);
  return n > INT_MAX ? -2 : static_cast<int>(n);
}

const char *winner(const ZXBTCustomRule &rule, int best, int trace) {
  const char *ret_val = best < 0 ? nullptr : rule.dictionary[best].bt_name;
  ZXBT_LOG(trace, 0, "Info", "ret_val = %s", ret_val ? ret_val : "(null)");
  return ret_val;
}

}  // namespace

int create_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  const int trace = bt_trace_level();
  if (!trie_node) {
    ZXBT_LOG(trace, 0, "Error", "zxlbTrie is null in function zxlb_create_trie, hence returning");
    return -1;
  }
  if (!rule) {
    ZXBT_LOG(trace, 0, "Error", "ZXBTCustomeRule is NULL, hence returning");
    return -1;
  }
  // Built aside and moved in whole; a failure leaves the automaton empty.
  zxlbTrie built;
  int states = -1;
  try {
    states = build_goto(built, *rule, trace);
    if (states > 0) {
      ZXBT_LOG(trace, 0, "Info", "Maximum states in automaton = %d", states);
      build_failure(built, rule->keyword_count);
      build_ranking(built, *rule, static_cast<unsigned int>(states));
    }
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(rule->keyword_count * sizeof(zxlbRankedKeyword), "keyword automaton tables", 0);
    states = -1;
  }
  if (states < 0) {
    *trie_node = zxlbTrie{};
    return -1;
  }
  *trie_node = std::move(built);
  return states;
}

int zxlb_init_automaton(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  return create_match_machine(trie_node, rule) < 0 ? -1 : 0;
}

int find_next_state(const zxlbTrie *trie_node, int currentState, char nextInput) {
  if (!trie_node || currentState < 0 ||
      static_cast<std::size_t>(currentState) >= trie_node->childrens.size())
    return 0;
  const int state = next_state(*trie_node, currentState, nextInput);
  ZXBT_LOG(bt_trace_level(), 2, "Info", "answer(state) = %d, ascii of character = %d", state,
           static_cast<unsigned char>(nextInput));
  return state;
}

int check_for_match_constraint(const ZXBTCustomRule *rule, int dictionary_idx, int start_index,
                               int in_str_len) {
  if (!rule || dictionary_idx < 0 ||
      static_cast<std::size_t>(dictionary_idx) >= rule->dictionary.size())
    return 0;
  return constraint_holds(rule->dictionary[dictionary_idx], start_index, in_str_len,
                          bt_trace_level());
}

const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule) {
  const int len = search_length(input, trie_node, rule);
  if (len < 0) return nullptr;
  const int trace = bt_trace_level();
  if (trace > 1 || rule->keyword_count != trie_node->built_keyword_count ||
      trie_node->out_class.empty())
    return winner(*rule, scan_all(input, len, *trie_node, *rule, trace), trace);
  return winner(*rule, scan_ranked(input, len, *trie_node), trace);
}

const char *search_match_machine_exhaustive(const char *input, const zxlbTrie *trie_node,
                                            const ZXBTCustomRule *rule) {
  const int len = search_length(input, trie_node, rule);
  if (len < 0) return nullptr;
  const int trace = bt_trace_level();
  return winner(*rule, scan_all(input, len, *trie_node, *rule, trace), trace);
}

void dealloc_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  if (trie_node) *trie_node = zxlbTrie{};
  if (rule && !rule->dictionary.empty()) dealloc_lexicon(rule);
}
