// Must not compile: the config folder sits below the transport folder.
#include "ZXDataDispatcher.h"
