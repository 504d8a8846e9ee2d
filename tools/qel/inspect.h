#pragma once

#include <string>

#include "output.h"

/// Describes any file, of which at most `most` records are listed. The members of the result: file, kind, format,
/// version, size, state ("whole", "unfinished" or "damaged"), offset and problem of the damage, what belongs to the
/// kind, count and records. Bounded in time and memory, whatever the file has. Fails when it cannot be read.
Json Inspect(const std::string& path, std::size_t most);
