#pragma once

#include <string>

#include <qel/base/baseexport.h>

/// Copies the value of the environment variable `name` to `value`. False, with `value` unchanged, when the
/// variable is not set. Safe to call from any thread.
BASE_API bool Getenv(const char* name, std::string& value);
