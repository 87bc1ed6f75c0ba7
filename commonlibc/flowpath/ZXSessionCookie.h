// Session cookies of a traced request, the capture decision they drive, and
// the percent-decoding of request texts handed over by application processes.
//
// Cookie values (the value only, not the whole Cookie header; one pair of
// surrounding double quotes is allowed). Fields are plain decimal digits, no
// sign or blanks, leading zeros allowed; a value with a missing, empty,
// extra or out-of-range field is rejected as a whole:
//
//   session cookie  "<sessionId>:<fpCount>:<lastFpStartMs>"
//     sessionId      1 .. LLONG_MAX   -> zxSessionId
//     fpCount        0 .. INT_MAX - 1 -> totalFpcount (flowpaths so far)
//     lastFpStartMs  >= 0, wall clock -> prev_fp_start_time
//   browser cookie  "<sid>:<pageId>:<timeMs>"
//     sid            1 .. LLONG_MAX   -> morSID (21 zero-padded digits fit)
//     pageId, timeMs >= 0             -> ZXPageID, last_fptimestamp_from_cookie
//
// Cookie-setting rule: after the decision the response carries the session
// cookie zx_format_zx_cookie writes; it names this flowpath's session, its
// count and its start, so the next request of the browser continues it.
//
// Keyword "enableZXSession": "<enabled>[%20<maxFPCountInSession>[%20<idleSecs>]]",
// pieces separated by "%20" or blanks, each a non-negative decimal int;
// missing limits are 0 (no limit), pieces past the third are ignored. A
// malformed value changes nothing.
#pragma once

#include <cstddef>

#include "zxlb_relaxed.h"
#include "zxlb_status.h"

struct ZXPerThreadData_t;
struct ZXAppTracing;

struct ZXSessionSettings_t {
  int enabled = 0;                   // 0: no sessions, every flowpath is captured
  int maxFPCountInSession = 0;       // 0: no limit
  int zxSessionIdleTimeOutSecs = 0;  // 0: no limit
};

// An application's session settings, a settings record (ZXAppTracing):
// written by the control thread, read on the request path without locks (a
// snapshot may mix an old and a new field while a keyword is being applied;
// both are valid settings).
struct ZXSessionSettingsRecord_t {
  zx::Relaxed<int> enabled{0};
  zx::Relaxed<int> maxFPCountInSession{0};
  zx::Relaxed<int> zxSessionIdleTimeOutSecs{0};
};

ZXSessionSettings_t zx_session_settings(const ZXAppTracing &app);
void zx_set_session_settings(ZXAppTracing &app, const ZXSessionSettings_t &settings);

// Ok with *out filled, else bad_input with *out untouched.
zx::Status zx_parse_session_settings(const char *text, ZXSessionSettings_t *out);
// Keyword row "enableZXSession": keeps the raw value and applies it.
void parseEnableZXSession(ZXAppTracing &app, char *value, char *keyword, int index);

// Both parsers return 1 when the text was a valid cookie and its fields were
// stored, else 0 with the same fields zeroed: slots are reused, and a stale
// session must never leak into another request.
int parseZXCookieStr(ZXPerThreadData_t *r, const char *text);
int parseRBCookieStr(ZXPerThreadData_t *r, const char *text);

// Writes the session cookie value for r's session with nowMs as the last
// start; returns its length, or 0 (out empty when outSize > 0) when it does
// not fit or r has no session.
std::size_t zx_format_zx_cookie(const ZXPerThreadData_t *r, long long nowMs, char *out,
                                std::size_t outSize);

// A positive session id from the time and a process-wide counter whose start
// differs between processes, so that servers of one cluster rarely collide.
long long zx_new_session_id(long long nowMs);
// Whether a session is instrumented at `pct` percent: a hash of its id, so
// each request of the session gets the same answer without the cookie
// carrying it, and a changed percentage applies to running sessions at once.
bool zx_session_instrumented(long long sessionId, int pct);

void setFPCaptured(ZXPerThreadData_t *r);

// The capture decision of a flowpath start. nowMs is wall-clock milliseconds
// (my_gettimeofday), the clock the cookie carries. Sets tlIsFPCaptured and
// zxSessionId, totalFpcount (this flowpath included), instrumented and
// prev_fp_start_time (0 in a new session). Reads tlIsForceDump, so call it
// after the instance is settled. Sessions off: captured, no session. No
// valid cookie: a new session, captured. Otherwise captured when the session
// is instrumented or the flowpath forced; a session that would exceed
// maxFPCountInSession, or has been idle for at least the idle timeout, is
// replaced by a new one, captured. A cookie time ahead of nowMs counts as
// no idle time.
void zx_decide_capture_ex(const ZXSessionSettings_t &settings, int instrSessionPct,
                          ZXPerThreadData_t *r, const char *ZXCookieStr, long long nowMs);
// The same with app's session settings and bciInstrSessionPct.
void zx_decide_capture(ZXAppTracing *app, ZXPerThreadData_t *r, const char *ZXCookieStr,
                       long long nowMs);

// Percent-decodes `in` into out (outSize bytes, always NUL-terminated when
// outSize > 0) and returns the length written. "%XX" (either case) becomes
// the byte; a '%' not followed by two hex digits, and "%00", stay as written
// (a NUL would cut the text). '+' becomes a blank only after the first
// literal '?' (the query part): in a path, and in a header without one, it
// is data. Output that does not fit is cut.
std::size_t zx_unescape_url(const char *in, char *out, std::size_t outSize);
