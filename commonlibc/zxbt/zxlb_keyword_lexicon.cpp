#include "zxlb_keyword_lexicon.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "zx_bt_custom_rule.h"
#include "zxlb_mt_log.h"

std::atomic<unsigned int> all_keyword_len{0};
std::atomic<ZXLBKeywordLexicon *> DictionaryHeadPointer{nullptr};

namespace {

// Grows the lexicon to at least `count` entries, new ones zeroed. Geometric,
// so a long rule file costs amortised constant time per keyword.
bool ensure_entries(ZXBTCustomRule &rule, std::size_t count) {
  if (rule.dictionary.size() >= count) return true;
  const std::size_t want = std::max(count, 2 * rule.dictionary.size());
  try {
    rule.dictionary.resize(want, ZXLBKeywordLexicon{});
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(want * sizeof(ZXLBKeywordLexicon), "keyword lexicon", rule.keyword_count);
    return false;
  }
  DictionaryHeadPointer = rule.dictionary.data();
  return true;
}

// Copies at most size - 1 bytes and terminates; the length copied.
std::size_t copy_cut(char *dst, std::size_t size, const char *src) {
  const std::size_t n = src ? strnlen(src, size - 1) : 0;
  if (n) std::memcpy(dst, src, n);
  dst[n] = '\0';
  return n;
}

// Clears DictionaryHeadPointer when it names these entries, and only then:
// another application's reader may have moved it on meanwhile.
void forget(const std::vector<ZXLBKeywordLexicon> &entries) {
  if (entries.empty()) return;
  ZXLBKeywordLexicon *expected = const_cast<ZXLBKeywordLexicon *>(entries.data());
  DictionaryHeadPointer.compare_exchange_strong(expected, nullptr);
}

}  // namespace

int zxlb_build_lexicon(ZXBTCustomRule *rule) {
  if (!rule) return -1;
  std::vector<ZXLBKeywordLexicon> fresh;
  try {
    fresh.resize(ZXLB_LEXICON_INITIAL, ZXLBKeywordLexicon{});
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(ZXLB_LEXICON_INITIAL * sizeof(ZXLBKeywordLexicon), "keyword lexicon", 0);
    return -1;
  }
  rule->dictionary.swap(fresh);
  rule->keyword_count = 0;
  DictionaryHeadPointer = rule->dictionary.data();
  return 0;
}

int add_to_lexicon(ZXBTCustomRule *rule, const char *keyword, unsigned int priority,
                   const char *bt_name, char match_constraint) {
  if (!rule || !keyword) return -1;
  if (rule->dictionary.empty() && zxlb_build_lexicon(rule) != 0) return -1;

  const unsigned int index = rule->keyword_count;
  // The first growth has always jumped the count from 20 to 40 before
  // storing the 21st keyword; the empty entries it leaves match nothing, and
  // the indexes it gives order ties, so it is kept.
  const unsigned int count_after = index == ZXLB_LEXICON_INITIAL ? 2 * index + 1 : index + 1;
  if (count_after > ZXLB_LEXICON_MAX) {
    ZX_LOG_IF(true, "BT_MON", "Error", "Keyword lexicon is full (%u entries), keyword '%s' dropped",
              index, keyword);
    return -1;
  }
  if (!ensure_entries(*rule, count_after)) return -1;

  ZXLBKeywordLexicon &e = rule->dictionary[index];
  const std::size_t len = copy_cut(e.keyword, sizeof e.keyword, keyword);
  copy_cut(e.bt_name, sizeof e.bt_name, bt_name);
  e.elements_len = static_cast<unsigned int>(len);
  e.priority = priority;
  e.match_constraint = match_constraint;
  rule->keyword_count = count_after;
  all_keyword_len.fetch_add(static_cast<unsigned int>(len), std::memory_order_relaxed);
  return 0;
}

void dealloc_lexicon(ZXBTCustomRule *rule) {
  if (!rule) return;
  forget(rule->dictionary);
  std::vector<ZXLBKeywordLexicon>().swap(rule->dictionary);
  rule->keyword_count = 0;
}

ZXBTCustomRule::~ZXBTCustomRule() {
  forget(dictionary);
}
