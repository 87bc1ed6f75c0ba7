// Arbitrary bytes as URL patterns, keywords and a URL: building and searching
// both BT automata must stay in bounds, and their answers must agree with
// what was stored and with the exhaustive keyword search.
//
// Input: one option byte, then lines split at '\n'; the last line is the URL,
// every other line is a pattern and a keyword whose first byte picks its
// match type, constraint and priority.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zx_bt_custom_rule.h"
#include "zxlb_state_machine.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

struct Entry {
  unsigned char opts;
  std::string text;
};

void fuzz_patterns(const std::vector<Entry> &entries, const std::string &url, unsigned char opt) {
  zxlbStateMachine sm;
  check(zxlb_state_machine_init(&sm, 1 + opt % 8) == 0);  // small: every add grows
  const int skip = (opt >> 3) % 3;
  // Without "*" or immediate results a state's final id is set once, by the
  // pattern that made it, so every such pattern must find its own id again.
  bool plain = true;
  std::vector<std::pair<std::string, int>> made;
  for (std::size_t k = 0; k < entries.size(); ++k) {
    const std::string &p = entries[k].text;
    const int id = static_cast<int>(k) + 2;
    const int match_type = entries[k].opts & 1;
    const int before = sm.state_count;
    // A refused pattern may still have set wildcards before its bad byte.
    plain &= match_type == 0 && p.find('*') == std::string::npos;
    const int rc =
        zxlb_state_machine_add(&sm, p.data(), static_cast<int>(p.size()), id, match_type, skip);
    check(sm.state_count <= sm.max_state);
    if (rc == 0 && sm.state_count > before) made.emplace_back(p.substr(skip), id);
  }
  const int got = zxlb_state_machine_get(&sm, url.data(), static_cast<int>(url.size()), 0);
  check(got == 1 || (got >= 2 && got < static_cast<int>(entries.size()) + 2));
  if (!plain) return;
  for (const auto &[p, id] : made)
    check(zxlb_state_machine_get(&sm, p.data(), static_cast<int>(p.size()), 0) == id);
}

void fuzz_keywords(const std::vector<Entry> &entries, const std::string &url) {
  all_keyword_len = 0;  // process-wide; keeps the automaton's size per input
  ZXBTCustomRule rule;
  for (std::size_t k = 0; k < entries.size(); ++k) {
    const Entry &e = entries[k];
    check(add_to_lexicon(&rule, e.text.c_str(), e.opts >> 4, std::to_string(k).c_str(),
                         static_cast<char>(e.opts % 9)) == 0);
  }
  zxlbTrie trie;
  check(create_match_machine(&trie, &rule) > 0);
  check(trie.out_func.size() == trie.total_states && trie.f_func.size() == trie.total_states);
  // The fast search must name the winner of testing every keyword at every
  // end, with empty entries, long prefixes and bytes outside the alphabet
  // alike.
  const char *got = search_match_machine(url.c_str(), &trie, &rule);
  check(got == search_match_machine_exhaustive(url.c_str(), &trie, &rule));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size < 1) return 0;
  const unsigned char opt = data[0];
  std::string_view rest(reinterpret_cast<const char *>(data) + 1, size - 1);
  std::vector<Entry> entries;
  for (std::size_t nl; entries.size() < 64 && (nl = rest.find('\n')) != std::string_view::npos;
       rest.remove_prefix(nl + 1)) {
    if (nl == 0) continue;
    entries.push_back({static_cast<unsigned char>(rest[0]), std::string(rest.substr(1, nl - 1))});
  }
  const std::string url(rest);
  fuzz_patterns(entries, url, opt);
  fuzz_keywords(entries, url);
  return 0;
}
