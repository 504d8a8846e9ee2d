#pragma once

/// The one place that knows how a path of the libraries names a node of this host.
///
/// - `C:\x` is the host's `/x`, or x below the directory that QELSTD_DRIVE_C names. QELSTD_DRIVE_D and so on
///   give further drives. The variables are kept in a table that follows btkEnvironment::Set (Putenv,
///   sysPutEnv), not setenv; one that is no absolute path does not count.
/// - `\x` is rooted on the drive of the current directory. `D:x` is x in the current directory when that is
/// on
///   drive D, else x in the drive's root. A drive alone names that directory itself.
/// - Both separators are accepted. Case counts in names, not in drive letters.
/// - On a re-rooted drive ".." is resolved in the text and stops at the drive's root. It does not look at
///   soft links: those lead wherever they lead.
/// - A backslash in a host name is shown as U+F05C and found by it. A ":" in a host name is shown as U+F03A
///   where it would make a drive (behind one letter that begins the name) or a remote path (beside another
///   ":"), and found by it. So that each name has a form of its own, U+F05C, U+F03A and U+F05D in a host name
///   are shown with U+F05D before them.
/// Texts are bytes; what is not UTF-8 passes unchanged. Safe to call from any thread.

#include <string>
#include <string_view>

/// Puts the host's form of `path` into `host`. False when there is no such drive, or `path` is null or empty:
/// the last error is ERROR_PATH_NOT_FOUND then.
bool platHostPath(const char* path, std::string& host);

/// Puts the native form of the absolute host path `host` into `native`, with the drive that reaches deepest.
/// False when it lies on no drive: the last error is ERROR_INVALID_DRIVE then.
bool platNativePath(std::string_view host, std::string& native);

/// Puts the path for `host`, a path as the host has it, into `path`: in native form with its drive where
/// drives are re-rooted, else with the host's separators. False when it is absolute and lies on no drive.
bool platPathOfHost(std::string_view host, std::string& path);

/// A name, or a path that is relative, met on the host as it is shown, and back.
std::string platNativeName(std::string_view hostName);
std::string platHostName(std::string_view nativeName);
/// True for a name that is shown as it is, as nearly all are; false when it has to be looked at.
bool platIsShownAsIs(const char* hostName);

/// `hostPath` without separators at its end; a root stays. For calls that look at a link itself: with a
/// separator behind it the host would follow it.
std::string platWithoutEndSeparators(std::string hostPath);
