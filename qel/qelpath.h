#pragma once

#include <filesystem>

#include <qel/filelib.h>

namespace qel {

/// Returns the host path of a native path; the empty path for null.
inline std::filesystem::path path(const xstring& native)
{
    return std::filesystem::path(std::string(fsPathToHost(native.CastToCString())));
}

} // namespace qel
