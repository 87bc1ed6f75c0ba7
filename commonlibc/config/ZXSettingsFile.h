// The settings passes over the environment, the settings file
// (zxsettings.conf) and the process filter (processes.conf): start-up runs
// them once and the control thread again until a collector is known. They
// read and write the application's settings only, never the network.
//
// Precedence: a collector host *and* port in the environment make the
// environment the whole configuration (the settings file is skipped);
// otherwise the settings file supplies the collector and the environment
// only the identity. Every number is read with atoi, as the file always was.
#pragma once

#include "ZXAppSettings.h"

inline constexpr int ZX_CONF_PATH_SIZE = 1024;
inline constexpr int ZX_CONF_LINE_MAX = 1023;

// Path of the settings file last opened (reused for the process filter), per
// thread: each application's control thread reads its own home's files.
extern thread_local char conf_file[ZX_CONF_PATH_SIZE];

// 1 when the collector host/port pair did not come from the environment
// (the later variables are then not read), 0 otherwise.
int read_env_var(ZXAppSettings &app);
// 0 on success, 1 when the file is missing, empty or names no collector,
// -1 when it cannot be opened.
int read_conf_file(ZXAppSettings &app);
// recheck 0: records the file's time and size (1 = missing or empty).
// recheck 1: 1 when the time or size differs from the recorded ones.
int check_file_size_of_zxsetting_files(ZXAppSettings &app, int recheck);

// Reads the process filter into processInfoStruct; -1 when the file cannot
// be opened.
int readProcessConfFile(ZXAppSettings &app);
