// Owned, nullable C strings for the settings records.
//
// The settings records are addressed by byte offset from the keyword table, so
// they must stay standard-layout; these classes hold one pointer (or one
// shared pointer and its lock) and nothing else. Null and empty are different
// states: several rules test "not set yet".
//
// OwnedString is for fields that only their writer thread reads (or that are
// fixed once other threads run). PublishedString is for fields that a keyword
// replaces while other threads read them: a value, once published, is never
// changed or freed under a reader that loaded it.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
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
//
// A mutex rather than std::atomic<std::shared_ptr>: this library's version of
// the latter releases its internal lock with a relaxed store after a load,
// which ThreadSanitizer rightly reports. Readers are rare (gathered trace
// lines), so the lock costs nothing that matters.
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
    std::lock_guard lk(mu_);
    v_.swap(copy);  // the old value is freed outside the lock, or by its last reader
  }
  void reset() { assign(nullptr); }

  TextSnapshot load() const {
    std::lock_guard lk(mu_);
    return TextSnapshot(v_);
  }

  // Writer thread: only it changes v_, so it reads v_ without the lock.
  const char *get() const { return v_ ? v_->c_str() : nullptr; }
  const char *c_str() const { return v_ ? v_->c_str() : ""; }
  bool is_set() const { return v_ != nullptr; }
  bool empty() const { return !v_ || v_->empty(); }
  bool equals(const char *s) const {
    if (!v_ || !s) return !v_ && !s;
    return *v_ == s;
  }

 private:
  mutable std::mutex mu_;  // guards replacing v_ against readers copying it
  std::shared_ptr<const std::string> v_;
};

}  // namespace zx
