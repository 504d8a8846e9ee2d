#pragma once

/// Keys and values as folders and files of the registry's store. Functions that return a long return an error
/// number.

#include <string>
#include <string_view>
#include <vector>

#include <qel/base/btkfolder.h>
#include <qel/platform/registry.h>

#include "registrystore.h"

inline constexpr DWORD platLargestValue = 16 * 1024 * 1024;
inline constexpr std::size_t platLongestPath = 4096;

/// An open key below a root.
struct HKEY__
{
    btkFd folder;
    std::shared_ptr<const platStore> store;
};

/// The kind of a key's names.
enum platListed { platListedKeys, platListedValues };

/// The location of a call: a folder, and the prefix of the paths in it.
struct platPlace
{
    int folder = -1;
    std::string prefix; // empty, or the folder of a root with "/" at its end
    std::shared_ptr<const platStore> store;

    bool IsRoot() const { return !prefix.empty(); }
};

/// Only a node that is absent is "not found"; anything but a folder where one belongs is another error.
long platHostError();
/// The error of a change inside a key: its folder no longer exists when the key was deleted meanwhile.
long platChangeError(const platPlace& place);
bool platIsRoot(HKEY key);
/// Returns an error for an invalid key, or when the store of a root cannot be opened. Makes a missing store
/// when `create` is true.
long platFindPlace(HKEY key, bool create, platPlace& place);
/// Finds the place and, below it, the folder of the key `path`.
long platFindKey(HKEY parent, const char* path, bool create, platPlace& place, std::string& folder);

// ---- keys

/// Appends the folders on `path`; the last one stores `name` unless that is empty.
void platAddSteps(std::vector<platStep>& steps, std::string_view path, const std::string& name);
/// The folders of the key `path`, with its names as they were written where their folders do not show them.
std::vector<platStep> platStepsOf(const platPlace& place, std::string_view path);

/// Opens the existing folders of `steps`.
class platWalk
{
public:
    platWalk(const platPlace& place, const std::vector<platStep>& allSteps)
        : begin(place.folder), steps(allSteps)
    {
    }

    /// Writes names that are missing, unless `repair` is null. Returns an error number; success also for a
    /// missing folder.
    long Go(platChange* repair);

    /// The deepest existing folder.
    int Folder() const { return opened ? opened.Get() : begin; }
    btkFd Take() { return std::move(opened); }
    bool IsWhole() const { return done == steps.size(); }
    bool LacksName() const { return lacksName; }
    std::span<const platStep> Missing() const { return std::span(steps).subspan(done); }

private:
    int begin;
    const std::vector<platStep>& steps;
    std::size_t done = 0;
    bool lacksName = false;
    btkFd opened;
};

/// Opens the folders of `steps`, creates the missing ones, and writes missing names. `made` receives whether
/// any folder was missing.
long platMakeFolders(const platPlace& place, platChange& change, platWalk& walk, bool& made);
/// Removes the empty folders that hold parts of the long name of `path`.
void platRemoveParts(const platPlace& place, std::string path);
/// Checks that a key's folder holds only values. Returns an error number: ERROR_ACCESS_DENIED for subkeys,
/// ERROR_DIR_NOT_EMPTY for foreign files. `prefix` leads to `folder`, which carries a part of a long name
/// when it is not empty.
long platCheckDeletable(btkFolder& folder, const std::string& prefix);

// ---- values and names

/// A value's file is a line with the type's number and the name as written, then the data.
struct platValue
{
    DWORD type = 0;
    std::string data;
};

std::string platValueText(DWORD type, const char* name, std::string_view data);
long platReadValue(const platPlace& place, const char* name, platValue& value);
/// The names of the subkeys or values in a key, as they were written, in the order of the names without case.
long platNamesIn(HKEY key, platListed what, std::vector<std::string>& names);
