// Arbitrary bytes from the collector, cut into reads of fuzzer-chosen sizes,
// through the control connection's framing and the command dispatcher. No
// connection exists, so every reply takes the failure path.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "ZXDataThread.h"
#include "ZXProxyInstance.h"
#include "control_connection.h"

namespace {

ZXProxyInstance_t *makeApp() {
  static std::unique_ptr<ZXProxyInstance_t> app = [] {
    auto a = std::make_unique<ZXProxyInstance_t>();
    std::string home = "/tmp/zx_control_stream_fuzz_" + std::to_string(getpid());
    std::filesystem::create_directories(home + "/config");
    a->ZXSys.zxHomePath.assign(home.c_str());
    // Commands that pause the control thread (a stop's drain time) return
    // at once, as on a thread asked to stop.
    a->stopRequested = true;
    a->linkTimings.dataConnRetryInterval = apr_time_from_msec(1);
    return a;
  }();
  return app.get();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ZXProxyInstance_t *app = makeApp();
  publishApplication(app);
  controlSocketBuffer_t &buf = app->ctrlBufInfo;
  if (!reset_control_buffer(&buf).ok()) return 0;
  // The first byte picks the read size, so splits vary with the input.
  size_t step = size > 0 ? 1 + data[0] % 64 : 1;
  for (size_t off = size > 0 ? 1 : 0; off < size;) {
    int cap = 0;
    char *space = control_buffer_space(&buf, &cap);
    size_t n = std::min({step, size - off, static_cast<size_t>(cap)});
    memcpy(space, data + off, n);
    control_buffer_commit(&buf, static_cast<int>(n));
    processControlConnectionMessage(app, &buf);
    off += n;
  }
  (void)stop_data_thread(app);
  app->ZXSys.closeCtrlConFlag = 0;
  return 0;
}
