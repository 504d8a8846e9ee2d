#pragma once

#include <cstddef>

#include <qel/qelxobj_i.h>

/// A path in native form, built step by step. An operation whose result does not fit fails and changes
/// nothing.
class fsNativePath
{
public:
    static constexpr std::size_t maxLength = 259;

    fsNativePath() { buffer[0] = '\0'; }
    fsNativePath(const fsNativePath& other);
    fsNativePath& operator=(const fsNativePath& other);

    /// Takes the native form of `path`; null stands for the empty path.
    bool Assign(const char* path);
    /// Appends `entry` unchanged, with a separator before it when `separated`.
    bool Append(const char* entry, bool separated = true);
    /// Keeps the first `newLength` bytes.
    void Cut(std::size_t newLength);

    const char* text() const { return buffer; }
    std::size_t length() const { return size; }

private:
    std::size_t size = 0;
    char buffer[maxLength + 1];
};

inline constexpr char fsSeparator = '\\';

/// `path`, or the empty text for the pointers that mean no text.
const char* fsTextOf(const char* path);
/// Whether `path` begins with a letter and ":".
bool fsHasDrive(const char* path);
/// Whether `path` is empty or a drive alone.
bool fsIsEmptyPath(const char* path);
bool fsIsRemote(const char* path);
/// Where `path` begins when a root, with or without a drive, is left out: 3 for `C:\a`, 1 for `\a`, 0 for
/// `a`. For a path in native form.
std::size_t fsRootLength(const char* path);

// ---- the checks of an operation's path; they throw fsXInvalidPath with the path as given

/// The path is empty or a drive alone.
void fsCheckEmpty(const char* path, const char* function);
void fsCheckRemote(const char* path, const char* function);
/// The path has no native form.
void fsConvert(fsNativePath& native, const char* path, const char* function);
/// All three in their order.
void fsCheckPath(fsNativePath& native, const char* path, const char* function);
/// `path` in native form, put into `native`, if it has a "/"; else as given, of any length.
const char* fsConvertSlashes(fsNativePath& native, const char* path, const char* function);
/// The three checks, the last one only for a path with "/". Returns the path to use.
const char* fsCheckPathSlashes(fsNativePath& native, const char* path, const char* function);
/// The checks of an operation with two paths: each check of both, before the next; `to` is converted always.
/// Returns the path to use for `from`.
const char* fsCheckTwoPaths(fsNativePath& nativeFrom, const char* from, fsNativePath& nativeTo,
                            const char* to, const char* function);
/// Appends a name; throws with a null path when the result is too long.
void fsJoin(fsNativePath& path, const char* name, const char* function, bool separated = true);
