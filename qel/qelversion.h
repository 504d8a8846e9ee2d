#pragma once

#include <qel/qelexport.h>

/// Returns the version of the loaded library, "major.minor.patch". Static text.
QEL_API const char* qelVersion();
