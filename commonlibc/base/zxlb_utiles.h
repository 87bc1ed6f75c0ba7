// Small string and time helpers shared by every module. None allocates; all
// accept null arguments and never write past the sizes they are given.
#pragma once

#include <cstddef>

// Milliseconds since the epoch.
long long my_gettimeofday();

// When `line` begins with `keyword` (case-insensitive, over the keyword's
// length), the text after the first "=" of the line; null otherwise or when
// that value is empty. A prefix test: "tier" also claims "tierXYZ=...".
char *search_keyword(char *line, const char *keyword);

// Copies the text before the first "=" (or ":") into `key` (at most
// key_size - 1 bytes, always terminated) and returns the text after it.
// Null when an argument is null or the separator is missing; `key` is then
// untouched.
char *split_key_value(char *token, char *key, size_t key_size);
char *split_key_value_colon(char *str, char *dst, size_t dst_size);

// Splits `text` in place at any of `delims`, skipping runs of delimiters, into
// at most `max_tokens` tokens; text after the last token taken is ignored.
// Returns the number of tokens.
int zxlb_get_tokens_with_multi_delimiter(char *text, char **tokens, int max_tokens,
                                         const char *delims);
