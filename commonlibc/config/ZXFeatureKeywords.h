// Parsers of keyword rows whose logic is their own: identity, time base,
// log mode, file pushes, instrumentation profile, and the feature keywords
// that their features read on use. All run on the control thread.
#pragma once

struct ZXAppSettings;

// Hands a pushed file (or its path) to the file-based keyword handler.
void setFileBasedKeywd(ZXAppSettings &app, char *value, char *keyword, int index);
// Seconds -> Server.morEpochDiffTime (ms), copied to the original offset.
void parseMorEpochDiff(ZXAppSettings &app, char *value, char *keyword, int index);
void parseAgentDebugLogging(ZXAppSettings &app, char *value, char *keyword, int index);
void parseTestIdx(ZXAppSettings &app, char *value, char *keyword, int index);
void parseEnableCpuTime(ZXAppSettings &app, char *value, char *keyword, int index);
void parseAppName(ZXAppSettings &app, char *value, char *keyword, int index);
void parseTierName(ZXAppSettings &app, char *value, char *keyword, int index);
void parseAppServerHost(ZXAppSettings &app, char *value, char *keyword, int index);
// Keeps the raw value for the feature that reads it (featureKeywordValues).
void storeFeatureKeyword(ZXAppSettings &app, char *value, char *keyword, int index);

// The value last given to a feature keyword, or null.
const char *featureKeywordValue(const ZXAppSettings &app, const char *keyword);
