// The slot pool: per-thread records handed to flowpaths without allocating.
//
// Records come in blocks of 64 that are never freed. Taking and giving back a
// slot is a list operation under tlsMutex (a member of the application). The
// pool keeps one deliberate quirk: taking the last free slot leaves
// gFreeTLSTail on it although it is now busy, so a slot given back while the
// free list is empty is chained behind that busy record, out of reach, and
// the next request makes a new block. The pool therefore only grows.
//
//   free:  gFreeTLSHead -> [r] -> [r] -> ... -> [r] <- gFreeTLSTail
//   busy:  gBusyTLSHead <-> [r] <-> ... <-> [r] <- gBusyTLSTail
//   lost:  a busy record that is still gFreeTLSTail -> [given back] -> ...
#pragma once

#include <array>

#include "ZXPerThreadData.h"

inline constexpr int ZX_TLS_BLOCK_SIZE = 64;

struct ZXAppTracing;

// One block of the pool: its records are made together and never move.
struct ZXTlsBlock {
  std::array<ZXPerThreadData_t, ZX_TLS_BLOCK_SIZE> records;
};

// A new block of 64 records linked as a free list, with slot numbers from
// g_tlsidx and thread numbers loc_BusyTLSCnt + 1 .. + 64; null when memory is
// short. gFreeTLSTail moves to its last record; the caller makes the
// first one gFreeTLSHead. Caller holds tlsMutex.
ZXPerThreadData_t *create_tls_pool(ZXAppTracing *app, int loc_BusyTLSCnt);

// A record moved from the free list to the busy list, or null when no block
// could be made.
ZXPerThreadData_t *get_free_tls_slot(ZXAppTracing *app);

// Gives a busy record back (its owner only), cleared as resetAllThreadLocals
// clears it, so that the next taker need not clear it again. A null record is
// logged; a record that is not busy (already given back, or never taken) is
// ignored and left as it is.
void free_tls_slot(ZXAppTracing *app, ZXPerThreadData_t *record);

// Writes a flowpath still in progress as incomplete, under the record's own
// lock, without resetting it; supplied by the flowpath generator.
using ZXIncompleteFPWriter = void (*)(ZXPerThreadData_t *record, void *user);

// At stop: for each record busy when the walk begins, head first, calls
// `writer` (when given) outside tlsMutex; then flushes the send buffers. The
// records stay busy: their threads may still be inside the transaction, so
// each goes back to the free list only when its owner gives it back.
void dumpFpFromBusyList(ZXAppTracing *app, ZXIncompleteFPWriter writer, void *user);

// Start-up, once the settings are read: makes the first block ahead of the
// first flowpath (none in the proxy server), so that the host's first
// transaction does not pay for it. Optional: without it the first
// get_free_tls_slot makes the block. The block depends on settings (proxy
// server, proxyMode, hotspot capture), which is why the application's
// constructor cannot make it.
void initPerThreadSlots(ZXAppTracing *app);
