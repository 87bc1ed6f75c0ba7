#include "ZXProxyInstance.h"

#include "zx_agent.h"
#include "zx_agent_stop.h"

extern "C" {
ZX_EXPORT ZXProxyInstance_t *tlzxApplication = nullptr;
ZX_EXPORT ZXProxyInstance_t *ZXProxyInstance = nullptr;
}

ZXProxyInstance_t::~ZXProxyInstance_t() {
  (void)agent_stop_by(this, 0);
  if (tlzxApplication == this) publishApplication(nullptr);
}

void publishApplication(ZXProxyInstance_t *app) {
  tlzxApplication = app;
  ZXProxyInstance = app;
  zx::setProcessApp(app);
}
