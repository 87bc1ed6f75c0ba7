// BT classification at transaction start: one 64-byte URL against the rules
// of a large application (200 rules of each kind), and keyword sets of 200
// and 300 rules, beside an empty call from the same run.
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

void run_keyword_search(benchmark::State &state, ZXBTCustomRule &rule) {
  zxlbTrie trie;
  zxlb_init_automaton(&trie, &rule);
  if (!search_match_machine(kUrl.c_str(), &trie, &rule)) state.SkipWithError("the URL names no BT");
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
  run_keyword_search(state, rule);
}
BENCHMARK(BM_keyword_search)->Arg(200)->Arg(300);

// Words over a wide alphabet with every position constraint, so that the
// automaton has many states and symbols and the URL passes through many of
// them; two of the rules occur in the URL.
void BM_keyword_search_mixed(benchmark::State &state) {
  ZXBTCustomRule rule;
  static const char *const kParts[] = {"shop", "api",  "v2",   "orders", "items", "sort",
                                       "page", "cart", "user", "id",     "Q",     "_x"};
  for (int i = 0; i < state.range(0); ++i) {
    std::string kw = kParts[i % 12];
    kw += std::to_string(i);
    kw += kParts[(i / 12) % 12];
    const std::string bt = "BT" + std::to_string(i);
    add_to_lexicon(&rule, kw.c_str(), static_cast<unsigned>(i % 5), bt.c_str(),
                   static_cast<char>(1 + i % 4));
  }
  add_to_lexicon(&rule, "/orders/", 1, "Orders", ZXLB_MATCH_CONTAINS);
  add_to_lexicon(&rule, "page=002", 1, "Page", ZXLB_MATCH_ENDS_WITH);
  run_keyword_search(state, rule);
}
BENCHMARK(BM_keyword_search_mixed)->Arg(300);

}  // namespace
