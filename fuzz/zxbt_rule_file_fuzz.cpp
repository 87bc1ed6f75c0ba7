// Arbitrary bytes as a BT rule file: reading it (twice, as a reload does)
// and naming requests with the result must stay in bounds and keep the
// rule set consistent.
//
// Input: the rule text; its lines' fourth fields double as request URLs.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ZXProxyInstance.h"
#include "zxbt_rule_execute.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

std::vector<std::string> urls_of(const std::string &text) {
  std::vector<std::string> urls = {"/", "", "/a/b/c", "/x/payment?id=7"};
  std::size_t pos = 0;
  while (pos < text.size() && urls.size() < 64) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(pos, end - pos);
    std::size_t f = 0;
    for (int i = 0; i < 4 && f != std::string::npos; ++i) f = line.find('|', f + 1);
    if (f != std::string::npos) urls.push_back(line.substr(f + 1, line.find('|', f + 1) - f - 1));
    pos = end + 1;
  }
  return urls;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 64 * 1024) return 0;
  auto app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  app->allSlow = 3000;
  app->allVerySlow = 5000;
  app->maxStates = 128;
  app->isRunTime = data && size && data[0] & 1;
  ZXBTMonitorInit(*app);
  const std::string text(reinterpret_cast<const char *>(data),
                         strnlen(reinterpret_cast<const char *>(data), size));

  for (int round = 0; round < 2; ++round) {
    check(zxbt_read_rule_file_ex(*app, text.c_str(), false).ok());
    if (round == 0) zxbt_apply_default_global_rule(*app);
    const ZXBTRuleSet *rules = app->btRules.current.current_for_writer();
    check(rules && (rules->bt_rule == 0 || rules->bt_rule == 1 || rules->bt_rule == 7));
    check(rules->custom_rule.keyword_count <= rules->custom_rule.dictionary.size());
    for (const std::string &url : urls_of(text)) {
      char header[] = "CustomeHeader=h&x=1";
      BTObject *o = get_obj_from_bt_name(*app, url.c_str(), "id=7&p=1", header, nullptr, "GET");
      if (!o) continue;
      check(strnlen(o->bt_name, sizeof o->bt_name) < sizeof o->bt_name);
      check(find_bt_obj_in_manager_map(*app, o->bt_name) == o || rules->bt_rule == 7);
    }
  }
  check(app->btManager.config.total_bt_count.load() <= ZXBT_MAX_BT_COUNT + 4096);
  publishApplication(nullptr);
  return 0;
}
