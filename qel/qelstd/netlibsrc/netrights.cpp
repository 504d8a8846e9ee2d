#include "netrights.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "hmxregistry.h"
#include <qel/base/btksocket.h>
#include <qel/platform/errortable.h>

namespace {

enum Verdict { noValue, matches, refused };

// Where the registry could not be asked, nobody can tell that there is no value: a peer that uses up the
// descriptors is not to be admitted for it, nor is everybody because a file is damaged.
Verdict WithoutValue()
{
    constexpr DWORD unknown[] = {ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY, ERROR_ACCESS_DENIED,
                                 ERROR_IO_DEVICE, ERROR_FILE_CORRUPT};
    return std::ranges::find(unknown, GetLastError()) != std::end(unknown) ? refused : noValue;
}

Verdict Ask(hmxRegistry& registry, const xstring& path, const xstring& address)
{
    hmxRegistryKey key;
    if (!key.Open(registry.root, path.CastToCString()))
        return WithoutValue();
    const xstring value = key.GetValue("ConnectionAllowed");
    if (value == nullptr)
        return WithoutValue();
    return MatchAnyPattern(address, SplitPatternList(value)) ? matches : refused;
}

} // namespace

bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName)
{
    if (serverName == nullptr || serverName == "")
        return true;
    // Local statics: the roots' first calls must not race.
    static hmxRegistry& system = hmxRegistry::System();
    static hmxRegistry& user = hmxRegistry::User();

    const xstring path("Software\\VRX\\", serverName.CastToCString());
    const xstring address(socket->GetPeerAddrStr().c_str());
    return Ask(system, path, address) != refused && Ask(user, path, address) != refused;
}

bool IsConnectionRestrictable(xstring serverName)
{
    const char* const name = serverName.CastToCString();
    return name != nullptr && *name != '\0' && std::strpbrk(name, "/.:*?") == nullptr;
}

xrchandle<xstringsequence> SplitPatternList(xstring value)
{
    constexpr const char* delimiters = " \t\n";
    xrchandle<xstringsequence> patterns(xstringsequence::create());
    const int count = value.GetNWords(delimiters);
    for (int i = 0; i < count; ++i)
        patterns->append(value.GetWord(i, delimiters));
    return patterns;
}

bool MatchAnyPattern(xstring address, xrchandle<xstringsequence> patterns)
{
    const int count = patterns ? patterns->getarraysize() : 0;
    for (int i = 0; i < count; ++i)
        if (address.Match(patterns->get(i).CastToCString()))
            return true;
    return false;
}
