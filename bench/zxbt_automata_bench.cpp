// BT classification at transaction start: one 64-byte URL against the rules
// of a large application (200 rules of each kind), and keyword sets of 200
// and 300 rules, beside an empty call from the same run. Every search checks
// the BT it names. The keyword automaton's build, done on rule reload, is
// measured with its size for 200 and 4,096 keywords.
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "zx_bt_custom_rule.h"
#include "zxlb_state_machine.h"

namespace {

// 64 bytes, matching the pattern and the keyword of rule 137 deep in the URL.
const std::string kUrl = "/shop/api/v2/service137/orders/12345/items/987?sort=asc&page=002";
static_assert(sizeof("/shop/api/v2/service137/orders/12345/items/987?sort=asc&page=002") == 65);

__attribute__((noinline)) void emptyCall(const void *p) {
  benchmark::DoNotOptimize(p);
}

void BM_EmptyCallBaseline(benchmark::State &state) {
  for (auto _ : state) emptyCall(kUrl.c_str());
}
BENCHMARK(BM_EmptyCallBaseline);

void BM_pattern_lookup(benchmark::State &state) {
  zxlbStateMachine sm;
  zxlb_state_machine_init(&sm, 0);
  for (int i = 0; i < 200; ++i) {
    const std::string p = "/shop/api/v2/service" + std::to_string(i) + "/*/items/*";
    zxlb_state_machine_add(&sm, p.data(), static_cast<int>(p.size()), i + 2, 0, 0);
  }
  if (zxlb_state_machine_get(&sm, kUrl.data(), static_cast<int>(kUrl.size()), 0) != 139)
    state.SkipWithError("the URL does not name its rule");
  for (auto _ : state)
    benchmark::DoNotOptimize(
        zxlb_state_machine_get(&sm, kUrl.data(), static_cast<int>(kUrl.size()), 0));
  zxlb_state_machine_free(&sm);
}
BENCHMARK(BM_pattern_lookup);

void run_keyword_search(benchmark::State &state, ZXBTCustomRule &rule, const char *expected) {
  zxlbTrie trie;
  zxlb_init_automaton(&trie, &rule);
  const char *got = search_match_machine(kUrl.c_str(), &trie, &rule);
  if (!got || std::strcmp(got, expected) != 0) {
    state.SkipWithError("the URL is not named by its rule");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(search_match_machine(kUrl.c_str(), &trie, &rule));
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * kUrl.size()));
  dealloc_match_machine(&trie, &rule);
}

// "contains" rules on service path segments; the URL holds one of them.
void BM_keyword_search(benchmark::State &state) {
  ZXBTCustomRule rule;
  for (int i = 0; i < state.range(0); ++i) {
    const std::string kw = "/service" + std::to_string(i) + "/";
    const std::string bt = "BT" + std::to_string(i);
    add_to_lexicon(&rule, kw.c_str(), static_cast<unsigned>(i % 7), bt.c_str(),
                   ZXLB_MATCH_CONTAINS);
  }
  run_keyword_search(state, rule, "BT137");
}
BENCHMARK(BM_keyword_search)->Arg(200)->Arg(300);

// Words over a wide alphabet with every position constraint, so that the
// automaton has many states and symbols.
void add_mixed_keywords(ZXBTCustomRule &rule, int count) {
  static const char *const kParts[] = {"shop", "api",  "v2",   "orders", "items", "sort",
                                       "page", "cart", "user", "id",     "Q",     "_x"};
  for (int i = 0; i < count; ++i) {
    std::string kw = kParts[i % 12];
    kw += std::to_string(i);
    kw += kParts[(i / 12) % 12];
    const std::string bt = "BT" + std::to_string(i);
    add_to_lexicon(&rule, kw.c_str(), static_cast<unsigned>(i % 5), bt.c_str(),
                   static_cast<char>(1 + i % 4));
  }
}

// The URL passes through many of the mixed states; two rules occur in it, at
// equal priority, and the later end wins.
void BM_keyword_search_mixed(benchmark::State &state) {
  ZXBTCustomRule rule;
  add_mixed_keywords(rule, static_cast<int>(state.range(0)));
  add_to_lexicon(&rule, "/orders/", 1, "Orders", ZXLB_MATCH_CONTAINS);
  add_to_lexicon(&rule, "page=002", 1, "Page", ZXLB_MATCH_ENDS_WITH);
  run_keyword_search(state, rule, "Page");
}
BENCHMARK(BM_keyword_search_mixed)->Arg(300);

std::size_t automaton_bytes(const zxlbTrie &t) {
  return t.childrens.capacity() * sizeof t.childrens[0] +
         t.out_func.capacity() * sizeof t.out_func[0] + t.f_func.capacity() * sizeof t.f_func[0] +
         t.own_first.capacity() * sizeof t.own_first[0] +
         t.own_rank.capacity() * sizeof t.own_rank[0] + t.ranked.capacity() * sizeof t.ranked[0] +
         sizeof t;
}

// Rule reload: the automaton over the mixed keywords (the lexicon stops at
// its bound, 4,075 keywords past the jump at the 21st).
void BM_keyword_build(benchmark::State &state) {
  ZXBTCustomRule rule;
  add_mixed_keywords(rule, static_cast<int>(state.range(0)));
  zxlbTrie trie;
  for (auto _ : state) {
    if (zxlb_init_automaton(&trie, &rule) != 0) {
      state.SkipWithError("the automaton was not built");
      return;
    }
  }
  state.counters["states"] = trie.total_states;
  state.counters["bytes"] = static_cast<double>(automaton_bytes(trie));
  dealloc_match_machine(&trie, &rule);
}
BENCHMARK(BM_keyword_build)->Arg(200)->Arg(4096)->Unit(benchmark::kMicrosecond);

}  // namespace
