// Per-backend call-out counters, by the backend's method id.
//
// A backend's counters are made when its record is made (grow), off the hot
// path; a call-out's end only adds to them with relaxed atomics. Chunks are
// published before their ids are used and never move, so readers and
// updaters take no lock.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

inline constexpr int ZX_BACKEND_CHUNK = 256;
inline constexpr int ZX_MAX_BACKEND_IDS = 1 << 20;  // the method id space

struct ZXBackendCounters {
  std::atomic<long long> count{0};
  std::atomic<long long> errorCount{0};  // calls ended while the status was above 399
  std::atomic<long long> durationSum{0};
  std::atomic<long long> maxDuration{0};
};

struct ZXBackendCountersSnapshot {
  long long count = 0, errorCount = 0, durationSum = 0, maxDuration = 0;
};

class ZXBackendMonitor_t {
 public:
  // Makes room for the backend's counters. false for an id out of range or
  // no memory.
  bool grow(int backendId);
  // One finished call-out; ignored when the backend was never grown.
  void update(int backendId, long long durationMs, int statusCode) noexcept;
  ZXBackendCountersSnapshot read(int backendId) const noexcept;

 private:
  using Chunk = std::array<ZXBackendCounters, ZX_BACKEND_CHUNK>;
  ZXBackendCounters *find(int backendId) const noexcept;

  std::mutex growLock;  // guards owned and the making of chunks
  std::vector<std::unique_ptr<Chunk>> owned;
  std::array<std::atomic<Chunk *>, ZX_MAX_BACKEND_IDS / ZX_BACKEND_CHUNK> dir{};
};
