#include "netrights.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "hmxregistry.h"
#include <qel/base/btksocket.h>
#include <qel/platform/errortable.h>

namespace {

// Where the registry could not be asked, nobody can tell that there is no value: a peer that uses up the
// descriptors is not to be admitted for it, nor is everybody because a file is damaged.
bool IsWithoutValue()
{
    constexpr DWORD unknown[] = {ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY, ERROR_ACCESS_DENIED,
                                 ERROR_IO_DEVICE, ERROR_FILE_CORRUPT};
    return std::ranges::find(unknown, GetLastError()) == std::end(unknown);
}

bool Admits(hmxRegistry& registry, const xstring& server, const xstring& address)
{
    const xrchandle<xstringsequence> patterns = ReadConnectionPatterns(registry, server);
    return !patterns || MatchAnyPattern(address, patterns);
}

} // namespace

xrchandle<xstringsequence> ReadConnectionPatterns(hmxRegistry& registry, xstring serverName)
{
    const xstring path(netRightsPath, serverName.CastToCString());
    hmxRegistryKey key;
    const xstring value =
        key.Open(registry.root, path.CastToCString()) ? key.GetValue("ConnectionAllowed") : xstring(nullptr);
    if (value == nullptr && IsWithoutValue())
        return nullptr;
    return SplitPatternList(value);
}

bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName)
{
    if (serverName == nullptr || serverName == "")
        return true;
    // Local statics: the roots' first calls must not race.
    static hmxRegistry& system = hmxRegistry::System();
    static hmxRegistry& user = hmxRegistry::User();

    const xstring address(socket->GetPeerAddrStr().c_str());
    return Admits(system, serverName, address) && Admits(user, serverName, address);
}

bool HasConnectionRights(xstring serverName)
{
    return ReadConnectionPatterns(hmxRegistry::System(), serverName) ||
           ReadConnectionPatterns(hmxRegistry::User(), serverName);
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
