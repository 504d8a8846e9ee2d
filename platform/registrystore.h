#pragma once

/// The folder tree that keeps the registry, below the calls of registry.h: opened without following a link in
/// it, and changed so that a reader, and whoever comes after a killed process, finds the old state or the new
/// one. The calls that return bool set errno when they fail.

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <qel/platform/filecopy.h>

/// A store: its folder, held open. The folder itself may be reached through links.
struct platStore
{
    platDescriptor folder;
    dev_t device = 0;
    bool isShared = false; // of the machine: readable by everybody

    /// Opens the store that keeps one of the roots, and makes it when it is missing and `create` is true.
    /// Returns an error number; ERROR_FILE_NOT_FOUND only where there certainly is none.
    static long Open(bool ofSystem, bool create, std::shared_ptr<const platStore>& store);
};

/// The path of the store that keeps a root; empty when nothing says where it is.
std::string platStorePath(bool ofSystem);

inline constexpr const char* platNameFile = ".name"; // keeps the name of a key as it was written

/// A node by the folder that holds it.
struct platSpot
{
    platDescriptor opened; // empty: `folder` is the caller's
    int folder = -1;
    std::string name;
};

/// Finds the folder of the node `path`, relative to `folder`. A link on the way is not followed: ENOTDIR.
bool platFindSpot(int folder, const std::string& path, platSpot& spot);
/// Opens the folder `path`, relative to `folder`, as O_PATH. ENOTDIR also for a link.
platDescriptor platOpenInside(int folder, const std::string& path);
/// Opens the regular file `path` for reading. ELOOP for a link.
platDescriptor platOpenFileInside(int folder, const std::string& path);

/// A folder to be made, and the name that a file in it keeps unless it is empty.
struct platStep
{
    std::string folder;
    std::string name;
};

/// Keeps the changes of other threads and processes out of a store while it lives. Removes first what killed
/// processes have left unfinished.
class platChange
{
public:
    explicit platChange(const platStore& changed);
    platChange(const platChange&) = delete;
    platChange& operator=(const platChange&) = delete;
    ~platChange();
    /// False when the store cannot be changed, with errno set.
    explicit operator bool() const { return static_cast<bool>(unfinished); }

    /// Puts a whole file at `name` of `folder`, or leaves what was there. What is no regular file is not
    /// replaced.
    bool Replace(int folder, const char* name, std::string_view text);
    /// Makes the folders of `steps`, each in the one before it, in one step.
    bool Build(int folder, std::span<const platStep> steps);
    /// Removes the folder `name` with what is the store's own in it, in one step.
    bool RemoveTree(int folder, const char* name);
    /// Removes a regular file.
    bool RemoveFile(int folder, const char* name);

private:
    bool write(int folder, const char* name, std::string_view text) const;
    bool makeTree(const std::string& name, std::span<const platStep> steps) const;
    /// Brings the names in `folder` to the disk; in a batch, when that is committed.
    bool sync(int folder) const;
    /// Removes `name` from the unfinished ones; all that killed processes have left when it is empty.
    void removeUnfinished(std::string_view name) const;

    const platStore& store;
    pid_t owner; // a child made by fork does not unlock
    platDescriptor lock, unfinished;
};
