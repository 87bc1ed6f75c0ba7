// Parsers of keyword rows whose logic is their own: identity, time base,
// log mode, file pushes, instrumentation profile, and the feature keywords
// that their features read on use. All run on the control thread.
#pragma once

// Hands a pushed file (or its path) to the file-based keyword handler.
void setFileBasedKeywd(char *value, char *keyword, int index);
// "instrProfile", "lmd", "size": the method table's instrumentation profile.
void setInstProfile(char *value, char *keyword, int index);
// Seconds -> Server.morEpochDiffTime (ms), copied to the original offset.
void parseMorEpochDiff(char *value, char *keyword, int index);
void parseAgentDebugLogging(char *value, char *keyword, int index);
void parseTestIdx(char *value, char *keyword, int index);
void parseEnableCpuTime(char *value, char *keyword, int index);
void parseAppName(char *value, char *keyword, int index);
void parseTierName(char *value, char *keyword, int index);
void parseAppServerHost(char *value, char *keyword, int index);
// Keeps the raw value for the feature that reads it (featureKeywordValues).
void storeFeatureKeyword(char *value, char *keyword, int index);

// The value last given to a feature keyword, or null.
const char *featureKeywordValue(const char *keyword);
