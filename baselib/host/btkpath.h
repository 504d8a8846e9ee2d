#pragma once

/// The mapping between paths of the libraries and paths of the operating system (host paths), in one place.
///
/// - `C:\x` is the host path `/x`, or x below the directory that QELSTD_DRIVE_C names. QELSTD_DRIVE_D and so
///   on define further drives. The variables are cached in a table that follows btkEnvironment::Set (Putenv,
///   sysPutEnv), not setenv; a value that is not an absolute path is ignored.
/// - `\x` is rooted on the drive of the current directory. `D:x` is x in the current directory when that is on
///   drive D, else x in the drive's root. A drive alone names that directory itself.
/// - Both separators are accepted. Names are case-sensitive, drive letters are not.
/// - On a re-rooted drive ".." is resolved in the text and stops at the drive's root. Soft links are not
///   resolved there and may lead outside the drive.
/// - A backslash in a host name is shown as U+F05C and found by it. A ":" in a host name is shown as U+F03A
///   where it would make a drive (behind one letter that begins the name) or a remote path (beside another
///   ":"), and found by it. So that each name has a unique form, U+F05C, U+F03A and U+F05D in a host name are
///   shown with U+F05D before them.
/// Texts are bytes; invalid UTF-8 passes unchanged. Safe to call from any thread.

#include <string>
#include <string_view>

#include <qel/base/baseexport.h>

/// Puts the host form of `path` into `host`. False for an unknown drive, or when `path` is null or empty; errno
/// is then ENOTDIR.
BASE_API bool btkHostPath(const char* path, std::string& host);

/// Puts the native form of the absolute host path `host` into `native`, with the drive whose root is the
/// longest prefix. False when it lies on no drive; errno is then ENODEV.
BASE_API bool btkNativePath(std::string_view host, std::string& native);

/// Puts the path for the host path `host` into `path`: in native form with its drive when drives are
/// re-rooted, else with the host's separators. False when it is absolute and lies on no drive (ENODEV).
BASE_API bool btkPathOfHost(std::string_view host, std::string& path);

/// Convert a name, or a relative path, from its host form to the form shown, and back.
BASE_API std::string btkNativeName(std::string_view hostName);
BASE_API std::string btkHostName(std::string_view nativeName);
/// True when a name is shown unchanged, the common case; false when it may need conversion.
BASE_API bool btkIsShownAsIs(const char* hostName);

/// `hostPath` without separators at its end; a root is unchanged. For calls on a link itself: with a
/// separator behind it the kernel would follow the link.
BASE_API std::string btkWithoutEndSeparators(std::string hostPath);
