#include <cstring>
#include <string>

#include "filelib.h"
#include "fsdir.h"
#include "fserror_p.h"
#include "fspath_p.h"

namespace {

constexpr const char* listFunction = "fsListDirectory";
constexpr const char* expandFunction = "fsExpandPattern";

bool hasWildcard(const std::string& entry)
{
    return entry.find_first_of("*?") != std::string::npos;
}

/// Collects the existing paths that are like a pattern.
class Expansion
{
public:
    explicit Expansion(xstringsequence& found) : results(found) {}

    /// Expands `rest` below `base`, which is joined to it with a separator when `separated`.
    void Expand(fsNativePath& base, const char* rest, bool separated)
    {
        if (*rest == '\0') {
            results.append(base.text());
            return;
        }
        const std::size_t length = std::strcspn(rest, "\\");
        const std::string entry(rest, length);
        rest += rest[length] == fsSeparator ? length + 1 : length;
        const std::size_t baseLength = base.length();
        if (hasWildcard(entry)) {
            expandMatching(base, entry, rest, separated);
        } else {
            fsJoin(base, entry.c_str(), expandFunction, separated);
            if (fshExists(base.text()))
                Expand(base, rest, true);
            base.Cut(baseLength);
        }
    }

private:
    void expandMatching(fsNativePath& base, const std::string& entry, const char* rest, bool separated)
    {
        fsNativePath directory = base;
        if (fsIsEmptyPath(base.text()))
            fsJoin(directory, ".", expandFunction, false);
        fsiDir listing;
        if (!listing.Open(directory.text())) {
            const unsigned error = GetLastError();
            if (!fshIsDirectory(directory.text()))
                return;
            SetLastError(error);
            fsRaiseLastError(expandFunction, directory.text());
        }
        const std::size_t baseLength = base.length();
        xstring name;
        fsIOStatus status;
        while ((status = listing.ReadNextMatching(entry.c_str(), name)) == fsIOOk) {
            fsJoin(base, name.CastToCString(), expandFunction, separated);
            Expand(base, rest, true);
            base.Cut(baseLength);
        }
        if (status == fsIOFailed)
            fsRaiseLastError(expandFunction, entry.c_str());
        if (!listing.Close())
            fsRaiseLastError(expandFunction, directory.text());
    }

    xstringsequence& results;
};

} // namespace

xrchandle<xstringsequence> fsListDirectory(const char* directory, const char* pattern)
{
    fsNativePath native;
    directory = fsCheckPathSlashes(native, directory, listFunction);
    if (!qelIsObject(pattern))
        pattern = "*";
    fsiDir listing;
    if (!listing.Open(directory))
        fsRaiseLastError(listFunction, directory);
    xrchandle<xstringsequence> names(xstringsequence::create());
    xstring name;
    fsIOStatus status;
    while ((status = listing.ReadNextMatching(pattern, name)) == fsIOOk)
        names->append(name);
    if (status == fsIOFailed || !listing.Close())
        fsRaiseLastError(listFunction, directory);
    return names;
}

xrchandle<xstringsequence> fsExpandPattern(const char* pattern)
{
    fsNativePath native, base;
    fsCheckPath(native, pattern, expandFunction);
    const char* const text = native.text();
    const std::size_t root = fsRootLength(text);
    const std::size_t baseLength = root > 0 ? root : fsHasDrive(text) ? 2 : 0;
    base = native;
    base.Cut(baseLength);
    xrchandle<xstringsequence> paths(xstringsequence::create());
    Expansion(*paths).Expand(base, text + baseLength, false);
    return paths;
}
