// The application object, BT rules layer: the rule set in force and the
// default thresholds.
#pragma once

#include "ZXAppMonitors.h"
#include "zxbt_rule_parser.h"

struct ZXAppRules : ZXAppMonitors {
  ZXAppRules() = default;
  ~ZXAppRules() override = default;

  // btRules is the rule set in force, read by request threads without a lock
  // and replaced whole by a rule-file read.
  ZXBTRules btRules;
  // Default thresholds (ms), read and written under the BT manager lock.
  int allSlow = 3000;
  int allVerySlow = 5000;
  int maxStates = 128;
  int skipCount = 0;
  int isRunTime = 0;
};
