#pragma once

#include <memory>

#include <qel/base/btksocket.h>
#include <qel/base/nmsclient.h>
#include <qel/xstring.h>

class netAddress;

// Each of these ends by `end` at the latest, on the clock of btkTimeval::Now.

/// A socket that is connected to `address`, whose calls have no limit; null when nobody answers there. With
/// `end` Forever connecting takes as long as the operating system lets it, and asking for the port at most
/// the answer limit.
/// @throws netXException  as ResolvePort
std::unique_ptr<btkStreamSocket> netConnect(netAddress* address, btkTimeval end);
/// As getNameServer; `end` holds for all requests of the proxy.
nmsOwnedProxy netNameServer(const xstring& host, btkTimeval end);
/// Removes the server of that name and port.
void netUnregister(capi_nmsServerProxy* proxy, int port, const xstring& name);
/// When what has no limit of its own ends: the answer limit from now.
inline btkTimeval netAnswerEnd()
{
    return btkTimeval::Now() + nmsGetAnswerLimit();
}
