/*
 * Tier call-out header and thread call-out records, for hosts.
 *
 * A host that calls another monitored tier passes the text of getTierCallOut
 * along with the call (for example as an HTTP header); the receiving tier
 * gives it to setTierCallOut, so both flowpaths join one chain. The record is
 * the business-transaction handle of the SDK. None of these functions block
 * or throw.
 */
#ifndef ZX_TIER_CALLOUT_H
#define ZX_TIER_CALLOUT_H

#include "zx_agent.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZXPerThreadData_t ZXPerThreadData_t;

/* The header for the next outgoing call of this flowpath; each call gives a
 * new sequence number. The text stays valid until the next call for the same
 * record. NULL for a NULL record or when memory is short. */
ZX_EXPORT const char *getTierCallOut(ZXPerThreadData_t *record);

/* Joins this flowpath to the caller's chain. 0, or -1 when the header is NULL
 * or lacks the two "_" separators (the record is then unchanged). */
ZX_EXPORT int setTierCallOut(ZXPerThreadData_t *record, const char *header);

/* Frees the record of a thread started by a traced thread, once that thread
 * is done; unknown ids are ignored. The record is looked up in the calling
 * thread's application, which for a host's thread is the process's. */
ZX_EXPORT void cleanThreadIdToThreadLocal(long long thread_id);

#ifdef __cplusplus
}
#endif

#endif /* ZX_TIER_CALLOUT_H */
