#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include <qel/base/btkfd.h>

/// Changes of a tree of folders that are prepared in a folder of their own on the same file system, and take their
/// place by one rename: readers, also after a killed process, find the old or the new state. The caller lets one
/// process at a time make changes, and flushes the names of the changed folders (btkSyncFolder). Links in the tree
/// are not followed. A call that fails leaves the reason in errno, and the tree unchanged.
class BASE_API btkStaging
{
public:
    /// Whether file contents are flushed to the disk before they take their place, and the modes of new nodes;
    /// 0: private to this user.
    struct Kind
    {
        bool isFlushed = true;
        unsigned fileMode = 0;
        unsigned folderMode = 0;
    };
    /// A folder to be created, and the text of a file in it.
    struct Step
    {
        std::string folder;
        std::string text;
    };
    /// Whether a file of that name is one of the caller's own, which may be removed with its folder.
    using Owns = std::function<bool(std::string_view name)>;

    explicit btkStaging(Owns owned) : owns(std::move(owned)) {}

    /// Opens the staging folder `name` of `inFolder`; creates it where it is missing.
    bool Open(btkHandle inFolder, const char* name);
    btkHandle Get() const { return folder.Get(); }
    /// Removes the changes that killed processes have not finished: files and folders with names of the form that
    /// this class gives, and in the folders what the caller owns. Links and other files stay.
    void Sweep() { removeUnfinished({}); }

    /// Replaces the file `name` of `target`, or creates it. Anything but a regular file is not replaced: ELOOP for a
    /// link, else EACCES.
    bool Replace(btkHandle target, const char* name, std::string_view text, const Kind& kind) const;
    /// Creates the folders of `steps`, each in the one before it, and in each the file `textFile` with the step's
    /// text unless that is empty.
    bool Build(btkHandle target, std::span<const Step> steps, const char* textFile, const Kind& kind) const;
    /// Removes the folder `name` of `target` with what the caller owns in it; what else is in it stays in the
    /// staging folder.
    bool Remove(btkHandle target, const char* name) const;
    /// Whether there is a regular file or no node; errno describes any other node.
    static bool IsFileOrAbsent(btkHandle target, const char* name);

private:
    bool makeTree(const std::string& name, std::span<const Step> steps, const char* textFile,
                  const Kind& kind) const;
    void removeUnfinished(std::string_view name) const;

    btkFd folder;
    Owns owns;
};
