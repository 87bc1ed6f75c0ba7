#include "ZXBCISettings.h"

#include <cstdlib>

#include "ZXProxyInstance.h"
#include "zxlb_mt_log.h"

void ZXBCISettingInit(ZXBCISetting_t &bci) {
  bci.ProtoVer = 1;
  bci.fileBasedKeywordMode = 0;
  bci.controlConnectionReqMessage[0] = '\0';
  bci.controlConnectionReqMessage_len = 0;
  bci.control_conn_heartbeat_msg[0] = '\0';
  bci.control_conn_heartbeat_msg_len = 0;
}

namespace {

template <typename Text>
void set_if_different(Text ZXBCISetting_t::*field, const char *value) {
  if (!value || !tlzxApplication) return;
  Text &s = tlzxApplication->ZXBCISetting.*field;
  if (!s.equals(value)) s.assign(value);
}

}  // namespace

void setAppName(const char *name) {
  set_if_different(&ZXBCISetting_t::appName, name);
}
void setTierName(const char *name) {
  set_if_different(&ZXBCISetting_t::tierName, name);
}
void setAppServerName(const char *name) {
  set_if_different(&ZXBCISetting_t::appServerName, name);
}
void setAgentType(const char *type) {
  set_if_different(&ZXBCISetting_t::agentType, type);
}

void setAutoScalingMode(const char *value) {
  if (value && tlzxApplication) tlzxApplication->ZXBCISetting.autoScalingMode = atoi(value);
}
