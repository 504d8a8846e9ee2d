#include "registry.h"

#include <cstring>
#include <map>
#include <sys/stat.h>
#include <vector>

#include <qel/base/btkfolder.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>
#include <qel/platform/registryname.h>

#include "registrykeys.h"

namespace {

/// The names in a key as they were when the thread began to enumerate them. Per thread, so that concurrent
/// enumerations of one key, or a root, are independent.
thread_local std::map<std::pair<HKEY, platListed>, std::vector<std::string>> listings;

/// Copies the name `index` of a listing to a buffer, and to `found`.
long enumerate(HKEY key, platListed what, DWORD index, char* name, DWORD* size, std::string& found)
{
    if (name == nullptr || size == nullptr)
        return ERROR_INVALID_PARAMETER;
    auto listing = listings.find({key, what});
    if (index == 0 || listing == listings.end()) {
        std::vector<std::string> names;
        if (const long error = platNamesIn(key, what, names); error != ERROR_SUCCESS)
            return error;
        listing = listings.insert_or_assign({key, what}, std::move(names)).first;
    }
    if (index >= listing->second.size()) {
        listings.erase(listing);
        return ERROR_NO_MORE_ITEMS;
    }
    found = listing->second[index];
    const DWORD room = *size;
    *size = static_cast<DWORD>(found.size());
    if (room <= found.size())
        return ERROR_MORE_DATA;
    std::memcpy(name, found.c_str(), found.size() + 1);
    return ERROR_SUCCESS;
}

/// Copies the data of a value to the caller's buffers.
long answerValue(const platValue& value, DWORD* type, unsigned char* data, DWORD* size)
{
    if (type != nullptr)
        *type = value.type;
    if (size == nullptr)
        return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    const DWORD room = *size;
    *size = static_cast<DWORD>(value.data.size());
    if (data == nullptr)
        return ERROR_SUCCESS;
    if (room < *size)
        return ERROR_MORE_DATA;
    std::memcpy(data, value.data.data(), value.data.size());
    return ERROR_SUCCESS;
}

} // namespace

long RegOpenKeyExA(HKEY parent, const char* path, DWORD, DWORD, HKEY* key)
{
    platPlace place;
    std::string folder;
    if (const long error = platFindKey(parent, path, false, place, folder); error != ERROR_SUCCESS)
        return error;
    btkFd opened = platOpenInside(place.folder, folder);
    if (!opened)
        return platHostError();
    *key = new HKEY__{std::move(opened), std::move(place.store)};
    return ERROR_SUCCESS;
}

long RegCreateKeyExA(HKEY parent, const char* path, DWORD, char*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                     HKEY* key, DWORD* disposition)
{
    platPlace place;
    std::string folder;
    if (const long error = platFindKey(parent, path, true, place, folder); error != ERROR_SUCCESS)
        return error;
    const std::vector<platStep> steps = platStepsOf(place, path);
    platWalk walk(place, steps);
    if (const long error = walk.Go(nullptr); error != ERROR_SUCCESS)
        return error;
    bool made = false;
    if (!walk.IsWhole() || walk.LacksName()) {
        platChange change(*place.store);
        if (const long error = platMakeFolders(place, change, walk, made);
            error != ERROR_SUCCESS && !walk.IsWhole())
            return error;
    }
    *key = new HKEY__{walk.Take(), std::move(place.store)};
    if (disposition != nullptr)
        *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

long RegCloseKey(HKEY key)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    listings.erase({key, platListedKeys});
    listings.erase({key, platListedValues});
    if (!platIsRoot(key))
        delete key;
    return ERROR_SUCCESS;
}

long RegDeleteKeyA(HKEY parent, const char* path)
{
    platPlace place;
    std::string folder;
    if (const long error = platFindKey(parent, path, false, place, folder); error != ERROR_SUCCESS)
        return error;
    platChange change(*place.store);
    platSpot spot;
    if (!change || !platFindSpot(place.folder, folder, spot))
        return platHostError();
    const btkFd opened = platOpenInside(spot.folder, spot.name);
    btkFolder key;
    if (!opened || !key.OpenHost(opened.Get(), "."))
        return platHostError();
    if (const long error = platCheckDeletable(key, ""); error != ERROR_SUCCESS)
        return error;
    if (!change.RemoveTree(spot.folder, spot.name.c_str()))
        return platHostError();
    platRemoveParts(place, folder);
    return ERROR_SUCCESS;
}

long RegSetValueExA(HKEY key, const char* name, DWORD, DWORD type, const unsigned char* data, DWORD size)
{
    if (size > platLargestValue)
        return ERROR_INVALID_PARAMETER;
    if (name == nullptr)
        name = "";
    platPlace place;
    if (const long error = platFindPlace(key, true, place); error != ERROR_SUCCESS)
        return error;
    const std::string path = place.prefix + platValuePath(name);
    if (path.size() >= platLongestPath)
        return ERROR_FILENAME_EXCED_RANGE;
    const std::size_t leaf = path.rfind('/') + 1; // 0 when there is none
    std::vector<platStep> steps;
    platAddSteps(steps, std::string_view(path).substr(0, leaf), {});
    platWalk walk(place, steps);
    platChange change(*place.store);
    bool made;
    if (const long error = platMakeFolders(place, change, walk, made); error != ERROR_SUCCESS)
        return error;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (!change.Replace(walk.Folder(), path.c_str() + leaf, platValueText(type, name, bytes)))
        return platChangeError(place);
    return ERROR_SUCCESS;
}

long RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, unsigned char* data, DWORD* size)
{
    platPlace place;
    if (const long error = platFindPlace(key, false, place); error != ERROR_SUCCESS)
        return error;
    platValue value;
    if (const long error = platReadValue(place, name == nullptr ? "" : name, value); error != ERROR_SUCCESS)
        return error;
    return answerValue(value, type, data, size);
}

long RegDeleteValueA(HKEY key, const char* name)
{
    platPlace place;
    if (const long error = platFindPlace(key, false, place); error != ERROR_SUCCESS)
        return error;
    const std::string path = place.prefix + platValuePath(name == nullptr ? "" : name);
    platChange change(*place.store);
    platSpot spot;
    if (!change || !platFindSpot(place.folder, path, spot) ||
        !change.RemoveFile(spot.folder, spot.name.c_str()))
        return platHostError();
    platRemoveParts(place, path);
    return ERROR_SUCCESS;
}

long RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, char* className, DWORD* classSize,
                   FILETIME* lastWrite)
{
    platPlace place;
    std::string found;
    if (const long error = enumerate(key, platListedKeys, index, name, size, found); error != ERROR_SUCCESS)
        return error;
    if (className != nullptr && classSize != nullptr && *classSize > 0)
        *className = '\0';
    if (classSize != nullptr)
        *classSize = 0;
    if (lastWrite != nullptr) {
        struct stat status = {};
        if (platFindPlace(key, false, place) == ERROR_SUCCESS)
            if (const btkFd sub = platOpenInside(place.folder, place.prefix + *platKeyPath(found)); sub)
                fstat(sub.Get(), &status);
        *lastWrite = platFileTime(status.st_mtim);
    }
    return ERROR_SUCCESS;
}

long RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, DWORD* type, unsigned char* data,
                   DWORD* dataSize)
{
    std::string found;
    if (const long error = enumerate(key, platListedValues, index, name, size, found); error != ERROR_SUCCESS)
        return error;
    platPlace place;
    platValue value;
    if ((type != nullptr || dataSize != nullptr) &&
        (platFindPlace(key, false, place) != ERROR_SUCCESS ||
         platReadValue(place, found.c_str(), value) != ERROR_SUCCESS))
        value = {};
    return answerValue(value, type, data, dataSize);
}

// ---- batches and the location of the store

std::string platRegistryFolder(HKEY root)
{
    const std::string store = platStorePath(root == HKEY_CLASSES_ROOT);
    return store.empty() ? store : store + (root == HKEY_CLASSES_ROOT ? "/System" : "/User");
}
