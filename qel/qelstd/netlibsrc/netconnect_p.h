#pragma once

#include <memory>

#include <qel/base/btksocket.h>
#include <qel/base/nmsclient.h>
#include <qel/xstring.h>

class netAddress;
class netSocketStream;

// Each of these returns by `end` at the latest, on the clock of btkTimeval::Now.

/// A socket that is connected to `address`, whose calls have no limit; null when it cannot be connected. With
/// `end` Forever, connecting takes as long as the operating system allows, and resolving the port at most the
/// answer limit.
/// @throws netXException  as ResolvePort
std::unique_ptr<btkStreamSocket> netConnect(netAddress* address, btkTimeval end);
/// Encrypts a connection to the versioned server at `address` if netIsTlsConfigured and the server is on another
/// machine, or QELSTD_TLS_LOCAL is 1; else returns the same socket. The server must prove that it is `name`, else the
/// address's server name, else its host. Null when it does not respond.
/// @throws netXException  netConnectionRefused: one end does not accept the other's certificate
std::unique_ptr<btkStreamSocket> netEncrypt(std::unique_ptr<btkStreamSocket> socket, netAddress* address,
                                            const char* name, btkTimeval end);
/// As netServer::Connect; for `name` see netEncrypt.
netSocketStream* netConnectTo(netAddress* address, const char* name, double timeout);
/// As getNameServer; `end` holds for all requests of the proxy.
nmsOwnedProxy netNameServer(const xstring& host, btkTimeval end);
/// Removes the server of that name and port.
void netUnregister(capi_nmsServerProxy* proxy, int port, const xstring& name);
/// The deadline of operations without their own limit: now plus the answer limit.
inline btkTimeval netAnswerEnd()
{
    return btkTimeval::Now() + nmsGetAnswerLimit();
}
