#include "ZXProxyServerRecord.h"

ZX_EXPORT ZXProxyServer_t ZXProxy{};  // C linkage from the declaration in zx_agent.h

void initializeProxyStruct() {
  ZXProxy.zxHomePath.reset();
  ZXProxy.zxProxyUnixDomainPath.reset();
  ZXProxy.proxyHost.reset();
  ZXProxy.tierName.reset();
  ZXProxy.appName.reset();
  ZXProxy.serverName.reset();
  ZXProxy.proxyConType = 0;
  ZXProxy.proxyPort = 0;
  ZXProxy.numInstances = 0;
  ZXProxy.sktFd = -1;
  ZXProxy.proxyServerFlag = 1;
}
