#include "ZXAppSettings.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "ZXFeatureKeywords.h"
#include "ZXProxyServerRecord.h"
#include "zxlb_mt_log.h"

ZXAppSettings::ZXAppSettings() : control_pool(zx::make_pool()), proxy_pool(zx::make_pool()) {
  agentLogBuffer.reset(new (std::nothrow) char[ZX_AGENT_LOG_BUFFER_SIZE]);
  if (agentLogBuffer) agentLogBuffer[0] = '\0';  // without it mode 2 falls back to the files
  ZXSysInit(ZXSys);
  ZXBCISettingInit(ZXBCISetting);
  ZXSys.sendLogsToProxy = 1;
}

ZXAppSettings::~ZXAppSettings() {
  // The log must not reach into an application that is going away.
  if (zx::processLogContext() == this) zx::setProcessLogContext(nullptr);
}

bool ZXAppSettings::applyLayerKeyword(char *, char *, int) {
  return false;
}

int ZXAppSettings::traceLevel(Area area) const noexcept {
  switch (area) {
    case Area::Control:
      return ZXSys.controlTraceLevel;
    case Area::Agent:
      return ZXSys.agentTraceLevel;
    case Area::Hotspot:
      return ZXSys.agentHSTraceLevel;
    case Area::Diagnostics:
      return ZXSys.agentADTraceLevel;
    case Area::PC:
      return ZXSys.agentPCTraceLevel;
    case Area::Exception:
      return ZXSys.agentEXTraceLevel;
    case Area::AutoInstr:
      return zxAutoInstrumentation.autoInstrTraceLevel;
    case Area::DynamicDiag:
      return ZXDynamicSettings.ddTraceLevel;
  }
  return 0;
}

long long ZXAppSettings::traceMaxSize() const noexcept {
  return ZXSys.traceMaxSize;
}

int ZXAppSettings::logMode() const noexcept {
  return ZXSys.sendLogsToProxy;
}

bool ZXAppSettings::proxyProcess() const noexcept {
  return ZXProxy.proxyServerFlag != 0;
}

int ZXAppSettings::testRunId() const noexcept {
  return Server.TestRunIDValue;
}

const char *ZXAppSettings::buildText() const noexcept {
  return ZXSys.zxBuild.c_str();
}

bool ZXAppSettings::keepAgentLogLine(const char *threadName, long long threadId,
                                     const char *severity, const char *file, int line,
                                     const char *fname, const char *format, va_list ap) {
  if (!agentLogBuffer) return false;
  // The buffer grows by this line and the control thread ships and clears it.
  std::lock_guard guard(agentLogLock);
  char date[64];
  get_cur_date_time_r(date, sizeof date);
  // Snapshots: a keyword may replace the names while this line is built.
  const zx::TextSnapshot tierText = ZXBCISetting.tierName.load();
  const zx::TextSnapshot serverText = ZXBCISetting.appServerName.load();
  const zx::TextSnapshot appText = ZXBCISetting.appName.load();
  char *buf = agentLogBuffer.get();
  const int old = static_cast<int>(strnlen(buf, ZX_AGENT_LOG_BUFFER_SIZE - 1));
  const int room = ZX_AGENT_LOG_BUFFER_SIZE - old;
  const char *tn = threadName ? threadName : "";
  const char *fl = file ? file : "";
  const char *fn = fname ? fname : "";
  const char *sv = severity ? severity : "";
  const int tr = Server.TestRunIDValue;
  int n = tr == 0
              ? snprintf(buf + old, room, "\n%s|******|%s|%lld|AGENT-LOG<%s_%s_%s>|%s|%d|%s|%s|",
                         date, tn, threadId, tierText.c_str(), serverText.c_str(), appText.c_str(),
                         fl, line, fn, sv)
              : snprintf(buf + old, room, "\n%s|TR%d|%s|%lld|AGENT-LOG<%s_%s_%s>|%s|%d|%s|%s|",
                         date, tr, tn, threadId, tierText.c_str(), serverText.c_str(),
                         appText.c_str(), fl, line, fn, sv);
  if (n < 0 || n >= room) {
    buf[old] = '\0';  // a line whose header does not fit is left out
    return true;
  }
  const int used = old + n;
  const int rest = ZX_AGENT_LOG_BUFFER_SIZE - used;
  int m = vsnprintf(buf + used, rest, format, ap);
  if (m < 0) m = static_cast<int>(strnlen(buf + used, rest - 1));
  if (m > rest - 1) m = rest - 1;
  buf[used + m] = '\0';
  return true;
}
