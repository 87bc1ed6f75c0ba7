// Arbitrary first lines of a proxy connection through the registration
// parser, bare and behind each connection prefix.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ZXProxyRegistration.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view body(reinterpret_cast<const char *>(data), size);
  const ZXProxyRequest bare = parseProxyRequest(body);
  if (bare.con_type != proxyConType(body)) std::abort();
  for (const char *prefix :
       {"zx_ctrl_msg_req:", "zx_data_msg_req:", "auto_sensor_thread_hotspot_data_req:"}) {
    const std::string line = prefix + std::string(body);
    const ZXProxyRequest r = parseProxyRequest(line);
    if (r.con_type == ZX_PROXY_CON_NONE || r.invalidPairs > ZX_PROXY_MAX_FIELDS) std::abort();
  }
  return 0;
}
