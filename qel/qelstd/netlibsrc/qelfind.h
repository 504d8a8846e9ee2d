#pragma once

#include <qel/netaddress.h>
#include <qel/netsocketstream.h>
#include <qel/qelown.h>

// Servers found by name, on this machine or, if its name servers keep their records together, on any of them:
//
//     const auto words = qel::connect("words", 5s);
//     words->WriteString("hello");

/// Returns a new address with the host and the port of the server `name`, as the name server of `host` knows it
/// now (null: of this machine). `seconds` limits the request; INFINITE: the limit of netServer::setAnswerLimit.
/// The caller owns the address.
/// @throws netXException  netServerNotFound: the name server knows no port for the name;
///                        netNameServiceProblem: there is no name server, or it fails
QEL_API netAddress* netFind(const char* name, const char* host, double seconds);
/// Opens a connection for requests to the versioned server `name`. Finds it anew each time, and once more if
/// it is no longer where it was found. `seconds` limits all of it; INFINITE as for netServer::Connect. The
/// caller owns the stream.
/// @throws netXException  as netFind; the server does not respond, or refuses this machine
QEL_API netSocketStream* netConnectByName(const char* name, const char* host, double seconds);

namespace qel {

/// As netFind, for a machine's name server.
template<qelText S>
xrchandle<netAddress> find(const S& name, const char* host = nullptr)
{
    return netFind(static_cast<const char*>(qelTextArgument(name)), host, INFINITE);
}

/// As netConnectByName, with this machine's name server.
template<qelText S>
owned<netSocketStream> connect(const S& name, double seconds = INFINITE)
{
    return own(netConnectByName(static_cast<const char*>(qelTextArgument(name)), nullptr, seconds));
}
template<qelText S, qelDuration D>
owned<netSocketStream> connect(const S& name, const D& limit)
{
    return connect(name, qelSeconds(limit));
}

} // namespace qel
