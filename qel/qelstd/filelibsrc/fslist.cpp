#include <cstring>
#include <string>

#include <qel/base/btkfolder.h>
#include <qel/base/btkpath.h>
#include <qel/platform/errortable.h>

#include "filelib.h"
#include "fsdir.h"
#include "fsexception_p.h"
#include "fspath_p.h"
#include "fstree_p.h"

namespace {

constexpr const char* listFunction = "fsListDirectory";
constexpr const char* expandFunction = "fsExpandPattern";

bool hasWildcard(const std::string& entry)
{
    return entry.find_first_of("*?") != std::string::npos;
}

bool isDots(const std::string& entry)
{
    return entry.empty() || entry == "." || entry == "..";
}

/// The target of a path, relative to an open folder; without a folder, of the path itself.
struct Spot
{
    const btkFolder* folder = nullptr;
    std::string hostPath;            // in the folder
    btkNodeKind kind = btkDirectory; // a link or a directory, if known
};

/// Collects the existing paths that match a pattern. Matches of a wildcard are processed from their folder,
/// so that their depth is not limited.
class Expansion
{
public:
    Expansion(xstringsequence& found, fsFailureHandler* told) : results(found), failures(told) {}

    /// Expands `rest` below `base`, which is joined to it with a separator when `separated`.
    void Expand(std::string& base, const Spot& spot, const char* rest, bool separated)
    {
        if (*rest == '\0') {
            results.append(base.c_str());
            return;
        }
        const std::size_t length = std::strcspn(rest, "\\");
        const std::string entry(rest, length);
        rest += rest[length] == fsSeparator ? length + 1 : length;
        if (hasWildcard(entry)) {
            expandMatching(base, spot, entry, rest, separated);
            return;
        }
        const std::size_t baseLength = base.size();
        base.append(separated ? 1 : 0, fsSeparator).append(entry);
        Spot below;
        if (spot.folder != nullptr && !isDots(entry))
            below = {spot.folder, spot.hostPath + '/' + btkHostName(entry)};
        if (below.folder != nullptr ? below.folder->Kind(below.hostPath.c_str(), btkFollowLinks) != btkAbsent
                                    : fshExists(base.c_str()) == 1)
            Expand(base, below, rest, true);
        base.resize(baseLength);
    }

private:
    void expandMatching(std::string& base, const Spot& spot, const std::string& entry, const char* rest,
                        bool separated)
    {
        if (spot.kind != btkDirectory && spot.kind != btkLink)
            return;
        const std::string directory = fsIsEmptyPath(base.c_str()) ? base + '.' : base;
        btkFolder listing;
        bool isOpen = false;
        fsFailureAction action;
        do
            action = fsAsk(failures, directory, [&] { isOpen = open(listing, directory, spot); });
        while (action == fsRetry);
        if (!isOpen)
            return;
        const std::size_t baseLength = base.size();
        btkEntry found;
        for (;;) {
            if (!listing.Read(found)) {
                if (listing.IsAtEnd())
                    return;
                platFail();
                if (fsAsk(failures, directory, [&] { fsRaiseLastError(expandFunction, entry.c_str()); }) !=
                    fsRetry)
                    return;
                continue;
            }
            const std::string shown = btkNativeName(found.hostName);
            if (!fsMatchesPattern(shown.c_str(), entry.c_str()))
                continue;
            base.append(separated ? 1 : 0, fsSeparator).append(shown);
            Expand(base, {&listing, found.hostName, found.kind}, rest, true);
            base.resize(baseLength);
        }
    }

    /// False for anything but a directory.
    static bool open(btkFolder& listing, const std::string& directory, const Spot& spot)
    {
        if (platDone(spot.folder != nullptr
                         ? listing.Open(*spot.folder, spot.hostPath.c_str(), btkFollowLinks)
                         : listing.Open(directory.c_str())))
            return true;
        const unsigned error = GetLastError();
        const bool isDirectory =
            spot.folder != nullptr ? spot.folder->Kind(spot.hostPath.c_str(), btkFollowLinks) == btkDirectory
                                   : fshIsDirectory(directory.c_str()) == 1;
        if (!isDirectory)
            return false;
        SetLastError(error);
        fsRaiseLastError(expandFunction, directory.c_str());
    }

    xstringsequence& results;
    fsFailureHandler* failures; // null: the first failure ends it
};

xrchandle<xstringsequence> list(const char* directory, const char* pattern, fsFailureHandler* failures)
{
    fsNativePath native;
    directory = fsCheckPathSlashes(native, directory, listFunction);
    if (!qelIsObject(pattern))
        pattern = "*";
    fsiDir listing;
    bool isOpen = false;
    xrchandle<xstringsequence> names(xstringsequence::create());
    const auto collect = [&] {
        if (!isOpen && !listing.Open(directory))
            fsRaiseLastError(listFunction, directory);
        isOpen = true;
        xstring name;
        fsIOStatus status;
        while ((status = listing.ReadNextMatching(pattern, name)) == fsIOOk)
            names->append(name);
        if (status == fsIOFailed || !listing.Close())
            fsRaiseLastError(listFunction, directory);
    };
    while (fsAsk(failures, directory, collect) == fsRetry) {
    }
    return names;
}

xrchandle<xstringsequence> expand(const char* pattern, fsFailureHandler* failures)
{
    fsNativePath native;
    fsCheckPath(native, pattern, expandFunction);
    const char* const text = native.text();
    const std::size_t root = fsRootLength(text);
    const std::size_t baseLength = root > 0 ? root : fsHasDrive(text) ? 2 : 0;
    std::string base(text, baseLength);
    xrchandle<xstringsequence> paths(xstringsequence::create());
    Expansion(*paths, failures).Expand(base, {}, text + baseLength, false);
    return paths;
}

} // namespace

xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern)
{
    return list(directory, pattern, nullptr);
}

xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern,
                                           fsFailureHandler& failures)
{
    return list(directory, pattern, &failures);
}

xrchandle<xstringsequence> fsExpandPattern(const char* pattern)
{
    return expand(pattern, nullptr);
}

xrchandle<xstringsequence> fsExpandPattern(const char* pattern, fsFailureHandler& failures)
{
    return expand(pattern, &failures);
}
