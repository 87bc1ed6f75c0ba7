// BT classification at transaction start: one 64-byte URL against 200 rules
// of each kind, the rule counts of a large application.
#include <string>

#include <benchmark/benchmark.h>

#include "zxbt/zx_bt_custom_rule.h"
#include "zxbt/zxlb_state_machine.h"

namespace {

// 64 bytes, matching the pattern and the keyword of rule 137 deep in the URL.
const std::string kUrl = "/shop/api/v2/service137/orders/12345/items/987?sort=asc&page=002";
static_assert(sizeof("/shop/api/v2/service137/orders/12345/items/987?sort=asc&page=002") == 65);

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

void BM_keyword_search(benchmark::State &state) {
  ZXBTCustomRule rule;
  for (int i = 0; i < 200; ++i) {
    const std::string kw = "/service" + std::to_string(i) + "/";
    const std::string bt = "BT" + std::to_string(i);
    add_to_lexicon(&rule, kw.c_str(), static_cast<unsigned>(i % 7), bt.c_str(),
                   ZXLB_MATCH_CONTAINS);
  }
  zxlbTrie trie;
  zxlb_init_automaton(&trie, &rule);
  if (!search_match_machine(kUrl.c_str(), &trie, &rule)) state.SkipWithError("the URL names no BT");
  for (auto _ : state) benchmark::DoNotOptimize(search_match_machine(kUrl.c_str(), &trie, &rule));
  dealloc_match_machine(&trie, &rule);
}
BENCHMARK(BM_keyword_search);

}  // namespace
