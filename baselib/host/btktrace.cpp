#include "btktrace.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <qel/base/btksystem.h>

#include "btkfd.h"

constinit std::atomic<unsigned> btkTraceWanted = 0;

namespace {

constexpr const char* areaNames[] = {"net", "names", "streams", "processes", "files", "events"};
constexpr const char* levelNames[] = {"error", "warning", "info", "debug"};
// The levels of syslog, which the journal takes from the beginning of a line.
constexpr int journalLevels[] = {3, 4, 6, 7};
constexpr unsigned levelsOfArea = 4;
constexpr std::size_t longestMessage = 2000;

btkHandle traceFile = STDERR_FILENO;

// Whether the descriptor is the one that the service manager has named as its journal.
bool isJournal(btkHandle handle)
{
    const char* const journal = secure_getenv("JOURNAL_STREAM");
    struct stat status;
    if (journal == nullptr || fstat(handle, &status) != 0)
        return false;
    char own[64];
    std::snprintf(own, sizeof own, "%llu:%llu", static_cast<unsigned long long>(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino));
    return std::string_view(journal) == own;
}

// One write for each line, so that lines of threads and processes do not mix.
void writeLine(btkHandle handle, btkLevel level, std::string_view prefix, std::string_view message)
{
    const int kept = errno;
    std::string line;
    if (isJournal(handle))
        line = '<' + std::to_string(journalLevels[static_cast<unsigned>(level)]) + '>';
    line.append(prefix).append(btkWithoutControls(message)).append(1, '\n');
    btkNoSigPipe guard;
    if (write(handle, line.data(), line.size()) < 0 && errno == EPIPE)
        guard.Raised();
    errno = kept;
}

void complain(const std::string& what)
{
    writeLine(STDERR_FILENO, btkLevel::warning, "QELSTD_TRACE: ", what);
}

template<std::size_t size>
unsigned indexOf(const char* const (&names)[size], std::string_view name)
{
    for (unsigned i = 0; i < size; ++i)
        if (name == names[i])
            return i;
    return size;
}

// AREA,AREA:LEVEL,...: a level is that of the areas before it that have none.
unsigned parseWanted(std::string_view text)
{
    unsigned wanted = 0;
    unsigned waiting = 0; // the lowest bit of each area without a level
    const auto give = [&](unsigned level) {
        for (unsigned i = 0; i <= level; ++i)
            wanted |= waiting << i;
        waiting = 0;
    };
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(','));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        const std::string_view name = word.substr(0, word.find(':'));
        const unsigned area = indexOf(areaNames, name);
        if (area < std::size(areaNames))
            waiting |= 1U << (levelsOfArea * area);
        else if (name == "all")
            for (unsigned i = 0; i < std::size(areaNames); ++i)
                waiting |= 1U << (levelsOfArea * i);
        else
            complain('"' + std::string(name) +
                     "\" is no area; net, names, streams, processes, files, events and all are");
        if (name.size() == word.size())
            continue;
        const unsigned level = indexOf(levelNames, word.substr(name.size() + 1));
        if (level == std::size(levelNames))
            complain('"' + std::string(word) + "\" ends in no level; error, warning, info and debug are");
        give(std::min(level, static_cast<unsigned>(btkLevel::debug)));
    }
    give(static_cast<unsigned>(btkLevel::info));
    return wanted;
}

// A file that others have prepared, as a link or as their own, is not written.
bool openTraceFile(const char* path)
{
    btkFd file(
        open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
    struct stat status;
    if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
        complain(std::string(path) + " is not written: " +
                 (file ? "it is no file of this user" : Error_GetText(static_cast<unsigned long>(errno))));
        return false;
    }
    traceFile = file.Release();
    return true;
}

// Reads the environment when the library is loaded. A program with more rights than its caller traces nothing.
struct Start
{
    Start()
    {
        const char* const text = secure_getenv("QELSTD_TRACE");
        const char* const path = secure_getenv("QELSTD_TRACE_FILE");
        if (text == nullptr || *text == '\0' || (path != nullptr && *path != '\0' && !openTraceFile(path)))
            return;
        btkTraceWanted = parseWanted(text);
    }
};
const Start start;

} // namespace

void btkTrace(btkTraceArea area, btkLevel level, const char* format, ...)
{
    const int kept = errno;
    char message[longestMessage];
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    std::string text = message;
    if (text.ends_with(": "))
        text += Error_GetText(static_cast<unsigned long>(kept));

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &parts);
    char prefix[100];
    std::snprintf(prefix, sizeof prefix, "%s.%06ldZ %ld %s %s: ", stamp, now.tv_nsec / 1000,
                  syscall(SYS_gettid), areaNames[static_cast<unsigned>(area)],
                  levelNames[static_cast<unsigned>(level)]);
    writeLine(traceFile, level, prefix, text);
    errno = kept;
}

void btkLog(btkLevel level, std::string_view message)
{
    writeLine(STDERR_FILENO, level, "", message);
}

std::string btkWithoutControls(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        // U+0080 to U+009F are control characters too.
        const bool isControl = c < ' ' || c == 127 || c == '\\' || (c == 0xC2 && next >= 0x80 && next < 0xA0);
        if (!isControl) {
            result += text[i];
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02x", c);
        result += escape;
        if (c == 0xC2) {
            std::snprintf(escape, sizeof escape, "\\x%02x", next);
            result += escape;
            ++i;
        }
    }
    return result;
}
