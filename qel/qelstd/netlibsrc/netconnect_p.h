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
/// As netConnectSocket, which has a limit in seconds. The server must prove that it is `name`; null: as there. With
/// `end` Forever, connecting takes as long as the operating system allows, and the rest the answer limit.
std::unique_ptr<btkStreamSocket> netReach(netAddress* address, btkTimeval end, const char* name = nullptr);
/// As netServer::Connect; for `name` see netReach.
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
