// The instrumentation-profile and entry-point readers on arbitrary text: no
// crash, and every named record is reachable by its own id.
#include <apr_hash.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ZXMethodManager.h"
#include "ZXProxyInstance.h"
#include "ZXRunTimeChangeHandle.h"

namespace {

ZXProxyInstance_t &app() {
  static ZXProxyInstance_t *a = [] {
    static ZXProxyInstance_t instance;
    publishApplication(&instance);
    instance.methodIDGlobal = 1;
    return &instance;
  }();
  return *a;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ZXProxyInstance_t &a = app();
  std::string text(reinterpret_cast<const char *>(data), size);
  if (setMethodHashMapNode(&a, text.c_str()) != 0) return 0;
  node_t *node = a.methodHashMapNode.get();
  for (apr_hash_index_t *hi = apr_hash_first(nullptr, node->dynamic_ptr); hi;
       hi = apr_hash_next(hi)) {
    void *v = nullptr;
    apr_hash_this(hi, nullptr, nullptr, &v);
    auto *r = static_cast<methodPropProperties *>(v);
    if (getMethodPropFromMethodId(r->methodId, node) != r) std::abort();
    if (r->methodName.empty()) std::abort();
  }
  checkAndClearHashMapNode(&a, 1);
  // Ids only grow; start again so the index stays small across runs.
  freeMethodHashMap(&a);
  a.methodIDGlobal = 1;
  return 0;
}
