// Start-up of the agent core: the steps behind agent_init, the environment
// and settings-file passes that the control thread re-runs, the trace-log
// set-up and the process filter offered to hosts.
//
// Start-up never talks to the collector and never blocks on the network.
#pragma once

#include "ZXProxyInstance.h"

inline constexpr int ZX_CONF_PATH_SIZE = 1024;
inline constexpr int ZX_CONF_LINE_MAX = 1023;

// Path of the settings file last opened (reused for the process filter).
extern char conf_file[ZX_CONF_PATH_SIZE];

// 1 when the collector host/port pair did not come from the environment
// (the later variables are then not read), 0 otherwise.
int read_env_var();
// 0 on success, 1 when the file is missing, empty or names no collector,
// -1 when it cannot be opened.
int read_conf_file();
// recheck 0: records the file's time and size (1 = missing or empty).
// recheck 1: 1 when the time or size differs from the recorded ones.
int check_file_size_of_zxsetting_files(int recheck);

void ZXTraceInit(const char *processName, const char *pool);
void initializeZXApplicationGlobal();

int readProcessConfFile();
int checkProcessNameInfo(const char *name);

// Sink for the WebSocket library's log lines.
void lws_log(int level, const char *line);

// Stops and joins the control thread, for unloading and tests; the agent is
// inert afterwards.
void agent_shutdown();
