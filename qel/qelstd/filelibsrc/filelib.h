#pragma once

#include <qel/fsdir.h>
#include <qel/fserror.h>
#include <qel/fsfile.h>
#include <qel/fsnodeinfo.h>
#include <qel/fspath.h>
#include <qel/platform/lasterror.h>
#include <qel/xsequence.h>

// Operations on files and directories by path. Paths are written with "/" or "\"; those that exceptions name
// are in native form where they were converted. A path that is empty, a drive alone, remote ("::" in it), or
// longer than 259 bytes throws fsXInvalidPath. What is found in directories may lie deeper. What the
// platform refuses throws the class of fserror.h that its last error stands for. An operation that fails part
// way leaves what it has done.
//
// Soft links are followed when a status is asked for, and by reading and writing. Removing removes the link
// itself.
//
// The operations keep no state and may be called from any thread; the current directory is the process's.

// What a failing operation throws is also the thread's last error; GetLastError() and
// fsXException::getPlatformError() say more than the class.

class tmTime;

enum fsOpMode { fsRecursive, fsSimple };
enum fsSoftLinkCopyMode {
    fsNewLink, // a link is copied as a link with the same text
    fsExpand,  // what a link leads to is copied
    fsIgnore   // links are left out
};
enum fsRecursiveCopyMode {
    fsForceNew, // the destination must not exist
    fsMerge,    // directories are merged, files replaced
    fsReplace   // what is at the destination is removed
};
QEL_ENUM(fsOpMode);
QEL_ENUM(fsSoftLinkCopyMode);
QEL_ENUM(fsRecursiveCopyMode);

/// What fshGetNodeType answers for a node that does not exist.
constexpr int fsNodeAbsent = 3;

// ---- creating, removing, moving, copying

/// Is told how long work gets on.
class QEL_API fsProgressHandler
{
public:
    virtual ~fsProgressHandler() = default;
    /// `done` of `total` bytes have been copied; a hole in a file counts. Or: `done` nodes have been removed,
    /// and `total` is 0, as nobody knows. `path` is the file that is being copied, or what is removed as a
    /// whole, in native form and valid during the call. False ends the work. Must not throw.
    virtual bool Invoke(const char* path, double done, double total) = 0;
};

/// What becomes of a node that an operation on many of them fails on.
enum fsFailureAction {
    fsSkip,  // the operation goes on without it
    fsRetry, // it is tried again
    fsStop   // the operation ends, as it does without a handler
};

/// Decides how an operation goes on after a failure. Arguments that are refused at once, and work that its
/// progress handler ended, are no question for it.
class QEL_API fsFailureHandler
{
public:
    virtual ~fsFailureHandler() = default;
    /// The operation fails on the node at `path`, in native form. `failure` says why. Both are valid during
    /// the call. Must not throw.
    virtual fsFailureAction OnFailure(const char* path, fsXException* failure) = 0;
};

/// Whether a directory's contents include what is mounted in it.
enum fsMountMode {
    fsCrossMounts,
    fsOneFileSystem // what is mounted is passed over, which is no failure
};

/// fsSimple: one directory. Else: those missing on the way to it, too; one that exists, or that another
/// creates meanwhile, is no failure then, but a file is.
QEL_API void fsCreateDir(const char* path, fsOpMode mode);

/// fsSimple: a file, or an empty directory. Else: a directory with everything in it, depth first; links in it
/// are removed and never entered.
QEL_API void fsRemove(const char* path, fsOpMode mode);

/// The same, and tells `progress` after each node that was in a directory.
/// @throws fsXSignal  `progress` ended it
QEL_API void fsRemove(const char* path, fsOpMode mode, fsProgressHandler& progress);

/// The same, and asks `failures` about each node that cannot be removed. Directories that hold what was
/// passed over stay. A null `progress` is told nothing.
QEL_API void fsRemove(const char* path, fsOpMode mode, fsFailureHandler& failures,
                      fsProgressHandler* progress = nullptr, fsMountMode mounts = fsCrossMounts);

/// Moves or renames without replacing anything, within one volume. Unless fsSimple, creates the directories
/// on the way to `to`.
QEL_API void fsMove(const char* from, const char* to, fsOpMode mode);

/// Renames within its directory.
/// @throws fsXInvalidName  `newName` holds a separator
QEL_API void fsRename(const char* path, const char* newName);

/// Copies a file, or a directory with everything in it, with rights (modes without setuid, access lists),
/// user attributes and modification times. Unless `mode` is fsSimple, creates the directories on the way to
/// `to`. A file takes its name when it is complete: killed or failed, the copy leaves what had the name, or
/// nothing. fsReplace removes a directory that is in the way of a file, or the other way round, when the
/// source is open. A link at a destination is replaced, never written through. A missing source, a link that
/// leads nowhere, and a copy onto or into itself or onto a directory that holds it throw fsXInvalidPath.
/// @throws fsXFileExists    fsForceNew and the destination exists, or a directory and something else meet
/// @throws fsXNoPermission  a pipe, socket or device is met
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode);

/// The same, and tells `progress` after each file and after each 8 MiB of a file. The sizes are added up
/// before the copy begins; `done` runs past them when files grow meanwhile.
/// @throws fsXSignal  `progress` ended it; a file that was copied in part has been removed
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode, fsProgressHandler& progress);

/// The same, and asks `failures` about each node that cannot be copied. A null `progress` is told nothing.
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode, fsFailureHandler& failures,
                    fsProgressHandler* progress = nullptr, fsMountMode mounts = fsCrossMounts);

/// Both always throw fsXLinksNotSupported.
QEL_API xstring fsReadLink(const char* path);
QEL_API void fsCreateSoftLink(const char* target, const char* link, fsOpMode mode);

/// Cuts a file, or appends zero bytes; creates it if it is missing. `size` is cut to whole bytes. A file that
/// cannot grow keeps its size.
/// @throws fsXOther  `size` is negative or no number of bytes
QEL_API void fsSetFileSize(const char* path, double size);

// ---- directories and volumes

/// The environment variables HOMEDRIVE and HOMEPATH in a row; where neither is set, the native form of HOME.
/// @throws fsXOther  one of the two is missing, empty or too long (3 and 255 bytes); HOME is no absolute
/// path,
///                   lies on no drive or is too long
QEL_API xstring fsGetHomeDir();
/// The current directory of the process, in native form with its drive.
QEL_API xstring fsGetCurDir();
QEL_API void fsChangeDir(const char* path);

/// Creates an empty file with a new name that begins with `prefix`, for its owner only, and returns its path
/// in native form.
/// @throws fsXInvalidName  `prefix` holds a separator
QEL_API xstring fsMkTmpName(const char* directory, const char* prefix);
/// The same for an empty directory.
QEL_API xstring fsMkTmpDir(const char* directory, const char* prefix);

/// Free bytes, for this user, on the file system that holds `path`, or that would hold it: where it does not
/// exist, its nearest folder that does counts.
QEL_API double fsGetAvailableDiskSpace(const char* path);

/// The names, not the paths, of the entries that are like `pattern` (fsMatchesPattern), in the platform's
/// order. Null `pattern`: all of them; the empty one: none.
QEL_API xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern);
/// The same, and asks `failures` when the directory cannot be read; what has been read by then is kept.
QEL_API xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern,
                                                   fsFailureHandler& failures);

/// The existing paths that are like `pattern`, each entry of which may hold "*" and "?": depth first, in the
/// platform's order within a directory.
QEL_API xrchandle<xstringsequence> fsExpandPattern(const char* pattern);
/// The same, and asks `failures` about each directory that cannot be read.
QEL_API xrchandle<xstringsequence> fsExpandPattern(const char* pattern, fsFailureHandler& failures);

// ---- contents and status

/// A checksum of a file's bytes, taken as signed: their number modulo 65536 in the upper half, their sum
/// modulo 256 in the second byte; with the exclusive or of all of them, widened with sign, over that.
QEL_API int fsCalculateCheckSum(const char* path);

QEL_API xrchandle<fsNodeInfo> fsGetNodeInfo(const char* path);

// Quick questions about a node. One that cannot be found, or not be asked, counts as absent; a device error
// throws fsXIOError.

/// A new object, which the caller frees with xdelete; null when absent.
QEL_API tmTime* fshGetModTime(const char* path);
/// Bytes; null when absent.
QEL_API double fshGetSize(const char* path);
/// fsNodeAbsent when absent.
QEL_API fsNodeType fshGetNodeType(const char* path);
QEL_API unsigned char fshIsDirectory(const char* path);
QEL_API unsigned char fshIsFile(const char* path);
QEL_API unsigned char fshIsSoftLink(const char* path);
QEL_API unsigned char fshExists(const char* path);
