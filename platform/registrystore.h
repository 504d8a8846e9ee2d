#pragma once

/// The folder tree that stores the registry, below the calls of registry.h. It is opened without following
/// links in it, and each change is atomic: readers, also after a killed process, find the old or the new
/// state. The calls that return bool set errno when they fail.

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkstaging.h>

/// A store: its folder, held open. The path to the folder itself may contain links.
struct platStore
{
    btkFd folder;
    dev_t device = 0;
    bool isShared = false; // of the machine: readable by all users

    /// Opens the store of one of the roots; creates it when it is missing and `create` is true. Returns an
    /// error number; ERROR_FILE_NOT_FOUND only when the store certainly does not exist.
    static long Open(bool ofSystem, bool create, std::shared_ptr<const platStore>& store);
};

/// The path of the store of a root; empty when its location is unknown.
std::string platStorePath(bool ofSystem);

inline constexpr const char* platNameFile = ".name"; // holds the name of a key as it was written

/// A node by the folder that holds it.
struct platSpot
{
    btkFd opened; // empty: `folder` is the caller's
    int folder = -1;
    std::string name;
};

/// Finds the folder of the node `path`, relative to `folder`. A link on the way is not followed: ENOTDIR.
bool platFindSpot(int folder, const std::string& path, platSpot& spot);
/// Opens the folder `path`, relative to `folder`, as O_PATH. ENOTDIR also for a link.
btkFd platOpenInside(int folder, const std::string& path);
/// Opens the regular file `path` for reading. ELOOP for a link.
btkFd platOpenFileInside(int folder, const std::string& path);

/// The folder of a key to be created; its text is the key's name where the folder's differs.
using platStep = btkStaging::Step;

/// RAII lock that excludes changes of a store by other threads and processes. The constructor removes
/// unfinished changes of killed processes.
class platChange
{
public:
    explicit platChange(const platStore& changed);
    platChange(const platChange&) = delete;
    platChange& operator=(const platChange&) = delete;
    ~platChange();
    /// False when the store cannot be changed, with errno set.
    explicit operator bool() const { return isReady; }

    /// Replaces the file `name` of `folder` atomically. Anything but a regular file is not replaced.
    bool Replace(int folder, const char* name, std::string_view text);
    /// Creates the folders of `steps`, each in the one before it, atomically.
    bool Build(int folder, std::span<const platStep> steps);
    /// Removes the folder `name` with the store's own files in it, atomically.
    bool RemoveTree(int folder, const char* name);
    /// Removes a regular file.
    bool RemoveFile(int folder, const char* name);

private:
    btkStaging::Kind kind() const;
    /// Writes the names in `folder` to the disk; in a batch, at its commit.
    bool sync(int folder) const;

    const platStore& store;
    pid_t owner; // a child made by fork does not unlock
    btkFd lock;
    btkStaging staging;
    bool isReady = false;
};
