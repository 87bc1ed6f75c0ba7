// Text helpers of the BT rule files. The BT trace gate (ZXBT_LOG) and
// zxbt_parse_int are the BT monitor's, which reads keyword values with it.
#pragma once

#include <cstddef>
#include <string>

#include "ZXBTMonitor.h"
#include "ZXBTTrace.h"

inline constexpr int ZXBT_LINE_SIZE = 1024;  // longer lines are cut to 1,023
// A rule or threshold file is read whole; one above this is refused.
inline constexpr std::size_t ZXBT_MAX_FILE_SIZE = std::size_t{16} << 20;

// Operation codes of keyword criteria.
enum : char {
  ZXBT_OP_STARTS_WITH = 1,
  ZXBT_OP_ENDS_WITH = 2,
  ZXBT_OP_CONTAINS = 3,
  ZXBT_OP_EQUALS = 4,
  ZXBT_OP_MATCHES_REGEXP = 5,
  ZXBT_OP_NOT_EMPTY = 6,
  ZXBT_OP_IN_LIST = 7,
  ZXBT_OP_INVALID = static_cast<char>(255),
};

// Rule-file shape errors go to the control-thread module as errors.
#define ZXBT_FILE_ERROR(...) ZX_LOG_IF(true, "CONTROL_THREAD", "Error", __VA_ARGS__)

// Case-insensitive on the operation's own letters, so any word that begins
// with "contains" is "contains"; ZXBT_OP_INVALID otherwise.
char getOperationType(const char *op);

// "GET" 0, "POST" 1, "PUT" 2, "DELETE" 3 (whole text, any case); 255 else.
char getHTTPMethodValue(const char *method);

// Reads the whole file into file_buf. 0, or -1 when it can't be opened, read
// or is larger than ZXBT_MAX_FILE_SIZE (file_buf is then empty).
int getLineFromFile(const char *path, std::string &file_buf);

// Copies the next line at *buffer into `line` (at most size - 1 characters)
// and advances *buffer past its newline, or to null after the last line.
// Non-null while a line was produced; null at the end. The text is never
// changed.
const char *getNextLine(char *line, int size, const char **buffer);

// Copies at most size - 1 bytes of src (null: nothing) and terminates; the
// length copied.
std::size_t zxbt_copy(char *dst, std::size_t size, const char *src);
