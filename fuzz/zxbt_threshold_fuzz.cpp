// Arbitrary bytes as a BT threshold file and as a BT error-rules file: the
// readers must stay in bounds and only ever accept thresholds where slow is
// positive and below very slow.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "ZXProxyInstance.h"
#include "zxbt_rule_execute.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 64 * 1024) return 0;
  auto app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  app->allSlow = 3000;
  app->allVerySlow = 5000;
  ZXBTMonitorInit(*app);
  const std::string text(reinterpret_cast<const char *>(data),
                         strnlen(reinterpret_cast<const char *>(data), size));
  // A pattern BT first, so that per-name lines have an object to update.
  (void)zxbt_read_rule_file_ex(*app, "7|Login|2|0|/login|0\n", false);

  const zx::Status read = zxbt_read_threshold_file_ex(*app, text.c_str(), false);
  check(read.ok() == !text.empty());
  check(app->allSlow >= 1 && app->allSlow < app->allVerySlow);
  BTObject *login = find_bt_obj_in_manager_map(*app, "Login");
  check(login != nullptr);
  const int slow = login->bt_threshold.slow.load();
  const int very_slow = login->bt_threshold.very_slow.load();
  check(slow >= 1 && slow < very_slow);

  check(zxbt_read_error_rules(*app, text.c_str()).ok());
  for (int code = -1; code <= ZXBT_ERROR_TABLE_SIZE; ++code) {
    const char c = findCategoryOfBT(*app, login->bt_threshold, slow, code, nullptr);
    check(c == ZXBT_CATEGORY_SLOW || c == ZXBT_CATEGORY_ERROR);
    check(c == ZXBT_CATEGORY_SLOW || (code >= 0 && code < ZXBT_ERROR_TABLE_SIZE));
  }
  publishApplication(nullptr);
  return 0;
}
