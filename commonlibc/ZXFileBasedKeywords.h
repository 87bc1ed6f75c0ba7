// Handler of files that the collector pushes as keywords (rule files,
// threshold files, capture lists). Each feature that owns a file kind
// registers its reader here; a file kind without a reader is accepted and
// ignored. Runs on the control thread.
#pragma once

using ZXFileKeywordReader = void (*)(char *value, char *keyword, int index);

void ZXFileBasedKeywords(char *value, char *keyword, int index);

// Registers (or with null removes) the reader of the file keyword `keyword`.
void registerFileKeywordReader(const char *keyword, ZXFileKeywordReader reader);
