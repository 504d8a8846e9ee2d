#pragma once

#include <iosfwd>

#include <qel/nmsexception.h>
#include <qel/recnms.h>

/// The report of a failed request. Freed with `delete`.
class QEL_API nmsClientStatus
{
public:
    /// Who found the failure: the client, or the name server, which answered with the code.
    enum StatusOrigin : int { Client = 0, Server = 1 };

    nmsClientStatus(int code, StatusOrigin origin, const xstring& host, int port, bool local);

    int getCode() const { return code; }
    StatusOrigin getOrigin() const { return origin; }
    xstring getHost() const { return host; }
    int getPort() const { return port; }
    bool getLocal() const { return local; }

private:
    int code; // nmscReturnCode, or what else the server answered
    xstring host;
    int port;
    bool local;
    StatusOrigin origin;
};

/// Writes the line that reports the failure, if the stream is good.
QEL_API std::ostream& operator<<(std::ostream& os, const nmsClientStatus& status);

/// Stands for one name server. Each operation is one request on a connection of its own, to the port that the
/// environment variable VRXNMSPORT names, or 1239; it ends after the time that setAnswerLimit says. A
/// proxy stays usable when its name server goes away and comes back. Counted. The operations throw the
/// exception that is named after them; the requests below them answer a status, which the caller deletes, or
/// null when all went well, and throw nothing.
class QEL_API nmsServerProxy : public virtual xobject
{
    QEL_OBJECT(nmsServerProxy); // "nmsclib::ServerProxy", counted

public:
    /// A proxy for the name server of this machine, or of `host`. No connection is made.
    static nmsServerProxy* InitLocalProxy();
    static nmsServerProxy* InitProxy(const char* host);
    /// The same for a name server that answers.
    /// @throws nmsXCantConnectLocal, nmsXCantConnectByName
    static nmsServerProxy* ConnectLocal();
    static nmsServerProxy* ConnectByName(const char* host);

    /// Enters a record. One of a process goes with its process, and is for the local name server only.
    /// @throws nmsXCantRegisterRecord
    virtual void Register(nmsRecord* record);
    /// Deletes the records that have the fields of `pattern`; answers how many.
    /// @throws nmsXCantDelete
    virtual int Delete(nmsRecord* pattern);
    /// The records that have the fields of `pattern`, as new objects in a new array. The caller frees the
    /// records (each goes with the last handle that held it), then the array.
    /// @throws nmsXCantQuery
    virtual nmsRecordArray* Query(nmsRecord* pattern);
    /// @throws nmsXCantGetVersion
    virtual xstring GetVersion();
    virtual unsigned char IsAlive();
    /// Stops the name server. For the local one only.
    /// @throws nmsXCantShutdown
    virtual void Shutdown();

    /// How many seconds an operation or a request takes at most, connecting and the whole answer included: 10
    /// at first, INFINITE without limit. For the whole process, and the same as netServer::setAnswerLimit.
    static void setAnswerLimit(double seconds);
    /// The most that the answer to a query may hold, as nmsSetAnswerBounds: 100,000 records and 64 MiB of
    /// memory at first. More is a failure with code 8.
    static void setAnswerBounds(std::size_t records, std::size_t bytes);

    // ---- requests

    nmsClientStatus* Ping();
    nmsClientStatus* ImplShutdown();
    nmsClientStatus* ImplRegister(nmsRecord& record);
    /// Clears `out` and fills it with new records, and stores their number in `count`; both may be null. A
    /// record that cannot be read ends the answer with code 2, one beyond the bounds with code 8; those
    /// before it are kept.
    nmsClientStatus* ImplQuery(nmsRecord& pattern, nmsRecordArray* out, int* count);
    /// `out` gets what could be read of the record that the server answered.
    nmsClientStatus* Version(nmsRecord& out);
    /// `count`, which may be null, gets the number that the server answered, 0 when it did not.
    nmsClientStatus* ImplDelete(nmsRecord& pattern, int* count);

    xstring getHost() const { return host; }

private:
    nmsServerProxy(const xstring& hostName, bool isLocal) : host(hostName), local(isLocal) {}

    nmsClientStatus* Status(int code, nmsClientStatus::StatusOrigin origin) const;
    /// Sends a request and reads its status; null when that is 0. `rest(exchange, status)` reads what
    /// follows.
    template<class Rest>
    nmsClientStatus* Request(int code, nmsRecord* record, Rest rest);

    xstring host;
    bool local;
    int port = 0; // of the last request
};

/// Writes the host's name, if the stream is good.
QEL_API std::ostream& operator<<(std::ostream& os, const nmsServerProxy& proxy);
