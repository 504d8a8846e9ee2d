#include "netrights.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <string_view>

#include <qel/base/btkcarrier.h>
#include <qel/base/btksocket.h>
#include <qel/platform/errortable.h>

#include "hmxregistry.h"
#include "netsetting_p.h"
#include "nettls.h"

namespace {

constexpr const char* rightsValue = "ConnectionAllowed";
constexpr const char* certificateMark = "cert:";

struct Peer
{
    xstring address;
    xrchandle<xstringsequence> names; // null: without TLS
    bool isTlsRequired;
};

/// Whether the last error of the registry means that the key or value is certainly absent.
bool isCertainlyAbsent()
{
    const DWORD error = GetLastError();
    // The last two: no key can have that name.
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_INVALID_NAME || error == ERROR_BAD_PATHNAME;
}

/// Reports on the standard error output why no peer is admitted. Since peers can trigger it, the same report
/// is repeated after a minute at the earliest. Allocates nothing.
void reportUnknown(const char* server, const char* root, DWORD error)
{
    using Clock = std::chrono::steady_clock;
    constexpr auto pause = std::chrono::minutes(1);
    static std::mutex mutex;
    static std::size_t last = 0;
    static Clock::time_point when;
    const std::size_t what = std::hash<std::string_view>()(server) + 2 * error + (*root == 's' ? 1 : 0);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const Clock::time_point now = Clock::now();
        if (what == last && now - when < pause)
            return;
        last = what;
        when = now;
    }
    char why[64] = "failed", line[512];
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, why,
                   sizeof why, nullptr);
    std::snprintf(
        line, sizeof line,
        "netServer: no other machine may connect to \"%.200s\": its rights in the %s registry cannot be "
        "read: %s (error %u)\n",
        server, root, why, error);
    std::fputs(line, stderr);
}

bool admits(hmxRegistry& registry, const char* root, const xstring& server, const Peer& peer)
{
    xrchandle<xstringsequence> patterns;
    const netRightsState state = ReadConnectionRights(registry, server, &patterns);
    if (state == netRightsUnknown)
        reportUnknown(server.CastToCString(), root, GetLastError());
    return state == netRightsAbsent ||
           (state == netRightsGiven &&
            MatchAnyPattern(peer.address, peer.names, patterns, peer.isTlsRequired));
}

} // namespace

netRightsState netReadSetting(hmxRegistry& registry, const char* path, const char* name, xstring& value)
{
    hmxRegistryKey key;
    value = key.Open(registry.root, path) ? key.GetValue(name) : xstring(nullptr);
    return !(value == nullptr) ? netRightsGiven : isCertainlyAbsent() ? netRightsAbsent : netRightsUnknown;
}

netRightsState ReadConnectionRights(hmxRegistry& registry, xstring serverName,
                                    xrchandle<xstringsequence>* patterns)
{
    xstring value;
    const netRightsState state = netReadSetting(
        registry, xstring(netRightsPath, serverName.CastToCString()).CastToCString(), rightsValue, value);
    if (patterns != nullptr && state == netRightsGiven)
        *patterns = SplitPatternList(value);
    return state;
}

xrchandle<xstringsequence> ReadConnectionPatterns(hmxRegistry& registry, xstring serverName)
{
    xrchandle<xstringsequence> patterns;
    const netRightsState state = ReadConnectionRights(registry, serverName, &patterns);
    return state == netRightsUnknown ? SplitPatternList(nullptr) : patterns;
}

bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName)
{
    return IsConnectionAllowed(socket, serverName, netTlsAsSet);
}

bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName, netTlsDemand demand)
{
    const char* const server = serverName.CastToCString();
    const btkCarrier* const carrier = socket->GetCarrier();
    const bool isDemanded = demand == netTlsDemanded;
    if (server == nullptr || *server == '\0')
        return !isDemanded || carrier != nullptr;
    try {
        const bool isTlsRequired = isDemanded || netIsTlsRequired(serverName);
        Peer peer = {socket->GetPeerAddrStr().c_str(), nullptr, isTlsRequired};
        if (carrier != nullptr) {
            peer.names = xstringsequence::create();
            for (const std::string& name : carrier->peerNames)
                peer.names->append(name.c_str());
        }
        return admits(hmxRegistry::System(), "system's", serverName, peer) &&
               admits(hmxRegistry::User(), "user's", serverName, peer) &&
               (carrier != nullptr || !isTlsRequired);
    } catch (const std::bad_alloc&) {
        reportUnknown(server, "system's or the user's", ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
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

bool IsCertificatePattern(xstring pattern)
{
    return std::string_view(pattern.CastToCString()).starts_with(certificateMark);
}

bool MatchAnyPattern(xstring address, xrchandle<xstringsequence> names, xrchandle<xstringsequence> patterns,
                     bool isTlsRequired)
{
    bool isAddressMatched = false;
    bool areCertificatesNamed = false;
    const int count = patterns ? patterns->getarraysize() : 0;
    for (int i = 0; i < count; ++i) {
        const xstring pattern = patterns->get(i);
        if (!IsCertificatePattern(pattern)) {
            isAddressMatched = isAddressMatched || address.Match(pattern.CastToCString());
            continue;
        }
        areCertificatesNamed = true;
        const char* const ofName = pattern.CastToCString() + std::strlen(certificateMark);
        for (int j = 0; j < (names ? names->getarraysize() : 0); ++j)
            if (names->get(j).Match(ofName))
                return true;
    }
    return isAddressMatched && !(isTlsRequired && areCertificatesNamed);
}
