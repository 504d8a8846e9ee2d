#pragma once

#include <qel/xsequence.h>

class btkStreamSocket;
class hmxRegistry;

// Who may connect to a server: the value "ConnectionAllowed" of the registry key "Software\VRX\" + the
// server's name holds patterns of addresses, under the system root and under the user's. A peer must match a
// pattern of every such value there is; without a value everybody is admitted, and nobody when it cannot
// be read (no descriptors, a damaged file). A name with one of "/.:*?" is no key, so such a server admits
// everybody. Peers on the same machine are not asked about.

/// Whether the peer of `socket` may connect to the server of that name. A null or empty name has no rights:
/// true.
QEL_API bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName);
/// The key of a server's rights is this and its name.
inline constexpr const char* netRightsPath = "Software\\VRX\\";
/// The patterns that one root of the registry has for a server of that name, as a new sequence. A null handle
/// when there is no value, so that this root admits everybody; an empty one admits nobody, which is so where
/// the value cannot be read, too.
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
