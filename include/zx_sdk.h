/*
 * Instrumentation SDK: how a host without bytecode instrumentation reports
 * its own business transactions, methods and call-outs to other tiers.
 *
 * One transaction:
 *
 *   zxBTHandle bt = zx_bt_begin("/shop/cart", NULL);
 *   zx_method_entry(bt, "Cart.load");
 *   zxIPCallOutHandle db = zx_ip_db_callout_begin(bt, "orders-db", "SELECT ...");
 *   zx_ip_db_callout_end(bt, db);
 *   zx_method_exit(bt, "Cart.load");
 *   zx_bt_end(bt, 200);
 *   zx_bt_release(bt);
 *
 * The header to pass to the next tier comes from getTierCallOut
 * (zx_tier_callout.h). Every function returns at once with its neutral result
 * (0, -1 or NULL as listed) before zx_init, after zx_free, while the
 * collector has no test run going, on NULL or empty arguments, and when the
 * core fails inside (no memory): nothing is thrown into the host and no
 * function blocks on the network.
 *
 * A NULL handle is the normal state while no run is going, and a call on it
 * costs a few nanoseconds: neutral results are counted per reason, and the
 * SDK log gets a summary of the counts at most every 10 seconds, never a line
 * per call. Real errors (a bad argument on a live handle) are logged, at most
 * 20 lines per 10 seconds.
 */
#ifndef ZX_SDK_H
#define ZX_SDK_H

#include <stddef.h>
#include <stdint.h>

#include "zx_agent.h"
#include "zx_tier_callout.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One business transaction in progress (the flowpath's per-thread record).
 * It belongs to the thread that began it but may be parked with zx_bt_store
 * and used from another thread, one thread at a time. */
typedef ZXPerThreadData_t *zxBTHandle;
/* One backend called out to (its method-table record). Valid for the rest of
 * the process. */
typedef struct methodPropProperties *zxIPCallOutHandle;

/* The host's callback, registered with register_callback_for_agent: the core
 * hands it a keyword and its value. Stored; called by features that need the
 * host's help. */
typedef void (*zx_agent_callback_t)(const char *keyword, const char *value);
/* The host's auto-discovery callback: the core hands it a request text. */
typedef void (*zx_ad_callback_t)(const char *request);

/* Starts the agent core (agent_init with the process's short name, or
 * "zxsdk", as pool) and the SDK, then pauses so that the collector connection
 * can come up: until the collector starts a run, at most 30 seconds unless
 * zx_set_init_pause_ms said otherwise. A second call returns at once. */
ZX_EXPORT void zx_init(void);
/* The pause of the next zx_init, in milliseconds (default 30000). */
ZX_EXPORT void zx_set_init_pause_ms(unsigned int pause_ms);
/* Drops the SDK's state (stored handles, the SDK log). The agent core keeps
 * running; zx_init may be called again. Call it while no other thread is
 * inside an SDK call. */
ZX_EXPORT void zx_free(void);

/* Opens a transaction named bt_name (classified by the BT rules as a URL).
 * correlation_header is not used. NULL for an empty name, or when no
 * transaction can be traced now (no run going, no memory); the later calls
 * take that NULL as it is. */
ZX_EXPORT zxBTHandle zx_bt_begin(const char *bt_name, const char *correlation_header);
/* Ends it with an HTTP-like status (above 399 counts as an error where the
 * rules say so) and sends its records. 0, or -1 for a NULL handle or one
 * already ended (a second end sends and counts nothing). The handle stays
 * valid until zx_bt_release. */
ZX_EXPORT int zx_bt_end(zxBTHandle bt_handle, int bt_status);
/* Gives the transaction's slot back for reuse and forgets any id it was
 * stored under; one not yet ended is ended first with its current status. A
 * host calls it once per zx_bt_begin, after zx_bt_end: without it every
 * transaction keeps its slot (about 20 KB) for good. The handle is invalid
 * afterwards. 0, or -1 for a NULL handle. */
ZX_EXPORT int zx_bt_release(zxBTHandle bt_handle);

/* Parks a handle under a text id for zx_bt_get on another thread. The text
 * is used as the key as it is: the caller keeps it alive and unchanged until
 * the handle is released. An id already stored keeps its first handle. */
ZX_EXPORT void zx_bt_store(zxBTHandle bt_handle, const char *unique_bt_id);
/* The handle stored under the id, or NULL. */
ZX_EXPORT zxBTHandle zx_bt_get(const char *unique_bt_id);
/* Accepted and ignored; returns 0. */
ZX_EXPORT int zx_bt_add_error(zxBTHandle bt_handle, int err_level, const char *message,
                              int mark_bt_as_error);

/* A method of the transaction begins or ends. Names are given ids on first
 * use; entries and exits pair up like a call stack. */
ZX_EXPORT void zx_method_entry(zxBTHandle bt_handle, const char *method);
ZX_EXPORT void zx_method_exit(zxBTHandle bt_handle, const char *method);

/* A call to a database (named by db_host) or an HTTP backend begins; the
 * result is the backend's handle, or NULL. Nested calls of the same kind
 * count once: the call-out is recorded when the outermost one ends. */
ZX_EXPORT zxIPCallOutHandle zx_ip_db_callout_begin(zxBTHandle bt_handle, const char *db_host,
                                                   const char *db_query);
ZX_EXPORT zxIPCallOutHandle zx_ip_http_callout_begin(zxBTHandle bt_handle, const char *http_host,
                                                     const char *url);
/* The call ends: 0, or -1 for a NULL argument. */
ZX_EXPORT int zx_ip_db_callout_end(zxBTHandle bt_handle, zxIPCallOutHandle ip_handle);
ZX_EXPORT int zx_ip_http_callout_end(zxBTHandle bt_handle, zxIPCallOutHandle ip_handle);

/* Handles as integers, for hosts that cannot hold pointers. */
ZX_EXPORT uintptr_t bt_handle_to_int(zxBTHandle bt_handle);
ZX_EXPORT zxBTHandle bt_int_to_handle(uintptr_t value);
ZX_EXPORT uintptr_t ip_handle_to_int(zxIPCallOutHandle ip_handle);
ZX_EXPORT zxIPCallOutHandle ip_int_to_handle(uintptr_t value);

/* Registers the host's callbacks (NULL clears). 0, or -1 before zx_init. */
ZX_EXPORT int register_callback_for_agent(zx_agent_callback_t ptrfunc);
ZX_EXPORT void register_AD_callback(zx_ad_callback_t adfunc);

/* Records handed to the data connection since the agent started, and those
 * of them lost for any cause of zx_data_counters_t. Either pointer may be
 * NULL. */
ZX_EXPORT void zx_data_counters(unsigned long long *records, unsigned long long *dropped);

/* Where the record lines handed to the data connection went. At any moment
 * records == sent + queued + the four lost_ counts. */
typedef struct zx_data_counters_s {
  unsigned long long records;        /* record lines handed to the data connection */
  unsigned long long sent;           /* written whole to the data socket */
  unsigned long long queued;         /* waiting in the send buffers now */
  unsigned long long lost_pool_full; /* every send buffer was full */
  unsigned long long lost_conn_down; /* discarded unsent: connection down or broken */
  unsigned long long lost_at_exit;   /* still queued when the exit deadline passed */
  unsigned long long lost_oversized; /* too large for a send buffer */
} zx_data_counters_t;
/* Fills *out (size = sizeof(zx_data_counters_t) as the caller knows it;
 * fields beyond it are not written). 0, or -1 for NULL / before the agent
 * started. */
ZX_EXPORT int zx_data_counters_get(zx_data_counters_t *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZX_SDK_H */
