#include "ZXSessionCookie.h"

#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ZXAppTracing.h"
#include "ZXFeatureKeywords.h"
#include "ZXPerThreadData.h"
#include "zxlb_mt_log.h"

namespace {

std::atomic<std::uint32_t> gSessionSeq{0};

// Longer than any valid value; caps the work a hostile cookie can cause on
// the request path.
constexpr std::size_t kMaxCookieLen = 128;

std::uint64_t mix64(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// Reads one run of digits at p into out when its value is within [min, max].
bool readNumber(const char *&p, long long min, long long max, long long &out) {
  if (*p < '0' || *p > '9') return false;
  long long v = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    const int d = *p - '0';
    if (v > (max - d) / 10) return false;
    v = v * 10 + d;
  }
  if (v < min) return false;
  out = v;
  return true;
}

struct FieldRange {
  long long min, max;
};

// Exactly three ':'-separated numbers, optionally inside one pair of quotes.
bool readCookie(const char *text, const FieldRange (&range)[3], long long (&out)[3]) {
  if (!text) return false;
  std::size_t len = strnlen(text, kMaxCookieLen + 1);
  if (len > kMaxCookieLen) return false;
  const char *p = text;
  const char *end = text + len;
  if (len >= 2 && text[0] == '"' && text[len - 1] == '"') ++p, --end;
  for (int i = 0; i < 3; ++i) {
    if (i > 0 && *p++ != ':') return false;
    if (!readNumber(p, range[i].min, range[i].max, out[i])) return false;
  }
  return p == end;
}

void startSession(int pct, ZXPerThreadData_t *r, long long nowMs) {
  r->zxSessionId = zx_new_session_id(nowMs);
  r->totalFpcount = 1;
  r->prev_fp_start_time = 0;
  r->instrumented = zx_session_instrumented(r->zxSessionId, pct);
  setFPCaptured(r);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Advances p past "%20" and blanks.
void skipSeparators(const char *&p) {
  for (;;) {
    if (*p == ' ' || *p == '\t')
      ++p;
    else if (std::strncmp(p, "%20", 3) == 0)
      p += 3;
    else
      return;
  }
}

}  // namespace

ZXSessionSettings_t zx_session_settings(const ZXAppTracing &app) {
  const ZXSessionSettingsRecord_t &r = app.ZXSessionSettings;
  ZXSessionSettings_t s;
  s.enabled = r.enabled;
  s.maxFPCountInSession = r.maxFPCountInSession;
  s.zxSessionIdleTimeOutSecs = r.zxSessionIdleTimeOutSecs;
  return s;
}

void zx_set_session_settings(ZXAppTracing &app, const ZXSessionSettings_t &s) {
  ZXSessionSettingsRecord_t &r = app.ZXSessionSettings;
  r.enabled = s.enabled;
  r.maxFPCountInSession = s.maxFPCountInSession;
  r.zxSessionIdleTimeOutSecs = s.zxSessionIdleTimeOutSecs;
}

zx::Status zx_parse_session_settings(const char *text, ZXSessionSettings_t *out) {
  if (!text || !out) return zx::Errc::bad_input;
  long long v[3] = {};
  const char *p = text;
  int n = 0;
  skipSeparators(p);
  while (*p && n < 3) {
    if (!readNumber(p, 0, INT_MAX, v[n++])) return zx::Errc::bad_input;
    const char *after = p;
    skipSeparators(p);
    if (*p && p == after) return zx::Errc::bad_input;  // digits need a separator after them
  }
  if (n == 0) return zx::Errc::bad_input;
  out->enabled = v[0] != 0;
  out->maxFPCountInSession = static_cast<int>(v[1]);
  out->zxSessionIdleTimeOutSecs = static_cast<int>(v[2]);
  return zx::Ok;
}

void parseEnableZXSession(ZXAppTracing &app, char *value, char *keyword, int index) {
  storeFeatureKeyword(app, value, keyword, index);
  ZXSessionSettings_t s;
  if (zx_parse_session_settings(value, &s).ok())
    zx_set_session_settings(app, s);
  else
    ZX_CTRL_LOG(0, "Warning", "Invalid enableZXSession value [%s]", value ? value : "");
}

int parseZXCookieStr(ZXPerThreadData_t *r, const char *text) {
  if (!r) return 0;
  static constexpr FieldRange range[3] = {{1, LLONG_MAX}, {0, INT_MAX - 1}, {0, LLONG_MAX}};
  long long v[3] = {};
  const bool ok = readCookie(text, range, v);
  r->zxSessionId = ok ? v[0] : 0;
  r->totalFpcount = ok ? static_cast<int>(v[1]) : 0;
  r->prev_fp_start_time = ok ? v[2] : 0;
  return ok;
}

int parseRBCookieStr(ZXPerThreadData_t *r, const char *text) {
  if (!r) return 0;
  static constexpr FieldRange range[3] = {{1, LLONG_MAX}, {0, LLONG_MAX}, {0, LLONG_MAX}};
  long long v[3] = {};
  const bool ok = readCookie(text, range, v);
  r->morSID = ok ? v[0] : 0;
  r->ZXPageID = ok ? v[1] : 0;
  r->last_fptimestamp_from_cookie = ok ? v[2] : 0;
  return ok;
}

std::size_t zx_format_zx_cookie(const ZXPerThreadData_t *r, long long nowMs, char *out,
                                std::size_t outSize) {
  if (!out || outSize == 0) return 0;
  out[0] = '\0';
  if (!r || r->zxSessionId <= 0) return 0;
  // Kept within what parseZXCookieStr accepts back.
  const int count = r->totalFpcount < 0          ? 0
                    : r->totalFpcount == INT_MAX ? INT_MAX - 1
                                                 : r->totalFpcount;
  const int n =
      std::snprintf(out, outSize, "%lld:%d:%lld", r->zxSessionId, count, nowMs < 0 ? 0 : nowMs);
  if (n < 0 || static_cast<std::size_t>(n) >= outSize) {
    out[0] = '\0';
    return 0;
  }
  return static_cast<std::size_t>(n);
}

long long zx_new_session_id(long long nowMs) {
  // The pid is read on every call, not cached, so a forked child does not
  // repeat its parent's sequence.
  const std::uint64_t seq = (gSessionSeq.fetch_add(1, std::memory_order_relaxed) +
                             mix64(static_cast<std::uint64_t>(getpid()))) &
                            0xFFFFF;
  const std::uint64_t t = static_cast<std::uint64_t>(nowMs) & ((1ULL << 43) - 1);
  const long long id = static_cast<long long>((t << 20) | seq);
  return id > 0 ? id : 1;
}

bool zx_session_instrumented(long long sessionId, int pct) {
  if (pct <= 0) return false;
  if (pct >= 100) return true;
  return mix64(static_cast<std::uint64_t>(sessionId)) % 100 < static_cast<std::uint64_t>(pct);
}

void setFPCaptured(ZXPerThreadData_t *r) {
  if (r) r->tlIsFPCaptured = 1;
}

void zx_decide_capture_ex(const ZXSessionSettings_t &s, int pct, ZXPerThreadData_t *r,
                          const char *ZXCookieStr, long long nowMs) {
  if (!r) return;
  if (!s.enabled) {
    r->zxSessionId = r->prev_fp_start_time = 0;
    r->totalFpcount = r->instrumented = 0;
    setFPCaptured(r);
    return;
  }
  if (!parseZXCookieStr(r, ZXCookieStr)) {
    startSession(pct, r, nowMs);
    return;
  }
  r->totalFpcount += 1;
  r->instrumented = zx_session_instrumented(r->zxSessionId, pct);
  r->tlIsFPCaptured = r->instrumented || r->tlIsForceDump;
  // prev_fp_start_time >= 0, so the difference cannot overflow.
  const long long idleMs = nowMs > r->prev_fp_start_time ? nowMs - r->prev_fp_start_time : 0;
  const bool tooMany = s.maxFPCountInSession > 0 && r->totalFpcount > s.maxFPCountInSession;
  const bool idle = s.zxSessionIdleTimeOutSecs > 0 && idleMs / 1000 >= s.zxSessionIdleTimeOutSecs;
  if (tooMany || idle) startSession(pct, r, nowMs);
}

void zx_decide_capture(ZXAppTracing *app, ZXPerThreadData_t *r, const char *ZXCookieStr,
                       long long nowMs) {
  if (!app) return;
  zx_decide_capture_ex(zx_session_settings(*app), app->ZXSys.bciInstrSessionPct, r, ZXCookieStr,
                       nowMs);
}

std::size_t zx_unescape_url(const char *in, char *out, std::size_t outSize) {
  if (!out || outSize == 0) return 0;
  std::size_t n = 0;
  bool query = false;
  for (const char *p = in; p && *p && n + 1 < outSize;) {
    char c = *p;
    if (c == '%') {
      // p[2] is read only when p[1] is a digit, so never past the NUL.
      const int hi = hexValue(p[1]);
      const int lo = hi >= 0 ? hexValue(p[2]) : -1;
      if (lo >= 0 && (hi | lo) != 0) {
        out[n++] = static_cast<char>(hi * 16 + lo);
        p += 3;
        continue;
      }
    } else if (c == '?') {
      query = true;
    } else if (c == '+' && query) {
      c = ' ';
    }
    out[n++] = c;
    ++p;
  }
  out[n] = '\0';
  return n;
}
