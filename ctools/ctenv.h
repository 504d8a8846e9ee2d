#pragma once

#include <qel/base/baseexport.h>

/// The value of the environment variable `name`, or null when it is not set. The text belongs to the
/// environment and stays valid until the variable changes. Not to be called while another thread changes the
/// environment.
BASE_API const char* Getenv(const char* name);
