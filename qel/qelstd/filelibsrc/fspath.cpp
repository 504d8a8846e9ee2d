#include "fspath.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <qel/base/btkpath.h>
#include <qel/base/btkstring.h>
#include <qel/platform/errortable.h>
#include <qel/xobject.h>

#include "fsexception_p.h"
#include "fspath_p.h"

namespace {

constexpr const char* remoteMark = "::";

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool hasSlash(const char* path)
{
    return std::strchr(path, '/') != nullptr;
}

/// `text` as a result: in native form when it has a "/"; then a text that is too long throws.
xstring nativeResult(const char* text, const char* function)
{
    fsNativePath native;
    return fsConvertSlashes(native, text, function);
}

/// The common first step of the four operations on the ends of a path. Null when the result is the null
/// string, else the path to split, in `native`. A tail without "/" has no length limit: `path` itself is
/// returned then.
const char* endsOf(fsNativePath& native, const char* path, const char* function, bool always)
{
    if (!qelIsObject(path))
        return nullptr;
    fsCheckRemote(path, function);
    if (always)
        fsConvert(native, path, function);
    const char* const text = always ? native.text() : fsConvertSlashes(native, path, function);
    return fsIsEmptyPath(text) ? nullptr : text;
}

/// The length of the part of `path` before the separator at `separator`.
std::size_t headLength(const char* path, const char* separator)
{
    const auto at = static_cast<std::size_t>(separator - path);
    const bool root = at == 0 || (at == 2 && path[1] == ':');
    return root && *separator != '\0' ? at + 1 : at;
}

xstring headOf(const char* path, const char* separator)
{
    return std::string(path, headLength(path, separator)).c_str();
}

/// The end of the entry that begins at `entry`: the next separator or the end of the text.
const char* entryEnd(const char* entry)
{
    return entry + std::strcspn(entry, "\\");
}

} // namespace

// ---- building

fsNativePath::fsNativePath(const fsNativePath& other) : size(other.size)
{
    std::memcpy(buffer, other.buffer, size + 1);
}

fsNativePath& fsNativePath::operator=(const fsNativePath& other)
{
    size = other.size;
    std::memmove(buffer, other.buffer, size + 1);
    return *this;
}

bool fsNativePath::Assign(const char* path)
{
    path = fsTextOf(path);
    const std::size_t length = btkLengthWithin(path, maxLength + 1);
    if (length > maxLength)
        return false;
    std::replace_copy(path, path + length + 1, buffer, '/', fsSeparator);
    size = length;
    return true;
}

bool fsNativePath::Append(const char* entry, bool separated)
{
    const std::size_t length = std::strlen(entry);
    if (size + length + (separated ? 1 : 0) > maxLength)
        return false;
    if (separated)
        buffer[size++] = fsSeparator;
    std::memcpy(buffer + size, entry, length + 1);
    size += length;
    return true;
}

void fsNativePath::Cut(std::size_t newLength)
{
    size = newLength;
    buffer[size] = '\0';
}

// ---- queries and checks

const char* fsTextOf(const char* path)
{
    return qelIsObject(path) ? path : "";
}

bool fsHasDrive(const char* path)
{
    return isLetter(path[0]) && path[1] == ':';
}

bool fsIsEmptyPath(const char* path)
{
    return path[0] == '\0' || (fsHasDrive(path) && path[2] == '\0');
}

bool fsIsRemote(const char* path)
{
    return std::strstr(path, remoteMark) != nullptr;
}

std::size_t fsRootLength(const char* path)
{
    const std::size_t drive = fsHasDrive(path) ? 2 : 0;
    return path[drive] == fsSeparator ? drive + 1 : 0;
}

void fsCheckEmpty(const char* path, const char* function)
{
    if (fsIsEmptyPath(fsTextOf(path)))
        fsRaise(fsInvalidPath, function, path);
}

void fsCheckRemote(const char* path, const char* function)
{
    if (fsIsRemote(fsTextOf(path)))
        fsRaise(fsInvalidPath, function, path);
}

void fsConvert(fsNativePath& native, const char* path, const char* function)
{
    if (!native.Assign(path))
        fsRaise(fsInvalidPath, function, path, ERROR_FILENAME_EXCED_RANGE);
}

void fsCheckPath(fsNativePath& native, const char* path, const char* function)
{
    fsCheckEmpty(path, function);
    fsCheckRemote(path, function);
    fsConvert(native, path, function);
}

const char* fsConvertSlashes(fsNativePath& native, const char* path, const char* function)
{
    path = fsTextOf(path);
    if (!hasSlash(path))
        return path;
    fsConvert(native, path, function);
    return native.text();
}

const char* fsCheckPathSlashes(fsNativePath& native, const char* path, const char* function)
{
    fsCheckEmpty(path, function);
    fsCheckRemote(path, function);
    return fsConvertSlashes(native, path, function);
}

const char* fsCheckTwoPaths(fsNativePath& nativeFrom, const char* from, fsNativePath& nativeTo,
                            const char* to, const char* function)
{
    for (const char* path : {from, to})
        fsCheckEmpty(path, function);
    for (const char* path : {from, to})
        fsCheckRemote(path, function);
    const char* const source = fsConvertSlashes(nativeFrom, from, function);
    fsConvert(nativeTo, to, function);
    return source;
}

void fsJoin(fsNativePath& path, const char* name, const char* function, bool separated)
{
    if (!path.Append(name, separated))
        fsRaise(fsInvalidPath, function, nullptr, ERROR_FILENAME_EXCED_RANGE);
}

// ---- the operations

unsigned char fsIsPathAbsolute(const char* path)
{
    path = fsTextOf(path);
    return path[0] == '/' || (fsHasDrive(path) && (path[2] == '/' || path[2] == fsSeparator));
}

xstring fsPathToNative(const char* path)
{
    return qelIsObject(path) ? nativeResult(path, "fsPathToNative") : xstring();
}

xstring fsCatPaths(const char* directory, const char* relative)
{
    constexpr const char* function = "fsCatPaths";
    if (fsIsPathAbsolute(relative) || fsIsRemote(fsTextOf(relative)))
        fsRaise(fsInvalidPath, function, relative);
    fsNativePath joined;
    if (!joined.Assign(directory))
        fsRaise(fsInvalidPath, function, nullptr);
    fsJoin(joined, fsTextOf(relative), function);
    return nativeResult(joined.text(), function);
}

xstring fsMkRemPath(const char* address, const char* local)
{
    constexpr const char* function = "fsMkRemPath";
    if (!qelIsObject(address))
        return local;
    fsCheckRemote(local, function);
    return nativeResult((std::string(address) + remoteMark + fsTextOf(local)).c_str(), function);
}

xstring fsGetAddress(const char* remote)
{
    remote = fsTextOf(remote);
    const char* const mark = std::strstr(remote, remoteMark);
    return mark == nullptr ? xstring() : std::string(remote, mark).c_str();
}

xstring fsGetLocalPath(const char* remote)
{
    const char* const mark = std::strstr(fsTextOf(remote), remoteMark);
    return mark == nullptr ? xstring(remote) : nativeResult(mark + std::strlen(remoteMark), "fsMkRemPath");
}

xstring fsSeparatePathHead(char* path, char* separator)
{
    path[headLength(path, separator)] = '\0';
    return path;
}

xstring fsSeparatePathTail(const char* separator)
{
    return separator[1] == '\0' ? xstring() : separator + 1;
}

xstring fsGetHeadPath(const char* path)
{
    fsNativePath native;
    const char* const text = endsOf(native, path, "fsGetHeadPath", true);
    const char* const separator = text == nullptr ? nullptr : std::strrchr(text, fsSeparator);
    return separator == nullptr ? xstring() : headOf(text, separator);
}

xstring fsGetHeadEntry(const char* path)
{
    fsNativePath native;
    const char* const text = endsOf(native, path, "fsGetHeadEntry", true);
    return text == nullptr ? xstring() : headOf(text, entryEnd(text));
}

xstring fsGetTailPath(const char* path)
{
    fsNativePath native;
    const char* const text = endsOf(native, path, "fsGetTailPath", false);
    const char* const separator = text == nullptr ? nullptr : std::strchr(text, fsSeparator);
    return separator == nullptr ? xstring() : fsSeparatePathTail(separator);
}

xstring fsGetTailEntry(const char* path)
{
    fsNativePath native;
    const char* const text = endsOf(native, path, "fsGetTailEntry", false);
    const char* const separator = text == nullptr ? nullptr : std::strrchr(text, fsSeparator);
    return text == nullptr || separator == nullptr ? xstring(text) : fsSeparatePathTail(separator);
}

xstring fsIntersectPaths(const char* a, const char* b)
{
    constexpr const char* function = "fsIntersectPaths";
    fsNativePath nativeA, nativeB;
    for (const char* path : {a, b})
        fsCheckEmpty(path, function);
    for (const char* path : {a, b})
        fsCheckRemote(path, function);
    fsConvert(nativeA, a, function);
    fsConvert(nativeB, b, function);

    const char* matched = nullptr; // the end of the last equal entry of A
    const char* entryA = nativeA.text();
    const char* entryB = nativeB.text();
    for (;;) {
        const char* const endA = entryEnd(entryA);
        const char* const endB = entryEnd(entryB);
        if (!std::equal(entryA, endA, entryB, endB))
            break;
        matched = endA;
        if (*endA == '\0' || *endB == '\0')
            break;
        entryA = endA + 1;
        entryB = endB + 1;
    }
    return matched == nullptr ? xstring() : headOf(nativeA.text(), matched);
}

// ---- the operating system's own paths

xstring fsPathFromHost(const char* path)
{
    if (!qelIsObject(path))
        return {};
    std::string native;
    if (!platDone(btkPathOfHost(path, native)))
        fsRaise(fsInvalidPath, "fsPathFromHost", path);
    return native.c_str();
}

xstring fsPathToHost(const char* path)
{
    if (!qelIsObject(path) || *path == '\0')
        return path;
    std::string host;
    if (!btkHostPath(path, host))
        host = btkHostName(path);
    return host.c_str();
}
