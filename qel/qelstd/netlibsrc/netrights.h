#pragma once

#include <qel/xsequence.h>

class btkStreamSocket;
class hmxRegistry;

// Who may connect to a server: the value "ConnectionAllowed" of the registry key "Software\VRX\" + the
// server's name holds patterns of addresses, under the system root and under the user's. A peer must match a
// pattern of every such value there is. Everybody is admitted where both values are certainly absent.
// Whatever else keeps a value from being read (a damaged file, a value that is no text, a link or file in
// place of a folder, no descriptors, nothing that says where the registry is) admits nobody. A name with one
// of "/.:*?" is no key, so such a server admits everybody. Peers on the same machine are not asked about. All
// calls are safe to call from any thread.

/// What one root of the registry says about who may connect to a server.
enum netRightsState : int {
    netRightsAbsent, // there certainly is no value: everybody may
    netRightsGiven,  // whoever matches one of the patterns may
    netRightsUnknown // there may be a value, which cannot be read: nobody may
};

/// Whether the peer of `socket` may connect to the server of that name. A null or empty name has no rights:
/// true. Where the rights are unknown, one line on the standard error output says why, and the same line
/// again after a minute at the earliest.
QEL_API bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName);
/// The key of a server's rights is this and its name.
inline constexpr const char* netRightsPath = "Software\\VRX\\";
/// `patterns`, unless null, receives a new sequence when there are any. GetLastError() says why rights are
/// unknown.
QEL_API netRightsState ReadConnectionRights(hmxRegistry& registry, xstring serverName,
                                            xrchandle<xstringsequence>* patterns = nullptr);
/// The patterns that one root of the registry has for a server of that name, as a new sequence. A null handle
/// when the value is absent, so that this root admits everybody; an empty sequence admits nobody, which is so
/// where the rights are unknown, too.
QEL_API xrchandle<xstringsequence> ReadConnectionPatterns(hmxRegistry& registry, xstring serverName);
/// Whether the rights of a server of that name can be set at all: the name is a key of the registry.
QEL_API bool IsConnectionRestrictable(xstring serverName);
/// Whether either root of the registry restricts the connections to a server of that name.
QEL_API bool HasConnectionRights(xstring serverName);
/// The words of `value`, which blanks, tabs and line feeds separate, as a new sequence.
QEL_API xrchandle<xstringsequence> SplitPatternList(xstring value);
/// Whether one of `patterns` matches `address`, with `*` for any characters and `?` for one. Takes a time of
/// at most the product of their lengths.
QEL_API bool MatchAnyPattern(xstring address, xrchandle<xstringsequence> patterns);
