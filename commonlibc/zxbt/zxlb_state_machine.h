// The URL pattern automaton: a character trie over the pattern rules that
// turns a request URL into a BT id without a regular-expression engine.
//
// The rule reader fills it (zxlb_state_machine_add) and request threads query
// it (zxlb_state_machine_get) at transaction start, without a lock. A lookup
// never allocates, never copies the URL and never changes the automaton; an
// automaton is a plain value, so a reload can build a new one aside and
// publish it whole.
//
// Storage is one row per character code, indexed by state, plus three result
// rows; memory is traded for one array load per character. "/a*" stored as
// final id 7:
//
//             s0   s1   s2
//   row '/' [  1 ][  0 ][  0 ]   transitions: the state reached, 0 = none
//   row 'a' [  0 ][  2 ][  0 ]
//   row 128 [  0 ][  0 ][  0 ]   immediate id: returned as soon as reached
//   row 129 [  0 ][  0 ][  7 ]   final id: returned when the scan ends there
//   row 130 [  0 ][  0 ][  1 ]   wildcard: s2 swallows unknown characters
//
// A lookup that fails past a wildcard backs off to the last wildcard seen and
// reads the failing character again from there.
#pragma once

#include <array>
#include <vector>

inline constexpr int ZXLB_SM_ROWS = 131;
inline constexpr int ZXLB_SM_IMMEDIATE = 128;
inline constexpr int ZXLB_SM_FINAL = 129;
inline constexpr int ZXLB_SM_WILDCARD = 130;
inline constexpr int ZXLB_SM_DEFAULT_SIZE = 128;
inline constexpr int ZXLB_SM_OTHERS = 1;  // the BT id when nothing matches
// 131 rows of this many ints is 137 MB: a pattern that would need more
// states is refused.
inline constexpr int ZXLB_SM_MAX_STATES = 1 << 18;

// Default-constructed it is empty (max_state 0) and answers ZXLB_SM_OTHERS.
struct zxlbStateMachine {
  // Rows 0 to 127 are transitions by character code (0 to 31 stay unused);
  // every row holds max_state entries.
  std::array<std::vector<int>, ZXLB_SM_ROWS> state_machine;
  int state_count = 0;  // states in use; state 0 is the root
  int max_state = 0;    // entries per row
  int delta_state = 0;  // growth step
};

// Capacity `size` states (128 when size <= 0, at most ZXLB_SM_MAX_STATES),
// the root only. 0, or -1 with
// the automaton left empty when memory is short.
int zxlb_state_machine_init(zxlbStateMachine *state_machine, int size);

// Frees the rows; 0 (also when already empty), -1 for null.
int zxlb_state_machine_free(zxlbStateMachine *state_machine);

// Stores `entry` (its first skip_count characters left out) with BT `id` as
// a final result (match_type 0) or an immediate one (any other). The first
// pattern to reach a state keeps it: a duplicate or a prefix of an earlier
// pattern changes no id and still returns 0. -1 for a null or uninitialised
// automaton, an empty entry, a character outside 32..127 (states made so far
// stay) or a failed growth, also past ZXLB_SM_MAX_STATES (the automaton stays
// as it was).
int zxlb_state_machine_add(zxlbStateMachine *state_machine, const char *entry, int len, int id,
                           int match_type, int skip_count);

// The BT id for a URL of `len` bytes; ZXLB_SM_OTHERS when nothing matches or
// a byte is outside 32..127. zx_skipCount is ignored: only stored patterns are
// skipped.
int zxlb_state_machine_get(const zxlbStateMachine *state_machine, const char *entry, int len,
                           int zx_skipCount);
