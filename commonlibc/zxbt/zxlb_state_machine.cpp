#include "zxlb_state_machine.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <new>

#include "zxlb_mt_log.h"

namespace {

constexpr int kDeltaState = 128;

// The pattern alphabet includes 127, unlike the keyword automaton's.
inline bool is_printable(unsigned char c) {
  return c >= 32 && c <= 127;
}

// Resizes every row to `new_size`, new entries zeroed. Capacity is reserved
// for all rows before any size changes, so a failure leaves every row's
// contents and size as they were. max_state grows by a fixed step per
// pattern, so capacity grows geometrically underneath it: thousands of
// patterns then cost amortised linear time, not a copy of every row each.
bool resize_rows(zxlbStateMachine &sm, int new_size) {
  int row = 0;
  try {
    for (; row < ZXLB_SM_ROWS; ++row) {
      std::vector<int> &r = sm.state_machine[row];
      if (r.capacity() >= static_cast<std::size_t>(new_size)) continue;
      const std::size_t want = std::max<std::size_t>(new_size, r.capacity() + r.capacity() / 2);
      r.reserve(std::min<std::size_t>(want, ZXLB_SM_MAX_STATES));
    }
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(static_cast<long long>(new_size) * sizeof(int), "state machine row", row);
    return false;
  }
  for (auto &r : sm.state_machine) r.resize(new_size, 0);
  return true;
}

}  // namespace

int zxlb_state_machine_init(zxlbStateMachine *state_machine, int size) {
  if (!state_machine) return -1;
  zxlb_state_machine_free(state_machine);
  const int max_state = size > 0 ? std::min(size, ZXLB_SM_MAX_STATES) : ZXLB_SM_DEFAULT_SIZE;
  if (!resize_rows(*state_machine, max_state)) {
    state_machine->state_machine = {};
    return -1;
  }
  state_machine->max_state = max_state;
  state_machine->delta_state = kDeltaState;
  state_machine->state_count = 1;
  return 0;
}

int zxlb_state_machine_free(zxlbStateMachine *state_machine) {
  if (!state_machine) return -1;
  if (state_machine->max_state == 0) return 0;
  state_machine->state_machine = {};
  state_machine->max_state = 0;
  state_machine->state_count = 0;
  return 0;
}

int zxlb_state_machine_add(zxlbStateMachine *state_machine, const char *entry, int len, int id,
                           int match_type, int skip_count) {
  if (!state_machine || !entry || len <= 0) return -1;
  zxlbStateMachine &sm = *state_machine;
  if (sm.max_state <= 0 || sm.state_count <= 0) return -1;

  // Room for a whole new path of len states before walking, so the walk
  // itself cannot fail half-way for memory.
  if (static_cast<long long>(len) + sm.state_count + 1 > sm.max_state) {
    long long grown = static_cast<long long>(sm.max_state) + sm.delta_state;
    if (sm.delta_state < len) grown += len;
    if (grown > ZXLB_SM_MAX_STATES) {
      if (static_cast<long long>(len) + sm.state_count + 1 > ZXLB_SM_MAX_STATES) return -1;
      grown = ZXLB_SM_MAX_STATES;
    }
    if (!resize_rows(sm, static_cast<int>(grown))) return -1;
    sm.max_state = static_cast<int>(grown);
  }

  int *const wildcard = sm.state_machine[ZXLB_SM_WILDCARD].data();
  int cur = 0;
  bool created = false;
  for (int i = skip_count > 0 ? skip_count : 0; i < len; ++i) {
    const auto c = static_cast<unsigned char>(entry[i]);
    if (!is_printable(c)) return -1;
    if (c == '*') {
      wildcard[cur] = 1;
      continue;
    }
    int *const row = sm.state_machine[c].data();
    if (row[cur] == 0) {
      row[cur] = sm.state_count++;
      created = true;
    }
    cur = row[cur];
  }
  // First come keeps the state: a path that already existed records nothing.
  if (created) sm.state_machine[match_type == 0 ? ZXLB_SM_FINAL : ZXLB_SM_IMMEDIATE][cur] = id;
  return 0;
}

int zxlb_state_machine_get(const zxlbStateMachine *state_machine, const char *entry, int len,
                           int /*zx_skipCount*/) {
  if (!state_machine || !entry || len <= 0) return ZXLB_SM_OTHERS;
  const zxlbStateMachine &sm = *state_machine;
  if (sm.max_state == 0 || sm.state_count == 0) return ZXLB_SM_OTHERS;

  const int *const immediate = sm.state_machine[ZXLB_SM_IMMEDIATE].data();
  const int *const final_id = sm.state_machine[ZXLB_SM_FINAL].data();
  const int *const wildcard = sm.state_machine[ZXLB_SM_WILDCARD].data();
  // States are unsigned here so that indexing needs no sign extension on the
  // load-to-load chain that bounds a lookup.
  unsigned cur = 0;
  unsigned last_skip_state = 0;
  bool scanned_all = true;
  // The back-off re-reads a character without advancing; it lands on a
  // wildcard state, which consumes or moves on the next round, so every
  // character is read at most twice.
  const auto *p = reinterpret_cast<const unsigned char *>(entry);
  const unsigned char *const end = p + len;
  while (p != end) {
    const unsigned char c = *p;
    if (!is_printable(c)) return ZXLB_SM_OTHERS;
    const bool is_wildcard = wildcard[cur] != 0;
    if (is_wildcard) last_skip_state = cur;
    const auto next = static_cast<unsigned>(sm.state_machine[c][cur]);
    if (next) [[likely]] {
      cur = next;
      if (immediate[cur]) return immediate[cur];
      ++p;
    } else if (!is_wildcard) {
      // A final match ignores the query string.
      if (c == '?' && final_id[cur]) {
        scanned_all = false;
        break;
      }
      // The root is never a back-off point, even under a leading "*".
      if (last_skip_state < 1) return ZXLB_SM_OTHERS;
      cur = last_skip_state;
    } else {
      ++p;
    }
  }
  if (final_id[cur]) return final_id[cur];
  if (scanned_all && immediate[cur]) return immediate[cur];
  return ZXLB_SM_OTHERS;
}
