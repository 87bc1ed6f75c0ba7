#include "zxbt_utils.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

char getOperationType(const char *op) {
  if (!op) return ZXBT_OP_INVALID;
  static constexpr struct {
    const char *word;
    char code;
  } kOps[] = {{"startswith", ZXBT_OP_STARTS_WITH},
              {"endswith", ZXBT_OP_ENDS_WITH},
              {"contains", ZXBT_OP_CONTAINS},
              {"EQUALS", ZXBT_OP_EQUALS},
              {"matchesRegExp", ZXBT_OP_MATCHES_REGEXP},
              {"notEmpty", ZXBT_OP_NOT_EMPTY},
              {"inList", ZXBT_OP_IN_LIST}};
  for (const auto &o : kOps) {
    if (strncasecmp(op, o.word, strlen(o.word)) == 0) return o.code;
  }
  return ZXBT_OP_INVALID;
}

char getHTTPMethodValue(const char *method) {
  if (!method) {
    ZXBT_LOG(0, "Error", "Method passed is NULL");
    return static_cast<char>(255);
  }
  static constexpr const char *kMethods[] = {"GET", "POST", "PUT", "DELETE"};
  for (int i = 0; i < 4; ++i) {
    if (strcasecmp(method, kMethods[i]) == 0) return static_cast<char>(i);
  }
  ZXBT_LOG(0, "Error", "Invalid method name is passed");
  return static_cast<char>(255);
}

int getLineFromFile(const char *path, std::string &file_buf) {
  file_buf.clear();
  struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
  };
  std::unique_ptr<FILE, FileCloser> fp(path ? fopen(path, "r") : nullptr);
  if (!fp) {
    ZXBT_FILE_ERROR("Error in opening file %s\n", path ? path : "(null)");
    return -1;
  }
  // The size only sizes the first read: the file may change while it is
  // read, so reading goes on to its end (within the bound).
  struct stat st {};
  if (fstat(fileno(fp.get()), &st) == 0 && st.st_size > 0 &&
      static_cast<unsigned long long>(st.st_size) <= ZXBT_MAX_FILE_SIZE)
    file_buf.reserve(static_cast<std::size_t>(st.st_size));
  char chunk[8192];
  std::size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, fp.get())) > 0) {
    if (file_buf.size() + n > ZXBT_MAX_FILE_SIZE) {
      ZXBT_FILE_ERROR("File %s is larger than %zu bytes, not read", path, ZXBT_MAX_FILE_SIZE);
      file_buf.clear();
      return -1;
    }
    file_buf.append(chunk, n);
  }
  if (ferror(fp.get())) {
    ZXBT_FILE_ERROR("Error in writing, Bytes read = %d", static_cast<int>(file_buf.size()));
    file_buf.clear();
    return -1;
  }
  return 0;
}

const char *getNextLine(char *line, int size, const char **buffer) {
  if (!buffer || !*buffer || !**buffer) {
    ZXBT_LOG(2, "Info", "Buffer passed is empty");
    return nullptr;
  }
  const char *start = *buffer;
  const char *nl = strchr(start, '\n');
  const std::size_t len = nl ? static_cast<std::size_t>(nl - start) : strlen(start);
  if (line && size > 0) {
    const std::size_t n = len < static_cast<std::size_t>(size - 1) ? len : size - 1;
    memcpy(line, start, n);
    line[n] = '\0';
  }
  *buffer = nl ? nl + 1 : nullptr;
  return start;
}

std::size_t zxbt_copy(char *dst, std::size_t size, const char *src) {
  if (!dst || size == 0) return 0;
  const std::size_t n = src ? strnlen(src, size - 1) : 0;
  if (n) memcpy(dst, src, n);
  dst[n] = '\0';
  return n;
}
