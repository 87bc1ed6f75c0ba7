// Settings fields that one thread writes and any thread reads without a lock.
//
// The control thread applies keywords while application threads test trace
// levels, limits and masks on every call. A plain field makes that a data
// race; zx::Relaxed<T> makes every access a relaxed atomic one, which on
// x86-64 compiles to the same single load or store, so hot-path readers pay
// nothing and keep their syntax (implicit load on conversion, store on
// assignment). Readers get some recent value of each field on its own: two
// fields changed by one message may be seen one old, one new.
//
// The value is a plain T reached through std::atomic_ref rather than a
// std::atomic<T>, so the keyword table's converters, which know only an
// address and a width, store into it with an atomic_ref of the same type
// (relaxed_store_bytes). Size, alignment and layout are those of T: the
// table's byte offsets and widths are unchanged.
//
// Read-modify-write operators are load-then-store: the single writer thread
// may use them, readers never modify.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zx {

template <typename T>
class Relaxed {
  static_assert(std::is_arithmetic_v<T> && std::atomic_ref<T>::is_always_lock_free);

 public:
  using value_type = T;

  constexpr Relaxed() noexcept : v_{} {}
  constexpr explicit Relaxed(T v) noexcept : v_(v) {}
  // A copy would be a second, unsynchronised field: read with load().
  Relaxed(const Relaxed &) = delete;

  T load() const noexcept { return std::atomic_ref<T>(v_).load(std::memory_order_relaxed); }
  void store(T v) noexcept { std::atomic_ref<T>(v_).store(v, std::memory_order_relaxed); }
  operator T() const noexcept { return load(); }
  Relaxed &operator=(T v) noexcept {
    store(v);
    return *this;
  }
  Relaxed &operator=(const Relaxed &o) noexcept {
    store(o.load());
    return *this;
  }
  Relaxed &operator+=(T d) noexcept {
    store(static_cast<T>(load() + d));
    return *this;
  }
  Relaxed &operator-=(T d) noexcept {
    store(static_cast<T>(load() - d));
    return *this;
  }

 private:
  alignas(std::atomic_ref<T>::required_alignment) mutable T v_;
};

template <typename T>
inline constexpr bool is_relaxed_v = false;
template <typename T>
inline constexpr bool is_relaxed_v<Relaxed<T>> = true;

// Stores v at `target` as one relaxed atomic store of the type the field
// holds; any address works (an unaligned one is written byte by byte).
template <typename T>
void relaxed_store_at(void *target, T v) noexcept {
  if (reinterpret_cast<std::uintptr_t>(target) % std::atomic_ref<T>::required_alignment == 0) {
    std::atomic_ref<T>(*static_cast<T *>(target)).store(v, std::memory_order_relaxed);
    return;
  }
  const auto *src = reinterpret_cast<const unsigned char *>(&v);
  auto *dst = static_cast<unsigned char *>(target);
  for (std::size_t i = 0; i < sizeof v; ++i)
    std::atomic_ref<unsigned char>(dst[i]).store(src[i], std::memory_order_relaxed);
}

// Stores the low `width` bytes of v (little-endian) at `target`: a 1, 2, 4 or
// 8 byte field gets one atomic store of that size.
inline void relaxed_store_low_bytes(void *target, long long v, int width) noexcept {
  switch (width) {
    case 1:
      relaxed_store_at(target, static_cast<char>(v));
      return;
    case 2:
      relaxed_store_at(target, static_cast<short>(v));
      return;
    case 4:
      relaxed_store_at(target, static_cast<int>(v));
      return;
    case 8:
      relaxed_store_at(target, v);
      return;
    default: {
      auto *dst = static_cast<unsigned char *>(target);
      for (int i = 0; i < width && i < 8; ++i)
        std::atomic_ref<unsigned char>(dst[i]).store(static_cast<unsigned char>(v >> (8 * i)),
                                                     std::memory_order_relaxed);
    }
  }
}

}  // namespace zx
