// Arbitrary bytes as the settings file: the start-up pass must neither crash
// nor read or write out of bounds, whatever the file holds.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "ZXProxyInstance.h"
#include "zx_agent_internal.h"

namespace {

const std::string &home() {
  static const std::string dir = [] {
    std::string d =
        std::filesystem::temp_directory_path() / ("zx-settings-fuzz-" + std::to_string(getpid()));
    std::filesystem::create_directories(d + "/config");
    return d;
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string path = home() + "/config/zxsettings.conf";
  if (FILE *f = fopen(path.c_str(), "wb")) {
    fwrite(data, 1, size, f);
    fclose(f);
  }
  auto app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  app->ZXSys.zxHomePath.assign(home().c_str());
  app->pool_name.assign("pool");
  read_conf_file(*app);
  publishApplication(nullptr);
  return 0;
}
