#pragma once

#include <qel/qelexport.h>

/// The version of the library that the program runs with, "major.minor.patch". Static text.
QEL_API const char* qelVersion();
