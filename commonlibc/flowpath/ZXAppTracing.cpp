#include "ZXAppTracing.h"

ZXAppTracing::ZXAppTracing()
    : tlsMutex(control_pool.get()),
      threadLocalMutex(control_pool.get()),
      methodEntryLock(control_pool.get()) {}

ZXAppTracing::~ZXAppTracing() = default;

bool ZXAppTracing::applyLayerKeyword(char *value, char *keyword, int index) {
  // TODO(layer helper): flowpath mask, session and instrumentation-profile rows.
  return ZXAppRules::applyLayerKeyword(value, keyword, index);
}
