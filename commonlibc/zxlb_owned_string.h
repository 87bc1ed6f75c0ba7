// Owned, nullable C strings for the settings records.
//
// The settings records are addressed by byte offset from the keyword table, so
// they must stay standard-layout; these classes hold one pointer (or one
// atomic shared pointer) and nothing else. Null and empty are different
// states: several rules test "not set yet".
//
// OwnedString is for fields that only their writer thread reads (or that are
// fixed once other threads run). PublishedString is for fields that a keyword
// replaces while other threads read them: a value, once published, is never
// changed or freed under a reader that loaded it.
#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
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

// One published value of a PublishedString; keeps it alive while held.
class TextSnapshot {
 public:
  explicit TextSnapshot(std::shared_ptr<const std::string> p) : p_(std::move(p)) {}
  // Never null: for formatting into messages.
  const char *c_str() const { return p_ ? p_->c_str() : ""; }
  bool is_set() const { return p_ != nullptr; }

 private:
  std::shared_ptr<const std::string> p_;
};

// Written by one thread; load() is for any thread. The accessors that return
// a raw pointer are for the writer thread (or when no writer runs): the
// pointer stays valid until that thread's next assign.
class PublishedString {
 public:
  PublishedString() = default;
  PublishedString(const PublishedString &) = delete;
  PublishedString &operator=(const PublishedString &) = delete;

  // Publishes a copy of `s` (null clears); on allocation failure the field
  // becomes null rather than keeping a stale value.
  void assign(const char *s) {
    std::shared_ptr<const std::string> copy;
    if (s) {
      try {
        copy = std::make_shared<const std::string>(s);
      } catch (...) {
      }
    }
    v_.store(std::move(copy), std::memory_order_release);
  }
  void reset() { assign(nullptr); }

  TextSnapshot load() const { return TextSnapshot(v_.load(std::memory_order_acquire)); }

  const char *get() const {
    auto p = v_.load(std::memory_order_acquire);
    return p ? p->c_str() : nullptr;  // v_ still owns it
  }
  const char *c_str() const {
    const char *p = get();
    return p ? p : "";
  }
  bool is_set() const { return get() != nullptr; }
  bool empty() const { return !get() || !*get(); }
  bool equals(const char *s) const {
    const char *p = get();
    if (!p || !s) return p == s;
    return std::strcmp(p, s) == 0;
  }

 private:
  std::atomic<std::shared_ptr<const std::string>> v_;
};

}  // namespace zx
