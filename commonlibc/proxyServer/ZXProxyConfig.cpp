#include "ZXProxyConfig.h"

#include "ZXProxyServerRecord.h"
#include "ZXSettingsFile.h"
#include "zxlb_mt_log.h"

int readZXProxyConfig(ZXAppSettings &settings) {
  int missing = read_env_var(settings);
  if (missing) missing = read_conf_file(settings);
  const ZXSys_t &sys = settings.ZXSys;
  ZXProxy.proxyConType = static_cast<char>(sys.proxyConType);
  ZXProxy.zxProxyUnixDomainPath.assign(sys.socketPath.get());
  if (ZXProxy.zxProxyUnixDomainPath.get() && !*ZXProxy.zxProxyUnixDomainPath.get())
    ZXProxy.zxProxyUnixDomainPath.reset();
  ZXProxy.proxyHost.assign(sys.proxyIP.is_set() ? sys.proxyIP.get() : "127.0.0.1");
  ZXProxy.proxyPort = sys.proxyPort > 0 ? static_cast<unsigned>(sys.proxyPort) : 7892u;
  if (missing)
    ZX_LOG_IF(true, "PROXY", "Warning",
              "No collector configured in the environment or %s/config/zxsettings.conf",
              settings.ZXSys.zxHomePath.c_str());
  return missing ? 1 : 0;
}
