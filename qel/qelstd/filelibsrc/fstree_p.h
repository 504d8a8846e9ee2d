#pragma once

#include "filelib.h"

class fsNativePath;
class platWatcher;

/// Removes the node at a native path: a directory with everything in it when `recursive`. Raises in the name
/// of `function`. `watcher` may be null.
void fsRemoveNode(const char* path, bool recursive, const char* function, platWatcher* watcher = nullptr);

/// Creates the missing directories on the way to the native path and the last one. False when that fails,
/// with the last error set.
bool fsCreateLevels(const fsNativePath& path);

/// The same for the directory that is to hold the native path. Raises in the name of `function`.
void fsEnsureParent(const fsNativePath& path, const char* function);
