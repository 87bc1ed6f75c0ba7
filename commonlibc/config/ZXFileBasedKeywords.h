// Handler of files that the collector pushes as keywords (rule files,
// threshold files, capture lists). Each feature that owns a file kind
// registers its reader here; a file kind without a reader is accepted and
// ignored. Runs on the control thread.
#pragma once

struct ZXAppSettings;

using ZXFileKeywordReader = void (*)(ZXAppSettings &app, char *value, char *keyword, int index);

void ZXFileBasedKeywords(ZXAppSettings &app, char *value, char *keyword, int index);

// Registers (or with null removes) the reader of the file keyword `keyword`.
void registerFileKeywordReader(const char *keyword, ZXFileKeywordReader reader);
