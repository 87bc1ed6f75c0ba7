// Feeds arbitrary bytes to the proxy's decoder with a live engine behind it:
// an application with a running test run and a flowpath map, registered in
// the proxy's table, so that well-formed frames reach startFP, the method
// events, endFP and reset. The same bytes then go through a frame stream cut
// at a point the input chooses; flowpaths left over are reset each round.
// Frames that start every input's flowpaths are prepended to half the inputs
// so that the fuzzer reaches replay without having to learn the ids.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "ZXDataDispatcher.h"
#include "ZXFrameStream.h"
#include "ZXMethodManager.h"
#include "ZXProxyApplications.h"
#include "ZXProxyInstance.h"
#include "zxbt_rule_parser.h"
#include "zxlb_decode.h"
#include "zxlb_frame_build.h"
#include "zxlb_mem_pool.h"
#include "zxlb_utiles.h"

namespace {

struct Proxy {
  Proxy() {
    app.ZXSys.dataBuffMaxCount = 4;
    buff_list_init(&app);
    initPerThreadSlots(&app);
    setMethodHashMapNode(&app, "Cart.load|0\n");
    ZXBTConfigModelInit(app);
    app.Server.testRunRunning = 1;
    appIndex = zxProxyApplications().add(app);
    processIndex = zxProxyApplications().addProcess(appIndex);
  }
  ZXProxyInstance_t app;
  int appIndex, processIndex;
};

// Starts for the small ids a fuzzer finds first.
std::string starts() {
  std::string out;
  for (long long id = 0; id < 4; ++id) {
    transactionStartVar_t f;
    std::memset(&f, 0, sizeof f);
    f.flowpathinstance = id;
    ZXFrameBuffer b;
    b.build(ZX_FRAME_TRANSACTION_START, &f, sizeof f, {});
    out.append(b.data(), static_cast<std::size_t>(b.size()));
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static Proxy proxy;
  static const std::string primer = starts();
  if (size == 0) return 0;
  create_fpi_tls_map(proxy.app);
  std::string bytes = (data[0] & 1) ? primer : std::string();
  bytes.append(reinterpret_cast<const char *>(data) + 1, size - 1);

  decodeMessage(bytes.data(), static_cast<int>(bytes.size()), proxy.appIndex, proxy.processIndex);

  ZXFrameStream stream;
  const std::size_t cut = bytes.empty() ? 0 : data[0] % (bytes.size() + 1);
  stream.feed(proxy.app, bytes.data(), cut, proxy.processIndex);
  stream.feed(proxy.app, bytes.data() + cut, bytes.size() - cut, proxy.processIndex);
  if (stream.pending() > ZXFrameStream::kMaxFrameBytes) __builtin_trap();
  stream.close();

  free_fpi_tls_map(proxy.app);
  return 0;
}
