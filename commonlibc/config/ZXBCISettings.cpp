#include "ZXBCISettings.h"

#include <cstdlib>

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
void set_if_different(ZXBCISetting_t &bci, Text ZXBCISetting_t::*field, const char *value) {
  if (!value) return;
  Text &s = bci.*field;
  if (!s.equals(value)) s.assign(value);
}

}  // namespace

void setAppName(ZXBCISetting_t &bci, const char *name) {
  set_if_different(bci, &ZXBCISetting_t::appName, name);
}
void setTierName(ZXBCISetting_t &bci, const char *name) {
  set_if_different(bci, &ZXBCISetting_t::tierName, name);
}
void setAppServerName(ZXBCISetting_t &bci, const char *name) {
  set_if_different(bci, &ZXBCISetting_t::appServerName, name);
}
void setAgentType(ZXBCISetting_t &bci, const char *type) {
  set_if_different(bci, &ZXBCISetting_t::agentType, type);
}

void setAutoScalingMode(ZXBCISetting_t &bci, const char *value) {
  if (value) bci.autoScalingMode = atoi(value);
}
