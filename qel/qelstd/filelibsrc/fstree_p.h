#pragma once

#include <string>

#include <qel/base/btkfolder.h>

#include "filelib.h"

class fsNativePath;

/// A node by its path: its name, and the folder that holds it, which is opened once.
struct fsPlace
{
    btkFolder folder;
    std::string name;
    btkNodeKind kind = btkAbsent; // a link is a link
    btkNodeId id;
    bool isHeld = false; // the folder is open

    /// False, with the last error set, when there is no node at the native path.
    bool Find(const char* path);
};

/// Removes the node `name` of `parent`, a directory with everything in it. False with the last error set;
/// ERROR_DIR_NOT_EMPTY when nodes were skipped. `watcher` may be null.
bool fsRemoveAt(btkFolder& parent, const char* name, btkNodeKind kind, btkTreeWatcher* watcher = nullptr,
                btkMounts mounts = btkCrossMounts);

/// Creates the missing directories on the way to the native path and the last one. False when that fails,
/// with the last error set.
bool fsCreateLevels(const fsNativePath& path);

/// The same for the directory that is to hold the native path. Raises in the name of `function`.
void fsEnsureParent(const char* path, const char* function);

// ---- failures

/// Runs `work`. Passes its fsXException to `handler`, unless it is an fsXSignal; rethrows it when
/// there is no handler or the handler returns fsStop. Returns fsStop when nothing was thrown.
template<class Work>
fsFailureAction fsAsk(fsFailureHandler* handler, const std::string& path, Work work)
{
    try {
        work();
        return fsStop;
    } catch (xthrowable* thrown) {
        fsXException* const failure = fsXException::softcast(thrown);
        if (handler == nullptr || failure == nullptr || fsXSignal::softcast(thrown) != nullptr)
            throw;
        const fsFailureAction action = handler->OnFailure(path.c_str(), failure);
        if (action != fsSkip && action != fsRetry)
            throw;
        xrcrelease(thrown);
        return action;
    }
}
