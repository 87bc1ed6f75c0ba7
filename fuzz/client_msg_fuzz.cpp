// Arbitrary collector text through the keyword applier, behind both command
// prefixes that apply keywords.
#include <cstdint>
#include <memory>
#include <string>

#include "Server.h"
#include "ZXProxyInstance.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static std::unique_ptr<ZXProxyInstance_t> app = [] {
    auto a = std::make_unique<ZXProxyInstance_t>();
    return a;
  }();
  publishApplication(app.get());
  std::string body(reinterpret_cast<const char *>(data), size);
  for (const char *prefix :
       {"zx_control_req:action=start_instrumentation;", "zx_control_req:action=modify;"}) {
    std::string msg = prefix + body;
    findStatusFromClientMsg(*app, msg.data());
  }
  app->ZXSys.closeCtrlConFlag = 0;
  return 0;
}
