#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include <qel/base/baseexport.h>

// Messages for those who run a program. Each is one line, in which control characters are written in hexadecimal,
// as `\xNN`. When the standard error output is the journal of the service manager, a message has its level there.

/// How important a message is.
enum class btkLevel : unsigned { error, warning, info, debug };

/// The parts of the library that trace what they do, if the environment variable QELSTD_TRACE names them.
enum class btkTraceArea : unsigned { net, names, streams, processes, files, events };

/// A bit for each level of each area: 1 << (4 * area + level). Set once, when the library is loaded.
BASE_API extern std::atomic<unsigned> btkTraceWanted;

/// Whether messages of that area and level are wanted: one load and one branch.
inline bool btkTraces(btkTraceArea area, btkLevel level)
{
    const unsigned bit = 1U << (4 * static_cast<unsigned>(area) + static_cast<unsigned>(level));
    if ((btkTraceWanted.load(std::memory_order_relaxed) & bit) != 0) [[unlikely]]
        return true;
    return false;
}

/// Writes a message, formatted as by printf, with the time and the thread, to the standard error output or the file
/// that QELSTD_TRACE_FILE names; a format that ends in ": " is followed by the text of errno. Call it when btkTraces
/// returns true. Keeps errno. What cannot be written is lost. Safe to call from any thread.
[[gnu::cold, gnu::format(printf, 3, 4)]] BASE_API void btkTrace(btkTraceArea area, btkLevel level,
                                                                const char* format, ...);

/// Writes a message of a program to the standard error output, without time and thread. Keeps errno. Safe to call from
/// any thread.
BASE_API void btkLog(btkLevel level, std::string_view message);

/// The text with its control characters, and its backslashes, as `\xNN`: others cannot forge a line with it.
BASE_API std::string btkWithoutControls(std::string_view text);
