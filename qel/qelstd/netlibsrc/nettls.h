#pragma once

#include <qel/xstring.h>

class btkStreamSocket;
class netAddress;

// Encrypted connections between versioned servers and their clients: TLS 1.3, in which both ends show certificates. It
// is configured by a folder of certificates, see docs/netlibsrc.md: the value of the environment variable QELSTD_TLS,
// else the value `Folder` of the registry's key `Software\VRX\TLS`, of the system's root or else of the user's. All
// calls are safe to call from any thread.

/// The registry's key with the value `Folder`.
inline constexpr const char* netTlsPath = "Software\\VRX\\TLS";

/// The folder, a path of the operating system; null when none is configured.
/// @throws netXException  netConnectionRefused: one may be configured, but the registry cannot be read
QEL_API xstring netGetTlsFolder();
/// Whether there is one, or may be one.
QEL_API bool netIsTlsConfigured();
/// Whether the server of that name admits no peer of another machine without encryption: the value `TLSRequired` of its
/// key in one of the registry's roots (see netrights.h) is `1`, or cannot be read. IsConnectionAllowed heeds it.
QEL_API bool netIsTlsRequired(xstring serverName);

/// Connects to the versioned server at `address`, as its clients do: encrypted if netIsTlsConfigured and the server is
/// on another machine, or QELSTD_TLS_LOCAL is 1. Then it must prove that it is the address's server name, else its
/// host. Returns a new socket, which the caller owns and frees with `delete`, and whose calls return within `timeout`
/// seconds from now, too; null when nobody listens or responds.
/// @throws netXException  as ResolvePort; netConnectionRefused: one end does not accept the other's certificate
QEL_API btkStreamSocket* netConnectSocket(netAddress* address, double timeout);
