#include "ZXManageTierCallOut.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "zx_c_guard.h"
#include "zx_tier_callout.h"

namespace {

// Decimal prefix of `s`: "123F" reads as 123, like strtoll.
long long leadingNumber(std::string_view s) {
  char buf[32];
  const size_t n = s.size() < sizeof buf - 1 ? s.size() : sizeof buf - 1;
  std::memcpy(buf, s.data(), n);
  buf[n] = '\0';
  return std::strtoll(buf, nullptr, 10);
}

}  // namespace

const char *buildTierCallOut(ZXPerThreadData_t *r) {
  if (!r) return nullptr;
  r->seqNum += 1;
  const long long first = r->firstFlowpathInstance ? r->firstFlowpathInstance : r->flowpathInstance;
  const char *f = r->tlIsForceDump ? "F" : "";
  // Formatted twice, measuring first, so a long incoming path is never cut.
  auto format = [&](char *out, size_t size) {
    if (r->prevTierSeq.is_set())
      return std::snprintf(out, size, "%lld%s_%lld%s_%s.%lld", first, f, r->flowpathInstance, f,
                           r->prevTierSeq.get(), r->seqNum);
    return std::snprintf(out, size, "%lld%s_%lld%s_%lld.%lld", first, f, r->flowpathInstance, f,
                         r->tlThreadId, r->seqNum);
  };
  const int len = format(nullptr, 0);
  if (len < 0) return nullptr;
  r->tierCallOutSeqNum = r->seqNum;
  if (r->tierCallOutHeaderLen < len + 1) {
    std::unique_ptr<char[]> grown(new (std::nothrow) char[static_cast<size_t>(len) + 1]);
    if (!grown) return nullptr;
    r->tierCallOutHeader = std::move(grown);
    r->tierCallOutHeaderLen = len + 1;
  }
  format(r->tierCallOutHeader.get(), static_cast<size_t>(r->tierCallOutHeaderLen));
  return r->tierCallOutHeader.get();
}

zx::Status parseTierCallOut(ZXPerThreadData_t *r, const char *header) {
  if (!r || !header) return zx::Errc::bad_input;
  std::string_view text(header);
  const size_t first = text.find('_');
  if (first == std::string_view::npos) return zx::Errc::bad_input;
  const size_t second = text.find('_', first + 1);
  if (second == std::string_view::npos) return zx::Errc::bad_input;
  std::string_view rest = text.substr(second + 1);
  rest = rest.substr(0, rest.find('_'));
  r->firstFlowpathInstance = leadingNumber(text.substr(0, first));
  r->prevFlowpathInstance = leadingNumber(text.substr(first + 1, second - first - 1));
  r->prevTierSeq.assign(rest);
  return zx::Ok;
}

extern "C" ZX_EXPORT const char *getTierCallOut(ZXPerThreadData_t *record) {
  return zx_c_guard(nullptr, [record] { return buildTierCallOut(record); });
}

extern "C" ZX_EXPORT int setTierCallOut(ZXPerThreadData_t *record, const char *header) {
  return zx_c_guard(
      -1, [record, header] { return zx::asZeroOrMinusOne(parseTierCallOut(record, header)); });
}
