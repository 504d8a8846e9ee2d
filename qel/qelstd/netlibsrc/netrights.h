#pragma once

#include <qel/xsequence.h>

class btkStreamSocket;
class hmxRegistry;

// The rights to connect to a server: the value "ConnectionAllowed" of the registry key "Software\VRX\" + the
// server's name holds patterns, under the system root and under the user's: of addresses, and, as "cert:NAME", of
// names that a peer's certificate proves over TLS. A peer must match a pattern of every existing value. When both
// values are certainly absent, every peer is admitted. Any other reason why a value cannot be read (a damaged file, a
// value that is not a text, a link or file in place of a folder, no descriptors, unknown registry location) admits no
// peer.
//
// Where TLS is required, by the value "TLSRequired" or by the server, a peer without a certificate is not admitted,
// and of a value that has patterns of certificates one of these must match: its patterns of addresses admit nobody.
//
// A name with one of "/.:*?" is not a valid key, so such a server admits every peer. Peers on the same machine are
// not checked. All calls are safe to call from any thread.

/// The connection rights of a server in one root of the registry.
enum netRightsState : int {
    netRightsAbsent, // the value is certainly absent: every peer is admitted
    netRightsGiven,  // peers that match one of the patterns are admitted
    netRightsUnknown // the value may exist but cannot be read: no peer is admitted
};

/// Whether a server admits peers on other machines without TLS.
enum netTlsDemand : int {
    netTlsAsSet,   // unless netIsTlsRequired
    netTlsDemanded // not
};

/// Whether the peer of `socket` may connect to the server of that name. A null or empty name has no rights: true,
/// unless TLS is demanded and the connection is not encrypted. When the rights are unknown, the reason is written to
/// the standard error output, the same line at most once a minute.
QEL_API bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName);
QEL_API bool IsConnectionAllowed(btkStreamSocket* socket, xstring serverName, netTlsDemand demand);
/// The key of a server's rights is this and its name.
inline constexpr const char* netRightsPath = "Software\\VRX\\";
/// `patterns`, unless null, receives a new sequence when the result is netRightsGiven. GetLastError() gives
/// the reason for netRightsUnknown.
QEL_API netRightsState ReadConnectionRights(hmxRegistry& registry, xstring serverName,
                                            xrchandle<xstringsequence>* patterns = nullptr);
/// The patterns that one root of the registry has for a server of that name, as a new sequence. A null handle
/// when the value is absent, so that this root admits every peer. An empty sequence admits no peer; it is
/// also returned when the rights are unknown.
QEL_API xrchandle<xstringsequence> ReadConnectionPatterns(hmxRegistry& registry, xstring serverName);
/// Whether the rights of a server of that name can be set: the name is a valid registry key.
QEL_API bool IsConnectionRestrictable(xstring serverName);
/// Whether either root of the registry restricts the connections to a server of that name.
QEL_API bool HasConnectionRights(xstring serverName);
/// The words of `value`, which blanks, tabs and line feeds separate, as a new sequence.
QEL_API xrchandle<xstringsequence> SplitPatternList(xstring value);
/// Whether one of `patterns` matches `address`, with `*` for any characters and `?` for one. Time: at most
/// proportional to the product of their lengths.
QEL_API bool MatchAnyPattern(xstring address, xrchandle<xstringsequence> patterns);
/// Whether `pattern` is one for the names of certificates.
QEL_API bool IsCertificatePattern(xstring pattern);
/// Whether `patterns` admit a peer of that address whose certificate proves `names`; null: it has none.
/// `isTlsRequired`: then its address is of no use where there are patterns of certificates.
QEL_API bool MatchAnyPattern(xstring address, xrchandle<xstringsequence> names,
                             xrchandle<xstringsequence> patterns, bool isTlsRequired);
