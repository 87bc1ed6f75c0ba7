#include "ZXBackendMonitor.h"

#include <new>

bool ZXBackendMonitor_t::grow(int backendId) {
  if (backendId < 0 || backendId >= ZX_MAX_BACKEND_IDS) return false;
  const unsigned slot = static_cast<unsigned>(backendId) / ZX_BACKEND_CHUNK;
  if (dir[slot].load(std::memory_order_acquire)) return true;
  std::lock_guard lk(growLock);
  if (dir[slot].load(std::memory_order_relaxed)) return true;
  std::unique_ptr<Chunk> chunk(new (std::nothrow) Chunk());
  if (!chunk) return false;
  try {
    owned.push_back(std::move(chunk));
  } catch (const std::bad_alloc &) {
    return false;
  }
  dir[slot].store(owned.back().get(), std::memory_order_release);
  return true;
}

ZXBackendCounters *ZXBackendMonitor_t::find(int backendId) const noexcept {
  if (backendId < 0 || backendId >= ZX_MAX_BACKEND_IDS) return nullptr;
  Chunk *c =
      dir[static_cast<unsigned>(backendId) / ZX_BACKEND_CHUNK].load(std::memory_order_acquire);
  return c ? &(*c)[static_cast<unsigned>(backendId) % ZX_BACKEND_CHUNK] : nullptr;
}

void ZXBackendMonitor_t::update(int backendId, long long durationMs, int statusCode) noexcept {
  ZXBackendCounters *c = find(backendId);
  if (!c) return;
  c->count.fetch_add(1, std::memory_order_relaxed);
  if (statusCode > 399) c->errorCount.fetch_add(1, std::memory_order_relaxed);
  c->durationSum.fetch_add(durationMs, std::memory_order_relaxed);
  long long seen = c->maxDuration.load(std::memory_order_relaxed);
  while (durationMs > seen &&
         !c->maxDuration.compare_exchange_weak(seen, durationMs, std::memory_order_relaxed)) {
  }
}

ZXBackendCountersSnapshot ZXBackendMonitor_t::read(int backendId) const noexcept {
  ZXBackendCountersSnapshot s;
  if (const ZXBackendCounters *c = find(backendId)) {
    s.count = c->count.load(std::memory_order_relaxed);
    s.errorCount = c->errorCount.load(std::memory_order_relaxed);
    s.durationSum = c->durationSum.load(std::memory_order_relaxed);
    s.maxDuration = c->maxDuration.load(std::memory_order_relaxed);
  }
  return s;
}
