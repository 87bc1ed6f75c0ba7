#include "zxlb_utiles.h"

#include <strings.h>

#include <cstring>
#include <ctime>

#include "zxlb_wall_clock.h"

long long my_gettimeofday() {
  // Never a coarse clock: its tick would show in durations.
  return zx::wallClockMs();
}

char *search_keyword(char *line, const char *keyword) {
  if (!line || !keyword) return nullptr;
  if (strncasecmp(line, keyword, strlen(keyword)) != 0) return nullptr;
  char *eq = strchr(line, '=');
  if (!eq || eq[1] == '\0') return nullptr;
  return eq + 1;
}

namespace {

char *split_at(char *text, char sep, char *key, size_t key_size) {
  if (!text || !key || key_size == 0) return nullptr;
  char *at = strchr(text, sep);
  if (!at) return nullptr;
  size_t n = static_cast<size_t>(at - text);
  if (n >= key_size) n = key_size - 1;
  std::memcpy(key, text, n);
  key[n] = '\0';
  return at + 1;
}

}  // namespace

char *split_key_value(char *token, char *key, size_t key_size) {
  return split_at(token, '=', key, key_size);
}

char *split_key_value_colon(char *str, char *dst, size_t dst_size) {
  return split_at(str, ':', dst, dst_size);
}

int zxlb_get_tokens_with_multi_delimiter(char *text, char **tokens, int max_tokens,
                                         const char *delims) {
  if (!text || !tokens || max_tokens <= 0 || !delims) return 0;
  int count = 0;
  char *p = text;
  while (count < max_tokens) {
    p += strspn(p, delims);
    if (*p == '\0') break;
    tokens[count++] = p;
    p += strcspn(p, delims);
    if (*p == '\0') break;
    *p++ = '\0';
  }
  return count;
}
