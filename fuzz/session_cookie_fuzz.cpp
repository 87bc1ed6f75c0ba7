// Arbitrary text as both session cookies, as an enableZXSession value, through
// the capture decision and through percent-decoding into buffers of exact
// size: everything stays in bounds, an accepted cookie is in range and
// formats back to itself, a session never outgrows its count limit, and the
// decoded text is terminated where its length says.
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "ZXPerThreadData.h"
#include "ZXSessionCookie.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void checkUnescape(const std::string &text, std::size_t size) {
  std::unique_ptr<char[]> out(new char[size ? size : 1]);
  const std::size_t n = zx_unescape_url(text.c_str(), out.get(), size);
  if (size == 0) return check(n == 0);
  check(n < size && n <= text.size());
  check(std::strlen(out.get()) == n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) return 0;
  // The first bytes pick the settings; the rest is the text.
  const uint8_t pick = size ? data[0] : 0;
  const std::string text(reinterpret_cast<const char *>(data),
                         strnlen(reinterpret_cast<const char *>(data), size));
  auto r = std::make_unique<ZXPerThreadData_t>();

  if (parseZXCookieStr(r.get(), text.c_str())) {
    check(r->zxSessionId > 0 && r->totalFpcount >= 0 && r->totalFpcount < INT_MAX);
    check(r->prev_fp_start_time >= 0);
    char again[96];
    check(zx_format_zx_cookie(r.get(), r->prev_fp_start_time, again, sizeof again) > 0);
    auto back = std::make_unique<ZXPerThreadData_t>();
    check(parseZXCookieStr(back.get(), again) == 1);
    check(back->zxSessionId == r->zxSessionId && back->totalFpcount == r->totalFpcount &&
          back->prev_fp_start_time == r->prev_fp_start_time);
  } else {
    check(r->zxSessionId == 0 && r->totalFpcount == 0 && r->prev_fp_start_time == 0);
  }

  if (parseRBCookieStr(r.get(), text.c_str()))
    check(r->morSID > 0 && r->ZXPageID >= 0 && r->last_fptimestamp_from_cookie >= 0);
  else
    check(r->morSID == 0 && r->ZXPageID == 0 && r->last_fptimestamp_from_cookie == 0);

  ZXSessionSettings_t parsed;
  if (zx_parse_session_settings(text.c_str(), &parsed).ok())
    check(parsed.maxFPCountInSession >= 0 && parsed.zxSessionIdleTimeOutSecs >= 0);

  ZXSessionSettings_t s;
  s.enabled = pick & 1;
  s.maxFPCountInSession = (pick >> 1) & 7;
  s.zxSessionIdleTimeOutSecs = (pick >> 4) & 3;
  const long long now = (pick & 0x80) ? LLONG_MAX : 1'700'000'000'000;
  r->tlIsForceDump = (pick >> 6) & 1;
  zx_decide_capture_ex(s, pick % 101, r.get(), text.c_str(), now);
  check(r->tlIsFPCaptured == 0 || r->tlIsFPCaptured == 1);
  if (s.enabled) {
    check(r->zxSessionId > 0 && r->totalFpcount >= 1);
    check(s.maxFPCountInSession == 0 || r->totalFpcount <= s.maxFPCountInSession);
    check(r->tlIsFPCaptured || !(r->tlIsForceDump || r->instrumented));
  } else {
    check(r->tlIsFPCaptured == 1 && r->zxSessionId == 0);
  }

  for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{3}, text.size(),
                        text.size() + 1, std::size_t{2048}})
    checkUnescape(text, n);
  return 0;
}
