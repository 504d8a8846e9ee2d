#pragma once

#include <memory>
#include <string>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/base/nmswire.h>

// The plain client functions of the name service, and the exchange that they rest on. Every request has a
// connection of its own. Objects are used by one thread at a time.

/// The port of the name server: what the environment variable VRXNMSPORT says, or nmsDefaultPort. A value
/// that is no number, or 0, is reported on the standard error output and not used; any other number is used
/// as it is, and where it is no port, connecting fails.
BASE_API int nmsFindPort();

/// How long a request takes at most, from the resolution of the name server's address to the end of the
/// answer. 10 seconds at first; for the whole process. Safe to call from any thread.
BASE_API void nmsSetAnswerLimit(btkTimeval limit);
BASE_API btkTimeval nmsGetAnswerLimit();
/// The most that the answer to a query may hold: records (100,000 at first), and bytes of memory that they
/// take (64 MiB). A query that is answered with more fails with nmscInternal. For the whole process.
BASE_API void nmsSetAnswerBounds(std::size_t records, std::size_t bytes);

/// How a request ended: nmscDone, or what went wrong, and who found that.
struct nmsOutcome
{
    int code = nmscDone;
    bool fromServer = false;
};

/// One request to a name server and the parts of its answer, in their order. Nothing is thrown.
class BASE_API nmsExchange
{
public:
    /// Returned by Ask when there was no connection or it broke.
    static constexpr int noAnswer = -1;

    /// `by`: when requests end at the latest, on the clock of btkTimeval::Now. Forever: each after the answer
    /// limit.
    explicit nmsExchange(btkTimeval by = btkTimeval::Forever()) : latest(by) {}

    /// Connects to the name server on `host` (null or empty: this machine) and sends the request; `record` is
    /// what follows the code. Returns the status byte.
    int Ask(const char* host, int port, nmsRequestCode code, const std::string& record = {});
    /// The whole request: asks, and has the rest of the answer read by `rest(*this, status)`, which answers
    /// whether it came.
    template<class Rest>
    nmsOutcome Do(const char* host, int port, nmsRequestCode code, const std::string& record, Rest rest)
    {
        const int status = Ask(host, port, code, record);
        const bool isRead = status != noAnswer && rest(*this, status);
        if (status != noAnswer && status != nmscDone)
            return {status, true};
        return {isRead ? nmscDone : isBeyondBounds ? nmscInternal : nmscNoConnection, false};
    }
    /// How a request ends whose record is too great to be sent. nmscInternal, unless there is nobody there.
    nmsOutcome DoNot(const char* host, int port);
    /// For answers that are no more than a status.
    static bool NoRest(nmsExchange&, int) { return true; }

    /// Reads a number of the answer. False when it did not come in time; the exchange is over then.
    bool ReadInt(int& value);
    /// Reads a record of the answer. False as above, and when it is no record; what was read of it is kept.
    bool ReadRecord(nmsFields& record);
    /// Reads the records of a query's answer, whatever their number says: it ends at the first that cannot be
    /// read or is beyond the bounds, and is false then. What has been read is added to `records`.
    bool ReadRecords(std::vector<nmsFields>& records);

private:
    bool Connect(const char* host, int port);
    bool Read(char* to, std::size_t size);

    btkStreamSocket socket;
    btkTimeval latest;
    btkTimeval end; // of the request that is on its way
    bool isBeyondBounds = false;
    std::string held; // received and not used
    std::size_t used = 0;
};

// ---- objects: each is freed by its own function, which clears the pointer; null is accepted

struct capi_nmsServerProxy;
struct capi_nmsError;
struct capi_nmsRecord;
struct capi_nmsRecordArray;

/// A proxy for the name server of this machine, or of `host`; no connection is made. Null without memory.
BASE_API capi_nmsServerProxy* nmsServConnectLocal();
BASE_API capi_nmsServerProxy* nmsServConnectByName(const char* host);
BASE_API void nmsServDelete(capi_nmsServerProxy** proxy);
/// When the last of the proxy's requests ends at the latest, on the clock of btkTimeval::Now, instead of each
/// after the answer limit. Forever, as at first: that holds.
BASE_API void nmsServSetDeadline(capi_nmsServerProxy* proxy, btkTimeval end);

/// The id of this process, as records name their owner.
BASE_API std::uint32_t nmsGetOwnProcess();
/// A record without fields that belongs to the process `owner`; 1 means this process, 0 none.
BASE_API capi_nmsRecord* nmsRecCreate(int owner);
BASE_API void nmsRecDelete(capi_nmsRecord** record);
/// Adds a field or replaces its value. False when an argument is null or without memory.
BASE_API bool nmsRecAdd(capi_nmsRecord* record, const char* name, const char* value);
BASE_API bool nmsRecHasField(const capi_nmsRecord* record, const char* name);
/// Null when there is no such field; valid until the record changes.
BASE_API const char* nmsRecGetFieldValueByName(const capi_nmsRecord* record, const char* name);
/// The record itself, for walking over it; valid while the record lives.
BASE_API const nmsFields& nmsRecGetFields(const capi_nmsRecord* record);
/// Writes the record to the standard error output.
BASE_API void nmsRecPrint(const capi_nmsRecord* record);

/// Null past the end. The record stays the array's.
BASE_API capi_nmsRecord* nmsRecArrGetByIndex(capi_nmsRecordArray* array, int index);
BASE_API void nmsRecArrDelete(capi_nmsRecordArray** array);

// ---- requests: null when it was done, else an error, which the caller frees

BASE_API capi_nmsError* nmsServPing(capi_nmsServerProxy* proxy);
BASE_API capi_nmsError* nmsServRegister(capi_nmsServerProxy* proxy, const capi_nmsRecord* record);
/// `array`, which may be null, gets a new array of the records that match; the caller frees it. Null when the
/// request failed. `count`, which may be null, gets their number.
BASE_API capi_nmsError* nmsServQuery(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern,
                                     capi_nmsRecordArray** array, int* count);
BASE_API capi_nmsError* nmsServRemove(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern, int* count);
BASE_API capi_nmsError* nmsServShutdown(capi_nmsServerProxy* proxy);
/// `answer` gets the record that describes the server, whose field "Version" holds its version.
BASE_API capi_nmsError* nmsServVersion(capi_nmsServerProxy* proxy, capi_nmsRecord* answer);

/// The code of a failure, and the line that tells of it.
BASE_API int nmsErrGetCode(const capi_nmsError* error);
BASE_API const char* nmsErrGetText(const capi_nmsError* error);
/// Writes the line to the standard error output.
BASE_API void nmsErrPrint(const capi_nmsError* error);
BASE_API void nmsErrDelete(capi_nmsError** error);

// ---- owners of the objects

template<auto Free>
struct nmsFree
{
    template<class T>
    void operator()(T* held) const
    {
        Free(&held);
    }
};
using nmsOwnedProxy = std::unique_ptr<capi_nmsServerProxy, nmsFree<&nmsServDelete>>;
using nmsOwnedRecord = std::unique_ptr<capi_nmsRecord, nmsFree<&nmsRecDelete>>;
using nmsOwnedRecords = std::unique_ptr<capi_nmsRecordArray, nmsFree<&nmsRecArrDelete>>;
using nmsOwnedError = std::unique_ptr<capi_nmsError, nmsFree<&nmsErrDelete>>;
