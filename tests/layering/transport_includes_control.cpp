// Must not compile: the transport folder sits below the control folder.
#include "ZXAppControl.h"
