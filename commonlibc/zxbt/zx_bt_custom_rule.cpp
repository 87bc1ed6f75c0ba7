#include "zx_bt_custom_rule.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <string_view>

#include "ZXBTTrace.h"

namespace {

constexpr std::uint32_t kNoChild = ~0u;
// Table entries are byte offsets of rows: a state's number shifted by the
// row's width and by this.
constexpr unsigned int kEntryShift = 2;
static_assert(sizeof(std::uint32_t) == 1u << kEntryShift);
// The widest row, 95 symbols and class 0 padded to 128, still leaves every
// offset within 32 bits.
static_assert((std::uint64_t{ZXLB_TRIE_MAX_STATES} << (7 + kEntryShift)) <= UINT32_MAX);
// Bytes an extra walk must take over before it pays for its lead-in.
constexpr int kWalkStretch = 8;
// Longest lead-in of an extra walk. Only a longer matched path straddling a
// stretch's start, rare in a URL, costs a hand-over; a lead-in as long as
// the longest keyword would cost every search, and one 255-byte keyword would
// leave a single walk.
constexpr int kLeadIn = 8;

inline bool in_alphabet(char c) {
  const int s = static_cast<unsigned char>(c) - ZXLB_ALPHABET_FIRST;
  return s >= 0 && s < ZXLB_ALPHABET_SIZE;
}

bool can_match(const ZXLBKeywordLexicon &e) {
  if (e.match_constraint < ZXLB_MATCH_STARTS_WITH || e.match_constraint > ZXLB_MATCH_EQUALS)
    return false;
  // An empty keyword occurs nowhere; one with a byte outside the alphabet
  // can never be read to its end.
  if (e.elements_len == 0 || e.elements_len >= ZXLB_KEYWORD_SIZE) return false;
  return std::all_of(e.keyword, e.keyword + e.elements_len, in_alphabet);
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

// States of a trie over `texts`: the root, plus per text what it does not
// share with its sorted predecessor. Lets a build refuse before it allocates.
std::size_t count_states(std::vector<std::string_view> texts) {
  std::sort(texts.begin(), texts.end());
  std::size_t states = 1;
  std::string_view prev;
  for (std::string_view t : texts) {
    std::size_t common = 0;
    while (common < t.size() && common < prev.size() && t[common] == prev[common]) ++common;
    states += t.size() - common;
    prev = t;
  }
  return states;
}

// The automaton in the making, states numbered as the goto function makes
// them; `childrens` holds state numbers until the renumbering.
struct Builder {
  zxlbTrie &t;
  const ZXBTCustomRule &rule;
  int trace;
  std::vector<unsigned int> keywords;  // lexicon indexes that can match, ascending
  std::vector<std::uint8_t> depth;
  std::vector<std::uint32_t> end_state;  // per entry of `keywords`
  std::vector<std::uint32_t> bfs;        // states breadth first

  std::uint32_t *row(std::uint32_t s) { return &t.childrens[std::size_t{s} << t.row_shift]; }

  // Keywords, ranks and symbol classes; false when the states would exceed
  // the bound.
  bool plan() {
    const std::size_t count = std::min<std::size_t>(rule.keyword_count, rule.dictionary.size());
    std::vector<std::string_view> texts;
    bool used[256] = {};
    for (unsigned int j = 0; j < count; ++j) {
      const ZXLBKeywordLexicon &e = rule.dictionary[j];
      if (!can_match(e)) continue;
      keywords.push_back(j);
      texts.emplace_back(e.keyword, e.elements_len);
      t.max_depth = std::max(t.max_depth, e.elements_len);
      for (char c : texts.back()) used[static_cast<unsigned char>(c)] = true;
    }
    const std::size_t states = count_states(std::move(texts));
    if (states > ZXLB_TRIE_MAX_STATES || keywords.size() >= UINT16_MAX) {
      ZXBT_LOG_AT(trace, 0, "Error", "Keyword automaton would need %zu states (at most %u)", states,
                  ZXLB_TRIE_MAX_STATES);
      return false;
    }
    unsigned int classes = 1;
    for (int c = 0; c < 256; ++c)
      t.symbol_class[c] = used[c] ? static_cast<std::uint8_t>(classes++) : 0;
    while ((1u << t.row_shift) < classes) ++t.row_shift;

    t.ranked.assign(1, zxlbRankedKeyword{});
    for (unsigned int j : keywords) {
      const ZXLBKeywordLexicon &e = rule.dictionary[j];
      t.ranked.push_back({e.priority, j, e.elements_len, e.match_constraint});
    }
    std::sort(t.ranked.begin() + 1, t.ranked.end(), [](const auto &a, const auto &b) {
      return a.priority != b.priority ? a.priority < b.priority : a.index < b.index;
    });
    t.total_states = static_cast<unsigned int>(states);
    t.childrens.assign(std::size_t{states} << t.row_shift, kNoChild);
    depth.assign(states, 0);
    return true;
  }

  // Goto function, in lexicon order; the path of every keyword.
  void build_goto() {
    std::uint32_t next_free = 1;
    for (unsigned int j : keywords) {
      const ZXLBKeywordLexicon &e = rule.dictionary[j];
      std::uint32_t s = 0;
      for (unsigned int i = 0; i < e.elements_len; ++i) {
        const unsigned char c = static_cast<unsigned char>(e.keyword[i]);
        ZXBT_LOG_AT(trace, 2, "Info", "character = '%c' and its value after mapping = %d", c,
                    c - ZXLB_ALPHABET_FIRST);
        std::uint32_t &child = row(s)[t.symbol_class[c]];
        if (child == kNoChild) {
          child = next_free++;
          depth[child] = static_cast<std::uint8_t>(i + 1);
        }
        s = child;
      }
      end_state.push_back(s);
    }
  }

  // Failure function, breadth first: a state's failure lies at a smaller
  // depth, so its row is complete before any child of the state is reached.
  // Once a state's children are done, its missing edges take its failure
  // state's entries: a search then reads one entry per byte and reaches the
  // states that following the failure links would.
  void build_failure() {
    t.f_func.assign(t.total_states, -1);
    bfs.reserve(t.total_states);
    bfs.push_back(0);
    const std::uint32_t width = 1u << t.row_shift;
    for (std::uint32_t a = 0; a < width; ++a) {
      std::uint32_t &child = row(0)[a];
      if (child == kNoChild) {
        child = 0;  // the root loops to itself
        continue;
      }
      t.f_func[child] = 0;
      bfs.push_back(child);
    }
    for (std::size_t head = 1; head < bfs.size(); ++head) {
      const std::uint32_t s = bfs[head];
      const std::uint32_t *fail_row = row(static_cast<std::uint32_t>(t.f_func[s]));
      std::uint32_t *r = row(s);
      for (std::uint32_t a = 0; a < width; ++a) {
        if (r[a] == kNoChild) {
          r[a] = fail_row[a];
          continue;
        }
        t.f_func[r[a]] = static_cast<int>(fail_row[a]);
        bfs.push_back(r[a]);
      }
    }
  }

  // Per-state outputs, then the renumbering that puts the states with a
  // "contains" output last. Returns the renumbering.
  std::vector<std::uint32_t> build_outputs() {
    std::vector<zxlbStateOutput> out(t.total_states, zxlbStateOutput{});
    std::vector<std::uint32_t> own_count(t.total_states, 0);
    std::vector<std::uint32_t> rank_state(t.ranked.size(), 0);
    for (std::uint16_t r = 1; r < t.ranked.size(); ++r) {
      const std::size_t k = static_cast<std::size_t>(
          std::lower_bound(keywords.begin(), keywords.end(), t.ranked[r].index) - keywords.begin());
      const std::uint32_t s = end_state[k];
      rank_state[r] = s;
      ++own_count[s];
      zxlbStateOutput &o = out[s];
      std::uint16_t *slot = t.ranked[r].match_constraint == ZXLB_MATCH_STARTS_WITH ? &o.starts_own
                            : t.ranked[r].match_constraint == ZXLB_MATCH_ENDS_WITH ? &o.ends_all
                            : t.ranked[r].match_constraint == ZXLB_MATCH_CONTAINS  ? &o.contains_all
                                                                                   : &o.equals_own;
      *slot = std::max(*slot, r);  // ascending ranks: the last is the best
    }
    for (std::size_t i = 1; i < bfs.size(); ++i) {
      zxlbStateOutput &o = out[bfs[i]];
      const zxlbStateOutput &f = out[static_cast<std::size_t>(t.f_func[bfs[i]])];
      o.contains_suffix = f.contains_all;
      o.contains_all = std::max(o.contains_all, f.contains_all);
      o.ends_all = std::max(o.ends_all, f.ends_all);
      o.depth = depth[bfs[i]];
    }

    std::vector<std::uint32_t> renumber(t.total_states);
    std::uint32_t next = 0;
    for (int pass = 0; pass < 2; ++pass) {
      if (pass == 1) t.contains_from = next << (t.row_shift + kEntryShift);
      for (std::uint32_t s = 0; s < t.total_states; ++s)
        if ((out[s].contains_all != 0) == (pass == 1)) renumber[s] = next++;
    }
    t.out_func.resize(t.total_states);
    std::vector<int> f_func(t.total_states, -1);
    for (std::uint32_t s = 0; s < t.total_states; ++s) {
      t.out_func[renumber[s]] = out[s];
      if (s) f_func[renumber[s]] = static_cast<int>(renumber[t.f_func[s]]);
    }
    t.f_func.swap(f_func);

    t.own_first.assign(t.total_states + 1, 0);
    for (std::uint32_t s = 0; s < t.total_states; ++s) t.own_first[renumber[s] + 1] = own_count[s];
    for (std::uint32_t s = 0; s < t.total_states; ++s) t.own_first[s + 1] += t.own_first[s];
    t.own_rank.assign(t.ranked.size() - 1, 0);
    std::vector<std::uint32_t> fill(t.own_first.begin(), t.own_first.end() - 1);
    for (std::uint16_t r = 1; r < t.ranked.size(); ++r)
      t.own_rank[fill[renumber[rank_state[r]]]++] = r;
    return renumber;
  }

  // Moves every row to its new number (one cycle of the permutation at a
  // time, so no second table) and turns entries into row offsets.
  void renumber_rows(const std::vector<std::uint32_t> &renumber) {
    const std::size_t width = std::size_t{1} << t.row_shift;
    std::vector<std::uint32_t> carried(width);
    std::vector<bool> placed(t.total_states, false);
    for (std::uint32_t start = 0; start < t.total_states; ++start) {
      if (placed[start]) continue;
      std::copy_n(row(start), width, carried.begin());
      for (std::uint32_t from = start; !placed[from];) {
        placed[from] = true;
        const std::uint32_t to = renumber[from];
        std::swap_ranges(carried.begin(), carried.end(), row(to));
        from = to;
      }
    }
    for (std::uint32_t &e : t.childrens) e = renumber[e] << (t.row_shift + kEntryShift);
  }
};

// The best occurrence so far: highest priority, then later end, then higher
// rank (the lexicon index orders equal priorities).
struct Best {
  unsigned int rank = 0;
  int end = -1;

  void offer(const zxlbTrie &t, unsigned int r, int at) {
    if (!r) return;
    if (rank) {
      const unsigned int p = t.ranked[r].priority, q = t.ranked[rank].priority;
      if (p != q ? p < q : (at != end ? at < end : r < rank)) return;
    }
    rank = r;
    end = at;
  }
};

// A state's number from its entry in the table.
inline std::uint32_t state_of(const zxlbTrie &t, std::uint32_t entry) {
  return entry >> (t.row_shift + kEntryShift);
}

// The entry after reading a byte of class `c` in the state whose entry is
// `s`. The class's column is added to the table's base, which does not wait
// on `s`; the dependent chain from one byte to the next is then a single
// load.
inline std::uint32_t step(const char *table, std::uint32_t s, unsigned c) {
  const char *column = table + (std::size_t{c} << kEntryShift);
  return *reinterpret_cast<const std::uint32_t *>(column + s);
}

// The "contains" keywords of the state with entry `s`, ending at `at`; out
// of line, so that the walks keep their registers.
[[gnu::noinline, gnu::cold]] void offer_contains(const zxlbTrie &t, Best &best, std::uint32_t s,
                                                 int at) {
  best.offer(t, t.out_func[state_of(t, s)].contains_all, at);
}

// Searches in[from, len) in K walks, after the text up to `from` has left
// state `s`, known not to be the prefix any longer; returns the last entry.
// The walks' loads do not wait on each other: K of them take about the time
// of one over 1/K of the text plus the lead-ins.
//
//   from          b1            b2               len
//    |-- walk 0 --|             |                 |
//            |lead|-- walk 1 ---|                 |
//                         |lead|--- walk 2 -------|  (the last reads the rest)
//
// Walk 0 continues from s; walk k > 0 starts at the root `lead` bytes before
// its stretch. It reaches the true state by b_k unless the true state there
// has a longer path; then the true walk from b_k goes on until its path fits
// inside walk k's text, where the two agree, and hands over. Every keyword a
// walk reports does occur there, past the start of the text.
template <int K>
std::uint32_t walk(const unsigned char *in, int from, int len, int lead, std::uint32_t s,
                   const zxlbTrie &t, Best &best) {
  const char *const table = reinterpret_cast<const char *>(t.childrens.data());
  const std::uint8_t *const cls = t.symbol_class.data();
  const std::uint32_t contains_from = t.contains_from;
  const int steps = (len - from + (K - 1) * lead) / K;
  const std::ptrdiff_t stride = steps - lead;
  std::array<std::uint32_t, K> st{};
  st[0] = s;
  const unsigned char *p = in + from;
  for (const unsigned char *const stop = p + steps; p != stop; ++p) {
    for (int k = 0; k < K; ++k) st[k] = step(table, st[k], cls[p[k * stride]]);
    for (int k = 0; k < K; ++k)
      if (st[k] >= contains_from) [[unlikely]]
        offer_contains(t, best, st[k], static_cast<int>(p + k * stride - in));
  }
  for (p += (K - 1) * stride; p < in + len; ++p) {
    st[K - 1] = step(table, st[K - 1], cls[*p]);
    if (st[K - 1] >= contains_from) [[unlikely]]
      offer_contains(t, best, st[K - 1], static_cast<int>(p - in));
  }
  // A copy, so that the loops above keep st in registers.
  const std::array<std::uint32_t, K> ends = st;
  std::uint32_t cur = ends[0];  // the true state before b_k
  for (int k = 1; k < K; ++k) {
    const unsigned char *const start = in + from + k * stride;
    const unsigned char *const stretch_end = k + 1 < K ? start + steps : in + len;
    for (const unsigned char *x = start + lead;; ++x) {
      if (t.out_func[state_of(t, cur)].depth <= x - start) [[likely]] {
        cur = ends[k];
        break;
      }
      if (x == stretch_end) break;
      cur = step(table, cur, cls[*x]);
      if (cur >= contains_from) offer_contains(t, best, cur, static_cast<int>(x - in));
    }
  }
  return cur;
}

int search_fast(const unsigned char *in, int len, const zxlbTrie &t) {
  const char *table = reinterpret_cast<const char *>(t.childrens.data());
  const std::uint8_t *cls = t.symbol_class.data();
  Best best;
  std::uint32_t s = 0;
  int i = 0;
  for (; i < len; ++i) {  // while the text read is the state's path
    s = step(table, s, cls[in[i]]);
    const zxlbStateOutput &o = t.out_func[state_of(t, s)];
    if (o.depth != i + 1) break;
    best.offer(t, o.starts_own, i);
    best.offer(t, o.contains_suffix, i);
  }
  if (i == len) {
    if (len) {
      const zxlbStateOutput &o = t.out_func[state_of(t, s)];
      best.offer(t, o.equals_own, len - 1);
      best.offer(t, o.ends_all, len - 1);
    }
    return static_cast<int>(best.rank);
  }
  if (s >= t.contains_from) best.offer(t, t.out_func[state_of(t, s)].contains_all, i);
  ++i;
  // A walk more pays when its stretch is still kWalkStretch bytes past its
  // lead-in; past four the loads, not their latency, bound the loop.
  const int rest = len - i;
  const int lead = std::min(static_cast<int>(t.max_depth), kLeadIn);
  auto worth = [&](int k) { return (rest + (k - 1) * lead) / k - lead >= kWalkStretch; };
  const std::uint32_t last = worth(4)   ? walk<4>(in, i, len, lead, s, t, best)
                             : worth(3) ? walk<3>(in, i, len, lead, s, t, best)
                             : worth(2) ? walk<2>(in, i, len, lead, s, t, best)
                                        : walk<1>(in, i, len, lead, s, t, best);
  best.offer(t, t.out_func[state_of(t, last)].ends_all, len - 1);
  return static_cast<int>(best.rank);
}

// Every keyword ending at every position, found through the failure chain
// and tested one by one.
int search_all(const unsigned char *in, int len, const zxlbTrie &t, const ZXBTCustomRule &rule,
               int trace) {
  ZXBT_LOG_AT(trace, 1, "Info", "keyword_count:%d", static_cast<int>(t.ranked.size() - 1));
  Best best;
  std::uint32_t state = 0;
  for (int i = 0; i < len; ++i) {
    state = state_of(t, t.childrens[(std::size_t{state} << t.row_shift) + t.symbol_class[in[i]]]);
    ZXBT_LOG_AT(trace, 2, "Info", "currentState:%d", static_cast<int>(state));
    for (int s = static_cast<int>(state); s > 0; s = t.f_func[static_cast<std::size_t>(s)]) {
      for (std::uint32_t k = t.own_first[s]; k < t.own_first[s + 1]; ++k) {
        const zxlbRankedKeyword &r = t.ranked[t.own_rank[k]];
        const int start = i - static_cast<int>(r.len) + 1;
        const char *text = r.index < rule.dictionary.size() ? rule.dictionary[r.index].keyword : "";
        ZXBT_LOG_AT(trace, 1, "Info",
                    "Word:%s with priority: %d appear from %d to %d in pattern:%s", text,
                    r.priority, start, i, reinterpret_cast<const char *>(in));
        const bool ok = holds(r.match_constraint, r.len, start, len);
        ZXBT_LOG_AT(trace, 1, "Info", "match_constraint is [%c] for keyword [%s]",
                    '0' + r.match_constraint, text);
        ZXBT_LOG_AT(trace, 1, "Info", "ret_val = %c", ok ? '1' : '0');
        if (ok) best.offer(t, t.own_rank[k], i);
      }
    }
  }
  return static_cast<int>(best.rank);
}

// Common front of both searches: -1 when there is nothing to search.
int search_length(const char *input, const zxlbTrie *trie_node, const ZXBTCustomRule *rule) {
  if (!input || !trie_node || !rule || trie_node->childrens.empty()) return -1;
  const std::size_t n = std::strlen(input);
  return n > INT_MAX ? -1 : static_cast<int>(n);
}

const char *winner(const zxlbTrie &t, const ZXBTCustomRule &rule, int rank, int trace) {
  const unsigned int index = rank > 0 ? t.ranked[static_cast<std::size_t>(rank)].index : ~0u;
  const char *ret_val = index < rule.dictionary.size() ? rule.dictionary[index].bt_name : nullptr;
  ZXBT_LOG_AT(trace, 0, "Info", "ret_val = %s", ret_val ? ret_val : "(null)");
  return ret_val;
}

}  // namespace

int create_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  const int trace = zxbt_trace_level();
  if (!trie_node) {
    ZXBT_LOG_AT(trace, 0, "Error",
                "zxlbTrie is null in function zxlb_create_trie, hence returning");
    return -1;
  }
  if (!rule) {
    ZXBT_LOG_AT(trace, 0, "Error", "ZXBTCustomeRule is NULL, hence returning");
    return -1;
  }
  // Built aside and moved in whole; a failure leaves the automaton empty.
  zxlbTrie built;
  Builder b{built, *rule, trace, {}, {}, {}, {}};
  bool ok = false;
  try {
    if (b.plan()) {
      b.build_goto();
      ZXBT_LOG_AT(trace, 0, "Info", "Maximum states in automaton = %d",
                  static_cast<int>(built.total_states));
      b.build_failure();
      b.renumber_rows(b.build_outputs());
      ok = true;
    }
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(std::size_t{built.total_states} << built.row_shift, "keyword automaton", 0);
    ZXBT_LOG_AT(trace, 0, "Error",
                "Unable to allocate memory to children to trie, freeing earlier allocated spaces");
  }
  if (!ok) {
    *trie_node = zxlbTrie{};
    return -1;
  }
  *trie_node = std::move(built);
  return static_cast<int>(trie_node->total_states);
}

int zxlb_init_automaton(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  return create_match_machine(trie_node, rule) < 0 ? -1 : 0;
}

int find_next_state(const zxlbTrie *trie_node, int currentState, char nextInput) {
  if (!trie_node || currentState < 0 ||
      static_cast<unsigned int>(currentState) >= trie_node->total_states)
    return 0;
  const zxlbTrie &t = *trie_node;
  const int state = static_cast<int>(
      state_of(t, t.childrens[(static_cast<std::size_t>(currentState) << t.row_shift) +
                              t.symbol_class[static_cast<unsigned char>(nextInput)]]));
  ZXBT_LOG_AT(zxbt_trace_level(), 2, "Info", "answer(state) = %d, ascii of character = %d", state,
              static_cast<unsigned char>(nextInput));
  return state;
}

int check_for_match_constraint(const ZXBTCustomRule *rule, int dictionary_idx, int start_index,
                               int in_str_len) {
  if (!rule || dictionary_idx < 0 ||
      static_cast<std::size_t>(dictionary_idx) >= rule->dictionary.size())
    return 0;
  const ZXLBKeywordLexicon &e = rule->dictionary[dictionary_idx];
  const int trace = zxbt_trace_level();
  const int ret = holds(e.match_constraint, e.elements_len, start_index, in_str_len);
  ZXBT_LOG_AT(trace, 1, "Info", "match_constraint is [%c] for keyword [%s]",
              '0' + static_cast<unsigned char>(e.match_constraint) % 10, e.keyword);
  ZXBT_LOG_AT(trace, 1, "Info", "ret_val = %c", ret ? '1' : '0');
  return ret;
}

const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule) {
  return search_match_machine(input, trie_node, rule, zxbt_trace_level());
}

const char *search_match_machine(const char *input, const zxlbTrie *trie_node,
                                 const ZXBTCustomRule *rule, int trace) {
  const int len = search_length(input, trie_node, rule);
  if (len < 0) return nullptr;
  const auto *in = reinterpret_cast<const unsigned char *>(input);
  const int rank =
      trace > 1 ? search_all(in, len, *trie_node, *rule, trace) : search_fast(in, len, *trie_node);
  return winner(*trie_node, *rule, rank, trace);
}

const char *search_match_machine_exhaustive(const char *input, const zxlbTrie *trie_node,
                                            const ZXBTCustomRule *rule) {
  const int len = search_length(input, trie_node, rule);
  if (len < 0) return nullptr;
  const int trace = zxbt_trace_level();
  return winner(
      *trie_node, *rule,
      search_all(reinterpret_cast<const unsigned char *>(input), len, *trie_node, *rule, trace),
      trace);
}

void dealloc_match_machine(zxlbTrie *trie_node, ZXBTCustomRule *rule) {
  if (trie_node) *trie_node = zxlbTrie{};
  if (rule && !rule->dictionary.empty()) dealloc_lexicon(rule);
}
