// Start-up of the agent core: the steps behind agent_init, the trace-log
// set-up and the process filter offered to hosts. The environment and
// settings-file passes, which the control thread re-runs, are in
// ZXSettingsFile.h.
//
// Start-up never talks to the collector and never blocks on the network.
#pragma once

#include "ZXProxyInstance.h"
#include "ZXSettingsFile.h"
#include "zxlb_status.h"

// Start-up after the settings passes, for an application whose identity and
// settings are in place: the link timings the settings file shortened, the
// per-thread machinery and the agent type.
void readyApplication(ZXProxyInstance_t &app, const char *agentType);
// Its BT model and control thread, after readyApplication (done here first
// when `agentType` is given). agent_init starts the process's application
// this way, the proxy each application it serves.
zx::Status startApplication(ZXProxyInstance_t &app, const char *agentType);

// Opens the process's trace log under the application's home.
void ZXTraceInit(ZXAppSettings &app, const char *processName, const char *pool);

// The flag of the process filter row (readProcessConfFile) that matches
// `name` over the length of the pool name; 0 when none does.
int checkProcessNameInfo(const ZXAppSettings &app, const char *name);

// Stops and joins every thread of the process's application (agent_stop_by
// without a deadline), for unloading and tests; the agent is inert afterwards.
void agent_shutdown();
