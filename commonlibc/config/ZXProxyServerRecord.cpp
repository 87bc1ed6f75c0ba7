#include "ZXProxyServerRecord.h"

ZX_EXPORT ZXProxyServer_t ZXProxy{};  // C linkage from the declaration in zx_agent.h

void initializeProxyStruct() {
  ZXProxy.zxHomePath.reset();
  ZXProxy.proxyServerFlag = 1;
}
