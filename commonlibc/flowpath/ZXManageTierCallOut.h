// The tier call-out header: what a traced call carries to the next tier.
//
// The text is first_own_path.seq: the chain's first flowpath, the caller's own
// flowpath (each with "F" behind it when forced), and the caller's position,
// which is the previous tier's path (prevTierSeq) or, on the first tier, the
// thread number, followed by a point and the call's sequence number. Each
// tier so appends one level to the path it received. The exported C entries
// are declared in zx_tier_callout.h.
#pragma once

#include "ZXPerThreadData.h"
#include "zxlb_status.h"

// Builds the header for an outgoing call into the record's
// tierCallOutHeader (grown as needed; no length limit) and returns it; null
// for a null record or when memory is short. Advances seqNum.
const char *buildTierCallOut(ZXPerThreadData_t *record);

// Parses an incoming header: first, previous and the path up to any further
// "_". bad_input without two "_" (the record is then unchanged) or for null
// input.
zx::Status parseTierCallOut(ZXPerThreadData_t *record, const char *header);
