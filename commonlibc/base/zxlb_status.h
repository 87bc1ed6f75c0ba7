// The result of an operation that can fail, for every C++ function of the
// core: a function that does something returns a Status, a function that
// answers a question returns bool, a function that counts returns the count.
// Where the protocol fixes a function's codes (0/-1 readers, the C ABI), that
// function converts at its edge with the helpers below.
#pragma once

namespace zx {

enum class Errc : unsigned char {
  ok,
  bad_input,  // malformed or missing argument or text
  no_memory,
  not_found,  // a file or an entry that is not there
  io,         // a system or APR call failed; sysError() has its code
  timed_out,  // a thread still busy at the deadline, left behind
  stopped,    // a stop was asked for before the work was done
  busy,       // another caller is doing it
};

class [[nodiscard]] Status {
 public:
  constexpr Status() noexcept = default;
  constexpr Status(Errc code, int sys_error = 0) noexcept  // NOLINT: implicit from a code
      : code_(code), sys_error_(sys_error) {}

  constexpr bool ok() const noexcept { return code_ == Errc::ok; }
  constexpr Errc code() const noexcept { return code_; }
  // The errno or APR status behind an io failure, else 0.
  constexpr int sysError() const noexcept { return sys_error_; }

  friend constexpr bool operator==(Status a, Status b) noexcept { return a.code_ == b.code_; }

 private:
  Errc code_ = Errc::ok;
  int sys_error_ = 0;
};

inline constexpr Status Ok{};

// Edges whose codes the protocol fixes.
constexpr int asZeroOrMinusOne(Status s) noexcept {
  return s.ok() ? 0 : -1;
}

}  // namespace zx
