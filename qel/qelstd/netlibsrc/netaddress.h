#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

struct capi_nmsRecord;
struct capi_nmsServerProxy;

/// The address of a server: a host, and a port or a name known to the host's name server. Used by one thread
/// at a time.
///
///     const xrchandle<netAddress> there = netAddress::Create(7000, "server.example");
///     const auto client = qel::own(netServer::Connect(there.get(), 5s)); // null: no response
class QEL_API netAddress : public virtual xobject
{
    QEL_OBJECT(netAddress); // "netlib::Address", counted

public:
    /// New addresses, which the caller owns. `host`: xnullstr stores this machine's name; null stays null and
    /// also means this machine.
    static netAddress* Create(int port, const char* host);
    static netAddress* Create(const char* serverName, const char* host);
    template<qelTextObject H>
    static netAddress* Create(int port, const H& host)
    {
        return Create(port, qelTextArgument(host));
    }
    template<qelText S, qelText H>
    requires(qelTextObject<S> || qelTextObject<H>) static netAddress* Create(const S& serverName,
                                                                             const H& host)
    {
        return Create(qelTextArgument(serverName), qelTextArgument(host));
    }

    xstring getHostName() { return hostName; }
    /// 0: not known yet.
    int getPortN() { return portN; }
    /// Null: it has none.
    xstring getServerName() { return serverName; }
    void setPortN(int port) { portN = port; }

private:
    netAddress(const char* host, int port, const char* server);

    xstring hostName;
    int portN;
    xstring serverName;
};

/// The port of `address`. If it is not known, queries the name server of the address's host, within the limit
/// of netServer::setAnswerLimit, and stores the port.
/// @throws netXException  the address is null, there is no name server, or it knows no port for the name
QEL_API int ResolvePort(netAddress* address);

// ---- the name service, as servers use it. Errors that it returns are written to the standard error output.

/// A proxy for the name server on `host` (null: this machine), or null when none responds there. The caller
/// frees it with nmsServDelete.
QEL_API capi_nmsServerProxy* getNameServer(xstring host);
/// A new record that holds the server's name only; null without memory. The caller frees it with
/// nmsRecDelete.
QEL_API capi_nmsRecord* MakeServerRecord(xstring name);
/// Registers a server of this process. Frees `proxy` in every case.
QEL_API bool RegisterWithNMS(capi_nmsServerProxy* proxy, int port, xstring name);
/// Whether a server of that name is registered.
QEL_API bool IsRegisteredWithNMS(capi_nmsServerProxy* proxy, xstring name);
/// Removes every server of that name. True when it worked.
QEL_API bool UnregisterFromNMS(capi_nmsServerProxy* proxy, xstring name);
/// The port in the first record of that name that has one; 0 when there is none or it is not in 1..65535.
QEL_API int GetPortFromNMS(capi_nmsServerProxy* proxy, xstring name);
