#pragma once

#include <utility>

#include <qel/fsdir.h>
#include <qel/fsexception.h>
#include <qel/fsfile.h>
#include <qel/fsnodeinfo.h>
#include <qel/fspath.h>
#include <qel/platform/lasterror.h>
#include <qel/xsequence.h>

// Operations on files and directories by path. Paths are written with "/" or "\"; exceptions name them in
// native form if they were converted. A path that is empty, a drive alone, remote ("::" in it), or longer
// than 259 bytes throws fsXInvalidPath. Nodes found in directories may have longer paths. A failed platform
// call throws the class of fsexception.h for its last error. An operation that fails midway is not rolled back.
//
// Status queries, reading and writing follow soft links. Removing removes the link itself.
//
// The operations keep no state and may be called from any thread; the current directory is that of the
// process.

// A failing operation also sets the thread's last error; GetLastError() and fsXException::getPlatformError()
// are more specific than the class.

class tmTime;

/// Whether an operation takes a directory with its content, or refuses one that is not empty.
enum fsOpMode { fsRecursive, fsSimple };
/// How a soft link is copied.
enum fsSoftLinkCopyMode {
    fsNewLink, // a link is copied as a link with the same text
    fsExpand,  // the target of a link is copied
    fsIgnore   // links are left out
};
/// How a directory is copied onto an existing one.
enum fsRecursiveCopyMode {
    fsForceNew, // the destination must not exist
    fsMerge,    // directories are merged, files replaced
    fsReplace   // a node at the destination is removed
};
QEL_ENUM(fsOpMode);
QEL_ENUM(fsSoftLinkCopyMode);
QEL_ENUM(fsRecursiveCopyMode);

/// Returned by fshGetNodeType for a node that does not exist.
constexpr int fsNodeAbsent = 3;

// ---- creating, removing, moving, copying

/// Receives progress reports, and can end the work.
///
///     qel::onProgress show([](const char* path, double done, double total) {
///         std::clog << path << ": " << 100 * done / total << " %\n";
///     });
///     fsCopy("data", "copy", fsMerge, fsNewLink, fsRecursive, show);
class QEL_API fsProgressHandler
{
public:
    virtual ~fsProgressHandler() = default;
    /// `done` of `total` bytes have been copied; a hole in a file counts. Or: `done` nodes have been removed,
    /// and `total` is 0, since it is unknown. `path` is the file being copied, or the top node being removed,
    /// in native form and valid during the call. False ends the work. Must not throw.
    virtual bool Invoke(const char* path, double done, double total) = 0;
};

/// How an operation on many nodes continues after one of them fails.
enum fsFailureAction {
    fsSkip,  // the operation continues without the node
    fsRetry, // the node is tried again
    fsStop   // the operation fails, as without a handler
};

/// Decides how an operation continues after a failure. It is not called for arguments that are refused at
/// once, nor for work that its progress handler ended.
///
///     qel::onFailure skip([](const char* path, fsXException& failure) {
///         std::cerr << path << ": " << failure.getPlatformText() << '\n';
///         return fsSkip;
///     });
///     fsRemove("build", fsRecursive, skip);
class QEL_API fsFailureHandler
{
public:
    virtual ~fsFailureHandler() = default;
    /// The operation has failed on the node at `path`, in native form. `failure` gives the reason. Both are
    /// valid during the call. Must not throw.
    virtual fsFailureAction OnFailure(const char* path, fsXException* failure) = 0;
};

namespace qel {

/// A progress handler that calls `f(path, done, total)`: a function that returns whether the work continues,
/// or nothing.
template<class F>
class onProgress final : public fsProgressHandler
{
public:
    explicit onProgress(F taken) : f(std::move(taken)) {}
    bool Invoke(const char* path, double done, double total) override
    {
        if constexpr (requires { static_cast<bool>(f(path, done, total)); })
            return f(path, done, total);
        else
            return f(path, done, total), true;
    }

private:
    F f;
};

/// A failure handler that calls `f(path, failure)`, which returns how the operation continues.
template<class F>
class onFailure final : public fsFailureHandler
{
public:
    explicit onFailure(F taken) : f(std::move(taken)) {}
    fsFailureAction OnFailure(const char* path, fsXException* failure) override { return f(path, *failure); }

private:
    F f;
};

} // namespace qel

/// Whether a directory's contents include file systems mounted in it.
enum fsMountMode {
    fsCrossMounts,
    fsOneFileSystem // mount points are skipped, which is not a failure
};

/// fsSimple: one directory. fsRecursive: also its missing parents; an existing directory, or one that another
/// process creates meanwhile, is then not a failure, but a file is.
QEL_API void fsCreateDir(const char* path, fsOpMode mode);

/// fsSimple: a file, or an empty directory. fsRecursive: a directory with everything in it, depth first;
/// links in it are removed and never entered.
QEL_API void fsRemove(const char* path, fsOpMode mode);

/// The same, and calls `progress` after each node removed from a directory.
/// @throws fsXSignal  `progress` ended it
QEL_API void fsRemove(const char* path, fsOpMode mode, fsProgressHandler& progress);

/// The same, and calls `failures` for each node that cannot be removed. Directories that hold skipped nodes
/// stay. Null `progress`: no reports.
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
/// `to`. A file gets its name only when it is complete: a killed or failed copy leaves the previous node of
/// that name, or none. fsReplace removes a directory in the way of a file, or a file in the way of a
/// directory, once the source is open. A link at a destination is replaced, never followed. A missing source,
/// a dangling link, and a copy onto or into itself or onto a directory that holds it throw fsXInvalidPath.
/// @throws fsXFileExists    fsForceNew and the destination exists, or one end is a directory and the other is
///                          not
/// @throws fsXNoPermission  the source is, or contains, a pipe, socket or device
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode);

/// The same, and calls `progress` after each file and after each 8 MiB of a file. `total` is computed before
/// the copy begins; `done` exceeds it when files grow meanwhile.
/// @throws fsXSignal  `progress` ended it; a partly copied file has been removed
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode, fsProgressHandler& progress);

/// The same, and calls `failures` for each node that cannot be copied. Null `progress`: no reports.
QEL_API void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode,
                    fsSoftLinkCopyMode linkMode, fsOpMode mode, fsFailureHandler& failures,
                    fsProgressHandler* progress = nullptr, fsMountMode mounts = fsCrossMounts);

/// Both always throw fsXLinksNotSupported.
QEL_API xstring fsReadLink(const char* path);
QEL_API void fsCreateSoftLink(const char* target, const char* link, fsOpMode mode);

/// Cuts a file, or appends zero bytes; creates it if it is missing. `size` is truncated to whole bytes. A
/// file that cannot grow keeps its size.
/// @throws fsXOther  `size` is negative or not a valid number of bytes
QEL_API void fsSetFileSize(const char* path, double size);

// ---- directories and volumes

/// The environment variables HOMEDRIVE and HOMEPATH concatenated; if neither is set, the native form of HOME.
/// @throws fsXOther  one of the two is missing, empty or too long (3 and 255 bytes); HOME is not an absolute
///                   path, lies on no drive or is too long
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

/// Free bytes, for this user, on the file system that holds `path`; if it does not exist, on that of its
/// nearest existing parent.
QEL_API double fsGetAvailableDiskSpace(const char* path);

/// The names, not the paths, of the entries that match `pattern` (fsMatchesPattern), in the platform's order.
/// Null `pattern`: all of them; the empty one: none.
QEL_API xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern);
/// The same, and calls `failures` when the directory cannot be read; names read by then are kept.
QEL_API xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern,
                                                   fsFailureHandler& failures);

/// The existing paths that match `pattern`, each entry of which may hold "*" and "?": depth first, in the
/// platform's order within a directory.
QEL_API xrchandle<xstringsequence> fsExpandPattern(const char* pattern);
/// The same, and calls `failures` for each directory that cannot be read.
QEL_API xrchandle<xstringsequence> fsExpandPattern(const char* pattern, fsFailureHandler& failures);

// ---- contents and status

/// A checksum of a file's bytes, taken as signed: their number modulo 65536 in the upper half and their sum
/// modulo 256 in the second byte, XORed with the sign-extended XOR of all bytes.
QEL_API int fsCalculateCheckSum(const char* path);

/// Returns the status of a node.
QEL_API xrchandle<fsNodeInfo> fsGetNodeInfo(const char* path);

// Status queries for one node. A node that cannot be found or queried counts as absent; a device error throws
// fsXIOError.

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

#include <qel/fsanypath.h>
