#pragma once

#include <memory>
#include <string>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/base/nmswire.h>

// The plain client functions of the name service, and the exchange that they use. Every request has its own
// connection. Objects are used by one thread at a time.

/// Returns the port of the name server: the value of the environment variable VRXNMSPORT, or nmsDefaultPort.
/// A value that is not a number, or is 0, is reported on the standard error output and ignored; any other
/// number is used unchanged, and if it is not a valid port, connecting fails.
BASE_API int nmsFindPort();

/// Sets the longest duration of a request, from the resolution of the name server's address to the end of the
/// response. 10 seconds at first; for the whole process. Safe to call from any thread.
BASE_API void nmsSetAnswerLimit(btkTimeval limit);
BASE_API btkTimeval nmsGetAnswerLimit();
/// Limits the response to a query: its records (100,000 at first) and the bytes of memory that they take (64
/// MiB). A query with a larger response fails with nmscInternal. For the whole process.
BASE_API void nmsSetAnswerBounds(std::size_t records, std::size_t bytes);

/// The result of a request: nmscDone, or the failure and the side that found it.
struct nmsOutcome
{
    /// An nmscReturnCode.
    int code = nmscDone;
    /// Whether the server returned it; otherwise the client found the failure itself.
    bool fromServer = false;
};

/// One request to a name server and the parts of its response, in their order. Throws nothing.
class BASE_API nmsExchange
{
public:
    /// Returned by Ask when there was no connection or it broke.
    static constexpr int noAnswer = -1;

    /// `by`: the latest end of requests, on the clock of btkTimeval::Now. Forever: each ends after the time
    /// of nmsSetAnswerLimit.
    explicit nmsExchange(btkTimeval by = btkTimeval::Forever()) : latest(by) {}

    /// Connects to the name server on `host` (null or empty: this machine) and sends the request; `record`
    /// follows the code. Returns the status byte.
    int Ask(const char* host, int port, nmsRequestCode code, const std::string& record = {});
    /// Performs the whole request: `rest(*this, status)` reads the rest of the response and returns whether
    /// it arrived.
    template<class Rest>
    nmsOutcome Do(const char* host, int port, nmsRequestCode code, const std::string& record, Rest rest)
    {
        const int status = Ask(host, port, code, record);
        const bool isRead = status != noAnswer && rest(*this, status);
        if (status != noAnswer && status != nmscDone)
            return {status, true};
        return {isRead ? nmscDone : isBeyondBounds ? nmscInternal : nmscNoConnection, false};
    }
    /// Returns the outcome of a request whose record is too large to be sent: nmscInternal, unless no server
    /// is reachable.
    nmsOutcome DoNot(const char* host, int port);
    /// For responses that consist of a status only.
    static bool NoRest(nmsExchange&, int) { return true; }

    /// Reads a number of the response. False when it did not arrive in time; the exchange is over then.
    bool ReadInt(int& value);
    /// Reads a record of the response. False as above, and when it is malformed; the part read is kept.
    bool ReadRecord(nmsFields& record);
    /// Reads the records of a query's response, regardless of the announced number: stops with false at the
    /// first that cannot be read or exceeds the limits. The records read before are added to `records`.
    bool ReadRecords(std::vector<nmsFields>& records);

private:
    bool Connect(const char* host, int port);
    bool Read(char* to, std::size_t size);

    btkStreamSocket socket;
    btkTimeval latest;
    btkTimeval end; // of the current request
    bool isBeyondBounds = false;
    std::string held; // received and not consumed
    std::size_t used = 0;
};

// ---- objects: each is freed by its own function, which clears the pointer; null is accepted

struct capi_nmsServerProxy;
struct capi_nmsError;
struct capi_nmsRecord;
struct capi_nmsRecordArray;

/// Creates a proxy for the name server of this machine, or of `host`; does not connect. Null when memory runs
/// out.
BASE_API capi_nmsServerProxy* nmsServConnectLocal();
BASE_API capi_nmsServerProxy* nmsServConnectByName(const char* host);
BASE_API void nmsServDelete(capi_nmsServerProxy** proxy);
/// Sets the latest end of the proxy's requests, on the clock of btkTimeval::Now, in place of the limit of
/// nmsSetAnswerLimit for each. Forever, the default: that limit applies.
BASE_API void nmsServSetDeadline(capi_nmsServerProxy* proxy, btkTimeval end);

/// Returns the id of this process, by which records name their owner.
BASE_API std::uint32_t nmsGetOwnProcess();
/// Returns a record without fields that belongs to the process `owner`; 1 means this process, 0 none.
BASE_API capi_nmsRecord* nmsRecCreate(int owner);
BASE_API void nmsRecDelete(capi_nmsRecord** record);
/// Adds a field or replaces its value. False when an argument is null or memory runs out.
BASE_API bool nmsRecAdd(capi_nmsRecord* record, const char* name, const char* value);
BASE_API bool nmsRecHasField(const capi_nmsRecord* record, const char* name);
/// Null when there is no such field; valid until the record changes.
BASE_API const char* nmsRecGetFieldValueByName(const capi_nmsRecord* record, const char* name);
/// Returns the record's content, for iteration; valid while the record exists.
BASE_API const nmsFields& nmsRecGetFields(const capi_nmsRecord* record);
/// Writes the record to the standard error output.
BASE_API void nmsRecPrint(const capi_nmsRecord* record);

/// Null past the end. The array keeps ownership of the record.
BASE_API capi_nmsRecord* nmsRecArrGetByIndex(capi_nmsRecordArray* array, int index);
BASE_API void nmsRecArrDelete(capi_nmsRecordArray** array);

// ---- requests: null on success, else an error, which the caller frees

/// Each of these sends one request. Returns null when it was done, else a failure, which the caller frees
/// with nmsErrDelete.
BASE_API capi_nmsError* nmsServPing(capi_nmsServerProxy* proxy);
BASE_API capi_nmsError* nmsServRegister(capi_nmsServerProxy* proxy, const capi_nmsRecord* record);
/// `array`, which may be null, gets a new array of the matching records; the caller frees it. Null when the
/// request failed. `count`, which may be null, gets their number.
BASE_API capi_nmsError* nmsServQuery(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern,
                                     capi_nmsRecordArray** array, int* count);
BASE_API capi_nmsError* nmsServRemove(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern, int* count);
BASE_API capi_nmsError* nmsServShutdown(capi_nmsServerProxy* proxy);
/// `answer` gets the record that describes the server, whose field "Version" holds its version.
BASE_API capi_nmsError* nmsServVersion(capi_nmsServerProxy* proxy, capi_nmsRecord* answer);

/// Returns the code of a failure, and the line that reports it.
BASE_API int nmsErrGetCode(const capi_nmsError* error);
BASE_API const char* nmsErrGetText(const capi_nmsError* error);
/// Writes the line to the standard error output.
BASE_API void nmsErrPrint(const capi_nmsError* error);
BASE_API void nmsErrDelete(capi_nmsError** error);

// ---- owners of the objects

/// The deleter of the owners below.
template<auto Free>
struct nmsFree
{
    template<class T>
    void operator()(T* held) const
    {
        Free(&held);
    }
};
/// Owners, which free their object.
using nmsOwnedProxy = std::unique_ptr<capi_nmsServerProxy, nmsFree<&nmsServDelete>>;
using nmsOwnedRecord = std::unique_ptr<capi_nmsRecord, nmsFree<&nmsRecDelete>>;
using nmsOwnedRecords = std::unique_ptr<capi_nmsRecordArray, nmsFree<&nmsRecArrDelete>>;
using nmsOwnedError = std::unique_ptr<capi_nmsError, nmsFree<&nmsErrDelete>>;
