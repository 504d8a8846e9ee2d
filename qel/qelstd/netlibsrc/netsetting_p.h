#pragma once

#include <qel/xstring.h>

#include "netrights.h"

/// Reads a value of a key below one root of the registry. `value` is null unless the result is netRightsGiven.
/// GetLastError() gives the reason for netRightsUnknown.
netRightsState netReadSetting(hmxRegistry& registry, const char* path, const char* name, xstring& value);
