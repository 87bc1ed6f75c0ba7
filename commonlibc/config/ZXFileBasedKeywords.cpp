#include "ZXFileBasedKeywords.h"
#include "zxlb_fork_safe_mutex.h"

#include <cstring>
#include <mutex>

#include "Server.h"

namespace {

// Readers by keyword row. Registration happens at start-up or in tests,
// dispatch on the control thread; the mutex keeps both orders safe.
zx::ForkSafeMutex readersMutex;
ZXFileKeywordReader readers[ZX_KEYWORD_COUNT] = {};

}  // namespace

void registerFileKeywordReader(const char *keyword, ZXFileKeywordReader reader) {
  int index = NameToIndex(keyword);
  if (index < 0) return;
  std::lock_guard guard(readersMutex);
  readers[index] = reader;
}

void ZXFileBasedKeywords(ZXAppSettings &app, char *value, char *keyword, int index) {
  if (index < 0 || index >= ZX_KEYWORD_COUNT) return;
  ZXFileKeywordReader reader;
  {
    std::lock_guard guard(readersMutex);
    reader = readers[index];
  }
  if (reader) reader(app, value, keyword, index);
}
