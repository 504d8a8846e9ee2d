#include "nmsclient.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

#include <qel/base/btktrace.h>

struct capi_nmsServerProxy
{
    std::string host; // empty: this machine
    int port;         // of the last request
    btkTimeval deadline = btkTimeval::Forever();
};

struct capi_nmsRecord
{
    nmsFields held;
};

struct capi_nmsRecordArray
{
    std::vector<capi_nmsRecord> records;
};

struct capi_nmsError
{
    int code;
    std::string text;
};

// ---- exchange

namespace {

std::atomic<btkTimeval> answerLimit = btkTimeval(10, 0);
std::atomic<std::size_t> mostRecords = 100000;
std::atomic<std::size_t> mostBytes = std::size_t(64) << 20;

// Approximate memory use of a record.
std::size_t costOf(const nmsFields& record)
{
    std::size_t cost = sizeof record;
    for (const auto& field : record.fields)
        cost += sizeof field + field.first.size() + field.second.size();
    return cost;
}

} // namespace

int nmsFindPort()
{
    const char* const text = std::getenv("VRXNMSPORT");
    if (text == nullptr)
        return nmsDefaultPort;
    const long port = std::strtol(text, nullptr, 10);
    if (port != 0)
        return static_cast<int>(std::clamp<long>(port, INT_MIN, INT_MAX));
    std::fprintf(stderr, "ERROR  : value of VRXNMSPORT is invalid, using the port %d.\n", nmsDefaultPort);
    return nmsDefaultPort;
}

void nmsSetAnswerLimit(btkTimeval limit)
{
    answerLimit = limit;
}

btkTimeval nmsGetAnswerLimit()
{
    return answerLimit;
}

void nmsSetAnswerBounds(std::size_t records, std::size_t bytes)
{
    mostRecords = records;
    mostBytes = bytes;
}

bool nmsExchange::Connect(const char* host, int port)
{
    end = latest.IsForever() ? btkTimeval::Now() + nmsGetAnswerLimit() : latest;
    socket.SetDeadline(end);
    return socket.Connect(host, port, end - btkTimeval::Now());
}

nmsOutcome nmsExchange::DoNot(const char* host, int port)
{
    const bool isReached = Connect(host, port);
    socket.Close();
    return {isReached ? nmscInternal : nmscNoConnection, false};
}

int nmsExchange::Ask(const char* host, int port, nmsRequestCode code, const std::string& record)
{
    std::string request;
    nmsPutFrame(request, code);
    request += record;
    held.clear();
    used = 0;
    if (!Connect(host, port))
        return noAnswer;
    // The server's response counts, even if it did not read the request to its end.
    socket.Send(request.data(), request.size());
    char status = 0;
    if (!Read(&status, 1))
        return noAnswer;
    if (btkTraces(btkTraceArea::names, btkLevel::info))
        btkTrace(btkTraceArea::names, btkLevel::info, "request %u to %s, port %d: status %u",
                 static_cast<unsigned>(code), host != nullptr && *host != '\0' ? host : "this machine", port,
                 static_cast<unsigned>(static_cast<unsigned char>(status)));
    return static_cast<unsigned char>(status);
}

bool nmsExchange::Read(char* to, std::size_t size)
{
    while (size > 0) {
        if (used == held.size()) {
            constexpr std::size_t room = 16384;
            held.resize(room);
            used = 0;
            // Applies even if bytes are available at each check.
            const std::ptrdiff_t count = btkTimeval::Now() < end ? socket.Recv(held.data(), room) : 0;
            held.resize(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
            if (count <= 0) {
                socket.Close();
                return false;
            }
        }
        const std::size_t count = std::min(size, held.size() - used);
        std::memcpy(to, held.data() + used, count);
        used += count;
        to += count;
        size -= count;
    }
    return true;
}

bool nmsExchange::ReadInt(int& value)
{
    char bytes[nmsIntSize];
    if (!Read(bytes, sizeof bytes))
        return false;
    value = nmsGetInt(bytes);
    return true;
}

bool nmsExchange::ReadRecord(nmsFields& record)
{
    nmsRecordReader reader;
    char piece[nmsRecordReader::maxPiece];
    while (reader.GetWanted() > 0)
        if (!Read(piece, reader.GetWanted()) || !reader.Take(piece))
            break;
    record = std::move(reader.record);
    return reader.IsWhole();
}

bool nmsExchange::ReadRecords(std::vector<nmsFields>& records)
{
    int count = 0;
    if (!ReadInt(count) || count < 0)
        return false;
    std::size_t bytes = 0;
    for (int i = 0; i < count; ++i) {
        nmsFields record;
        isBeyondBounds = static_cast<std::size_t>(i) >= mostRecords;
        if (isBeyondBounds || !ReadRecord(record))
            return false;
        bytes += costOf(record);
        isBeyondBounds = bytes > mostBytes;
        if (isBeyondBounds)
            return false;
        records.push_back(std::move(record));
    }
    return true;
}

// ---- objects

namespace {

template<class T>
void destroy(T** object)
{
    if (object == nullptr)
        return;
    delete *object;
    *object = nullptr;
}

capi_nmsServerProxy* newProxy(const char* host)
{
    try {
        return new capi_nmsServerProxy{.host = host, .port = 0};
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

capi_nmsError* newError(const capi_nmsServerProxy& proxy, int code, bool fromServer)
{
    const char* const host = proxy.host.empty() ? "LOCALHOST" : proxy.host.c_str();
    return new capi_nmsError{code, nmsStatusText(code, fromServer, host, proxy.port)};
}

// Performs the request. Null when its status is "done" or `rest`, the part after the status, could not be
// read.
template<class Rest>
capi_nmsError* perform(capi_nmsServerProxy& proxy, nmsRequestCode code, const nmsFields* record, Rest rest)
{
    std::string encoded;
    proxy.port = nmsFindPort();
    const char* const host = proxy.host.c_str();
    const nmsOutcome outcome = record == nullptr || nmsPutRecord(encoded, *record)
                                   ? nmsExchange(proxy.deadline).Do(host, proxy.port, code, encoded, rest)
                                   : nmsExchange(proxy.deadline).DoNot(host, proxy.port);
    return outcome.code == nmscDone ? nullptr : newError(proxy, outcome.code, outcome.fromServer);
}

} // namespace

capi_nmsServerProxy* nmsServConnectLocal()
{
    return newProxy("");
}

capi_nmsServerProxy* nmsServConnectByName(const char* host)
{
    return newProxy(host == nullptr ? "" : host);
}

void nmsServDelete(capi_nmsServerProxy** proxy)
{
    destroy(proxy);
}

void nmsServSetDeadline(capi_nmsServerProxy* proxy, btkTimeval end)
{
    proxy->deadline = end;
}

std::uint32_t nmsGetOwnProcess()
{
    return static_cast<std::uint32_t>(getpid());
}

capi_nmsRecord* nmsRecCreate(int owner)
{
    auto* const made = new (std::nothrow) capi_nmsRecord;
    if (made != nullptr)
        made->held.owner = owner == 1 ? nmsGetOwnProcess() : static_cast<std::uint32_t>(owner);
    return made;
}

void nmsRecDelete(capi_nmsRecord** record)
{
    destroy(record);
}

bool nmsRecAdd(capi_nmsRecord* record, const char* name, const char* value)
{
    if (record == nullptr || name == nullptr || value == nullptr)
        return false;
    try {
        record->held.Set(name, value);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool nmsRecHasField(const capi_nmsRecord* record, const char* name)
{
    return nmsRecGetFieldValueByName(record, name) != nullptr;
}

const char* nmsRecGetFieldValueByName(const capi_nmsRecord* record, const char* name)
{
    if (record == nullptr || name == nullptr)
        return nullptr;
    const std::string* const found = record->held.Find(name);
    return found == nullptr ? nullptr : found->c_str();
}

const nmsFields& nmsRecGetFields(const capi_nmsRecord* record)
{
    return record->held;
}

void nmsRecPrint(const capi_nmsRecord* record)
{
    if (record == nullptr)
        return;
    std::fprintf(stderr, "record of process %u:\n", record->held.owner);
    for (const auto& [name, value] : record->held.fields)
        std::fprintf(stderr, "  %s = %s\n", name.c_str(), value.c_str());
}

capi_nmsRecord* nmsRecArrGetByIndex(capi_nmsRecordArray* array, int index)
{
    if (array == nullptr || index < 0 || static_cast<std::size_t>(index) >= array->records.size())
        return nullptr;
    return &array->records[static_cast<std::size_t>(index)];
}

void nmsRecArrDelete(capi_nmsRecordArray** array)
{
    destroy(array);
}

// ---- requests

capi_nmsError* nmsServPing(capi_nmsServerProxy* proxy)
{
    capi_nmsError* error = perform(*proxy, nmsRequestCode::ping, nullptr, nmsExchange::NoRest);
    if (error != nullptr && error->code != nmscNoConnection) {
        // It responds, but not as a name server.
        nmsErrDelete(&error);
        error = newError(*proxy, nmscNoConnection, false);
    }
    return error;
}

capi_nmsError* nmsServRegister(capi_nmsServerProxy* proxy, const capi_nmsRecord* record)
{
    // Processes are those of this machine.
    if (record->held.owner != 0 && !proxy->host.empty())
        return newError(*proxy, nmscNotAllowed, false);
    return perform(*proxy, nmsRequestCode::enter, &record->held, nmsExchange::NoRest);
}

capi_nmsError* nmsServQuery(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern,
                            capi_nmsRecordArray** array, int* count)
{
    std::vector<nmsFields> found;
    if (array != nullptr)
        *array = nullptr;
    if (count != nullptr)
        *count = 0;
    capi_nmsError* const error =
        perform(*proxy, nmsRequestCode::query, &pattern->held, [&](nmsExchange& exchange, int status) {
            return status != nmscDone || exchange.ReadRecords(found);
        });
    if (error != nullptr)
        return error;
    if (count != nullptr)
        *count = static_cast<int>(found.size());
    if (array != nullptr) {
        auto made = std::make_unique<capi_nmsRecordArray>();
        for (nmsFields& record : found)
            made->records.push_back({std::move(record)});
        *array = made.release();
    }
    return nullptr;
}

capi_nmsError* nmsServRemove(capi_nmsServerProxy* proxy, const capi_nmsRecord* pattern, int* count)
{
    int removed = 0;
    capi_nmsError* const error =
        perform(*proxy, nmsRequestCode::remove, &pattern->held,
                [&](nmsExchange& exchange, int) { return exchange.ReadInt(removed); });
    if (count != nullptr)
        *count = removed;
    return error;
}

capi_nmsError* nmsServShutdown(capi_nmsServerProxy* proxy)
{
    if (!proxy->host.empty())
        return newError(*proxy, nmscNotAllowed, false);
    return perform(*proxy, nmsRequestCode::shutdown, nullptr, nmsExchange::NoRest);
}

capi_nmsError* nmsServVersion(capi_nmsServerProxy* proxy, capi_nmsRecord* answer)
{
    return perform(*proxy, nmsRequestCode::version, nullptr, [&](nmsExchange& exchange, int status) {
        return status != nmscDone || exchange.ReadRecord(answer->held);
    });
}

int nmsErrGetCode(const capi_nmsError* error)
{
    return error->code;
}

const char* nmsErrGetText(const capi_nmsError* error)
{
    return error->text.c_str();
}

void nmsErrPrint(const capi_nmsError* error)
{
    if (error != nullptr)
        std::fprintf(stderr, "%s\n", error->text.c_str());
}

void nmsErrDelete(capi_nmsError** error)
{
    destroy(error);
}
