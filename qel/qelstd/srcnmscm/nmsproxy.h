#pragma once

#include <iosfwd>

#include <qel/nmsexception.h>
#include <qel/qelduration.h>
#include <qel/recnms.h>

/// The report of a failed request. Freed with `delete`.
///
///     const xrchandle<nmsServerProxy> server = nmsServerProxy::InitLocalProxy();
///     if (const std::unique_ptr<nmsClientStatus> failure(server->Ping()); failure)
///         std::cerr << *failure << '\n';
class QEL_API nmsClientStatus
{
public:
    /// The end that detected the failure: the client, or the name server, which returned the code.
    enum StatusOrigin : int { Client = 0, Server = 1 };

    nmsClientStatus(int code, StatusOrigin origin, const xstring& host, int port, bool local);

    int getCode() const { return code; }
    StatusOrigin getOrigin() const { return origin; }
    xstring getHost() const { return host; }
    int getPort() const { return port; }
    bool getLocal() const { return local; }

private:
    int code; // nmscReturnCode, or another code returned by the server
    xstring host;
    int port;
    bool local;
    StatusOrigin origin;
};

/// Writes the line that reports the failure, if the stream is good.
QEL_API std::ostream& operator<<(std::ostream& os, const nmsClientStatus& status);

/// Stands for one name server. Each operation is one request on a new connection, to the port in the
/// environment variable VRXNMSPORT, or 1239; it returns within the limit of setAnswerLimit. A proxy stays
/// usable when its name server is restarted. Counted. The operations throw the exception that is named after
/// them; the requests below them return a status, which the caller deletes, or null on success, and throw
/// nothing.
///
///     const xrchandle<nmsServerProxy> server = nmsServerProxy::InitLocalProxy();
///     const auto record = qel::make<nmsRecord>(1u); // while this process runs
///     record->Add("service", "words");
///     server->Register(record.get());
class QEL_API nmsServerProxy : public virtual xobject
{
    QEL_OBJECT(nmsServerProxy); // "nmsclib::ServerProxy", counted

public:
    /// A new proxy for the name server of this machine, or of `host`; the first handle that holds it owns it.
    /// No connection is made.
    static nmsServerProxy* InitLocalProxy();
    static nmsServerProxy* InitProxy(const char* host);
    /// The same, after checking that the name server responds.
    /// @throws nmsXCantConnectLocal, nmsXCantConnectByName
    static nmsServerProxy* ConnectLocal();
    static nmsServerProxy* ConnectByName(const char* host);

    /// Enters a record. The record of a process is removed when the process exits, and is for the local name
    /// server only.
    /// @throws nmsXCantRegisterRecord
    virtual void Register(nmsRecord* record);
    /// Deletes the records that have the fields of `pattern`; returns how many.
    /// @throws nmsXCantDelete
    virtual int Delete(nmsRecord* pattern);
    /// The records that have the fields of `pattern`, as new objects in a new array. The caller frees the
    /// records (each is freed with its last handle), then the array.
    /// @throws nmsXCantQuery
    virtual nmsRecordArray* Query(nmsRecord* pattern);
    /// @throws nmsXCantGetVersion
    virtual xstring GetVersion();
    /// Whether the name server replies.
    virtual unsigned char IsAlive();
    /// Stops the name server. For the local one only.
    /// @throws nmsXCantShutdown
    virtual void Shutdown();

    /// The longest time that an operation or a request takes, in seconds, including connecting and the
    /// complete reply: initially 10, INFINITE without limit. Applies to the whole process; the same as
    /// netServer::setAnswerLimit.
    static void setAnswerLimit(double seconds);
    template<qelDuration D>
    static void setAnswerLimit(const D& limit)
    {
        return setAnswerLimit(qelSeconds(limit));
    }
    /// The size limits of the reply to a query, as nmsSetAnswerBounds: initially 100,000 records and 64 MiB
    /// of memory. A larger reply fails with the code nmscInternal (<qel/base/nmswire.h> has all).
    static void setAnswerBounds(std::size_t records, std::size_t bytes);

    // ---- requests: each returns a new status, which the caller frees with `delete`, or null on success

    nmsClientStatus* Ping();
    nmsClientStatus* ImplShutdown();
    nmsClientStatus* ImplRegister(nmsRecord& record);
    /// Clears `out` and fills it with new records, and stores their number in `count`; both may be null. A
    /// record that cannot be read ends the query with the code nmscNoConnection, one beyond the bounds with
    /// nmscInternal; those before it are kept.
    nmsClientStatus* ImplQuery(nmsRecord& pattern, nmsRecordArray* out, int* count);
    /// `out` receives what could be read of the record that the server returned.
    nmsClientStatus* Version(nmsRecord& out);
    /// `count`, which may be null, receives the number that the server returned, 0 without a reply.
    nmsClientStatus* ImplDelete(nmsRecord& pattern, int* count);

    xstring getHost() const { return host; }

private:
    nmsServerProxy(const xstring& hostName, bool isLocal) : host(hostName), local(isLocal) {}

    nmsClientStatus* Status(int code, nmsClientStatus::StatusOrigin origin) const;
    /// Sends a request and reads its status; null when that is 0. `rest(exchange, status)` reads the rest of
    /// the reply.
    template<class Rest>
    nmsClientStatus* Request(int code, nmsRecord* record, Rest rest);

    xstring host;
    bool local;
    int port = 0; // of the last request
};

/// Writes the host's name, if the stream is good.
QEL_API std::ostream& operator<<(std::ostream& os, const nmsServerProxy& proxy);
