// Naming a request whose BT already exists, per rule family: the path every
// transaction start takes once an application's BTs are known. It must not
// lock or allocate, so two threads should each run as fast as one.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "ZXProxyInstance.h"
#include "zxbt_rule_execute.h"

namespace {

// 64 bytes, matching the pattern and the keyword of rule 137 deep in the URL.
const std::string kUrl = "/shop/api/v2/service137/orders/12345/items/987?sort=asc&page=002";

std::unique_ptr<ZXProxyInstance_t> app;

// A fresh application with 200 rules of one family, published before the
// benchmark's threads start.
void setup(const std::string &rules) {
  app = std::make_unique<ZXProxyInstance_t>();
  publishApplication(app.get());
  app->allSlow = 3000;
  app->allVerySlow = 5000;
  app->maxStates = 128;
  ZXBTMonitorInit(app->btMonitor, *app);
  (void)zxbt_read_rule_file_ex(*tlzxApplication, rules.c_str(), false);
}

void setup_pattern(const benchmark::State &) {
  std::string rules;
  for (int i = 0; i < 200; ++i)
    rules += "7|BT" + std::to_string(i) + "|" + std::to_string(i + 2) + "|0|/shop/api/v2/service" +
             std::to_string(i) + "/*/items/*|0\n";
  setup(rules);
}

void setup_keyword(const benchmark::State &) {
  std::string rules;
  for (int i = 0; i < 200; ++i)
    rules += "2|2|r" + std::to_string(i) + "|BT" + std::to_string(i) + "|-|1|" +
             std::to_string(i % 7) + "|[input1=contains&input2=/service" + std::to_string(i) +
             "/]|-\n";
  setup(rules);
}

void setup_global(const benchmark::State &) {
  setup("1|2|n|d|FromFirst|4|Request-Parameter-Value|page|-\n");
}

void teardown(const benchmark::State &) {
  publishApplication(nullptr);
  app.reset();
}

void BM_get_obj_existing_bt(benchmark::State &state) {
  const std::string path = kUrl.substr(0, kUrl.find('?'));
  const std::string params = kUrl.substr(kUrl.find('?') + 1);
  char header[] = "CustomeHeader=h&x=1";
  if (!get_obj_from_bt_name(*tlzxApplication, path.c_str(), params.c_str(), header, nullptr, "GET"))
    state.SkipWithError("the URL names no BT");
  for (auto _ : state) {
    benchmark::DoNotOptimize(get_obj_from_bt_name(*tlzxApplication, path.c_str(), params.c_str(),
                                                  header, nullptr, "GET"));
  }
}
BENCHMARK(BM_get_obj_existing_bt)
    ->Name("BM_get_obj_existing_bt/pattern")
    ->Setup(setup_pattern)
    ->Teardown(teardown)
    ->Threads(1)
    ->Threads(2);
BENCHMARK(BM_get_obj_existing_bt)
    ->Name("BM_get_obj_existing_bt/keyword")
    ->Setup(setup_keyword)
    ->Teardown(teardown)
    ->Threads(1)
    ->Threads(2);
BENCHMARK(BM_get_obj_existing_bt)
    ->Name("BM_get_obj_existing_bt/global")
    ->Setup(setup_global)
    ->Teardown(teardown)
    ->Threads(1)
    ->Threads(2);

}  // namespace
