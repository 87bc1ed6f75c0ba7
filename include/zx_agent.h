/*
 * Start-up entry of the agent core.
 *
 * A language agent loads the library and calls agent_init once, on one
 * thread, before any other call. The call never blocks on the network: all
 * collector work happens on the control thread that it starts.
 */
#ifndef ZX_AGENT_H
#define ZX_AGENT_H

#if defined(__GNUC__)
#define ZX_EXPORT __attribute__((visibility("default")))
#else
#define ZX_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZXProxyInstance_t ZXProxyInstance_t;
typedef struct ZXProxyServer_t ZXProxyServer_t;

/* Set non-zero by the embedding program before agent_init to run as the
 * proxy server. */
ZX_EXPORT extern int startedWithExc;
/* The proxy server's record; its first word is the proxy flag. */
ZX_EXPORT extern ZXProxyServer_t ZXProxy;
/* The application object; both always hold the same pointer. */
ZX_EXPORT extern ZXProxyInstance_t *ZXProxyInstance;
ZX_EXPORT extern ZXProxyInstance_t *tlzxApplication;
/* Pool and process name as given to agent_init (or their defaults). */
ZX_EXPORT extern char gPool[256];
ZX_EXPORT extern char gProcessName[256];

/* Configures the agent from its defaults, the MOR_APP_AGENT_* environment
 * and <ZXHOME>/config/zxsettings.conf, opens the trace log and, when
 * connect_zxc > 0, starts the control thread. Any argument may be NULL
 * (agentType NULL means "PHP"). Call once per process. */
ZX_EXPORT void agent_init(char *pool, int connect_zxc, char *process_name, char *agentType);

#ifdef __cplusplus
}
#endif

#endif /* ZX_AGENT_H */
