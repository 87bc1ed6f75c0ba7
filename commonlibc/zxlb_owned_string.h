// Owned, nullable C string for the settings records.
//
// The settings records are addressed by byte offset from the keyword table, so
// they must stay standard-layout; this class holds one pointer and nothing
// else. Null and empty are different states: several rules test "not set yet".
#pragma once

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace zx {

class OwnedString {
 public:
  OwnedString() = default;
  explicit OwnedString(const char *s) { assign(s); }
  OwnedString(const OwnedString &o) { assign(o.p_); }
  OwnedString(OwnedString &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  OwnedString &operator=(const OwnedString &o) {
    if (this != &o) assign(o.p_);
    return *this;
  }
  OwnedString &operator=(OwnedString &&o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~OwnedString() { std::free(p_); }

  // Replaces the value with a copy of `s` (null clears). On allocation
  // failure the field becomes null rather than keeping a stale value.
  void assign(const char *s) {
    char *copy = s ? strdup(s) : nullptr;
    std::free(p_);
    p_ = copy;
  }
  void assign(std::string_view s) {
    char *copy = static_cast<char *>(std::malloc(s.size() + 1));
    if (copy) {
      std::memcpy(copy, s.data(), s.size());
      copy[s.size()] = '\0';
    }
    std::free(p_);
    p_ = copy;
  }
  void reset() { assign(static_cast<const char *>(nullptr)); }

  const char *get() const { return p_; }
  // Never null: for formatting into messages.
  const char *c_str() const { return p_ ? p_ : ""; }
  bool is_set() const { return p_ != nullptr; }
  bool empty() const { return !p_ || !*p_; }
  bool equals(const char *s) const {
    if (!p_ || !s) return p_ == s;
    return std::strcmp(p_, s) == 0;
  }

 private:
  char *p_ = nullptr;
};

}  // namespace zx
