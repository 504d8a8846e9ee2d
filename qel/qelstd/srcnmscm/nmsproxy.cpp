#include "nmsproxy.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/nmsclient.h>

#include "qeltable.h"
#include "recnms_p.h"
#include "syslib.h"

constinit qelClass nmsServerProxy::rtti = {
    .name = "nmsclib::ServerProxy",
    .counted = true,
};

// ---- status

namespace {

// The text for messages; null means none.
const char* textOf(const xstring& s)
{
    const char* const text = s.CastToCString();
    return qelIsObject(text) ? text : "";
}

std::string reportOf(const nmsClientStatus& status)
{
    const xstring host = status.getHost();
    return nmsStatusText(status.getCode(), status.getOrigin() == nmsClientStatus::Server,
                         status.getLocal() ? "LOCALHOST" : textOf(host), status.getPort());
}

// The exception's description of it: the first line.
std::string lineOf(const nmsClientStatus& status)
{
    constexpr std::size_t most = 1024;
    const std::string report = reportOf(status);
    return report.substr(0, std::min(report.find('\n'), most));
}

using Failure = std::unique_ptr<nmsClientStatus>;

// Throws the exception X for `failure`, if there is one.
template<class X, class... Values>
void throwFor(nmsClientStatus* failure, const char* function, Values... values)
{
    const Failure held(failure);
    if (held != nullptr)
        X::Throw(lineOf(*held).c_str(), xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get(),
                 values...);
}

// Frees a counted object without attached handles.
struct Discard
{
    void operator()(xobject* p) const { const xrchandle<xobject> last(p); }
};

// Returns the proxy if its server responds; else frees it and returns null.
nmsServerProxy* answering(nmsServerProxy* made)
{
    std::unique_ptr<nmsServerProxy, Discard> proxy(made);
    return Failure(proxy->Ping()) == nullptr ? proxy.release() : nullptr;
}

} // namespace

nmsClientStatus::nmsClientStatus(int statusCode, StatusOrigin foundBy, const xstring& hostName, int usedPort,
                                 bool isLocal)
    : code(statusCode), host(hostName), port(usedPort), local(isLocal), origin(foundBy)
{
}

std::ostream& operator<<(std::ostream& os, const nmsClientStatus& status)
{
    if (os.good())
        os << reportOf(status) << std::endl;
    return os;
}

std::ostream& operator<<(std::ostream& os, const nmsServerProxy& proxy)
{
    if (os.good())
        os << proxy.getHost();
    return os;
}

// ---- making proxies

nmsServerProxy* nmsServerProxy::InitLocalProxy()
{
    return new (pDefMemMgr) nmsServerProxy(sysGetCurHostName(), true);
}

nmsServerProxy* nmsServerProxy::InitProxy(const char* hostName)
{
    return new (pDefMemMgr) nmsServerProxy(hostName, false);
}

nmsServerProxy* nmsServerProxy::ConnectLocal()
{
    nmsServerProxy* const proxy = answering(InitLocalProxy());
    if (proxy == nullptr)
        nmsXCantConnectLocal::Throw(
            "Can't connect locally",
            xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc("nmsServerProxy::ConnectLocal")).get());
    return proxy;
}

nmsServerProxy* nmsServerProxy::ConnectByName(const char* hostName)
{
    nmsServerProxy* const proxy = answering(InitProxy(hostName));
    if (proxy == nullptr)
        nmsXCantConnectByName::Throw(
            "ERROR  : can't connect by name",
            xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc("nmsServerProxy::ConnectByName")).get(), hostName);
    return proxy;
}

// ---- operations

void nmsServerProxy::Register(nmsRecord* record)
{
    throwFor<nmsXCantRegisterRecord>(ImplRegister(*record), "nmsServerProxy::Register", record);
}

int nmsServerProxy::Delete(nmsRecord* pattern)
{
    int count = 0;
    throwFor<nmsXCantDelete>(ImplDelete(*pattern, &count), "nmsServerProxy::Delete", pattern);
    return count;
}

nmsRecordArray* nmsServerProxy::Query(nmsRecord* pattern)
{
    std::unique_ptr<nmsRecordArray, Discard> found(nmsRecordArray::create());
    if (nmsClientStatus* const failure = ImplQuery(*pattern, found.get(), nullptr)) {
        for (int i = 0; i < found->getarraysize(); ++i)
            Discard()(found->get(i));
        throwFor<nmsXCantQuery>(failure, "nmsServerProxy::Query", pattern);
    }
    return found.release();
}

xstring nmsServerProxy::GetVersion()
{
    constexpr const char* function = "nmsServerProxy::GetVersion";
    const xrchandle<nmsRecord> answer(nmsRecord::Create(0));
    throwFor<nmsXCantGetVersion>(Version(*answer), function);
    if (!answer->HasField("Version"))
        nmsXCantGetVersion::Throw("ERROR  : Other",
                                  xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get());
    return answer->GetFieldValueByName("Version");
}

unsigned char nmsServerProxy::IsAlive()
{
    return Failure(Ping()) == nullptr;
}

void nmsServerProxy::Shutdown()
{
    throwFor<nmsXCantShutdown>(ImplShutdown(), "nmsServerProxy::Shutdown");
}

void nmsServerProxy::setAnswerLimit(double seconds)
{
    nmsSetAnswerLimit(btkTimeval(seconds));
}

void nmsServerProxy::setAnswerBounds(std::size_t records, std::size_t bytes)
{
    nmsSetAnswerBounds(records, bytes);
}

// ---- requests

nmsClientStatus* nmsServerProxy::Status(int code, nmsClientStatus::StatusOrigin origin) const
{
    return new nmsClientStatus(code, origin, host, port, local);
}

template<class Rest>
nmsClientStatus* nmsServerProxy::Request(int code, nmsRecord* record, Rest rest)
{
    port = nmsFindPort();
    std::string encoded;
    const char* const name = local ? nullptr : textOf(host);
    const auto [status, fromServer] =
        record == nullptr || nmsRecordWire::Encode(*record, encoded)
            ? nmsExchange().Do(name, port, static_cast<nmsRequestCode>(code), encoded, rest)
            : nmsExchange().DoNot(name, port);
    return status == nmscDone
               ? nullptr
               : Status(status, fromServer ? nmsClientStatus::Server : nmsClientStatus::Client);
}

nmsClientStatus* nmsServerProxy::Ping()
{
    const Failure failure(Request(static_cast<int>(nmsRequestCode::ping), nullptr, nmsExchange::NoRest));
    // The reply is not that of a name server.
    return failure == nullptr ? nullptr : Status(nmscNoConnection, nmsClientStatus::Client);
}

nmsClientStatus* nmsServerProxy::ImplShutdown()
{
    if (!local) {
        std::cerr << "ERROR  : NMS client: cannot shutdown nonlocal NameService." << std::endl;
        return Status(nmscNotAllowed, nmsClientStatus::Client);
    }
    return Request(static_cast<int>(nmsRequestCode::shutdown), nullptr, nmsExchange::NoRest);
}

nmsClientStatus* nmsServerProxy::ImplRegister(nmsRecord& record)
{
    if (record.IsAssociated() && !local)
        return Status(nmscNotAllowed, nmsClientStatus::Client);
    return Request(static_cast<int>(nmsRequestCode::enter), &record, nmsExchange::NoRest);
}

nmsClientStatus* nmsServerProxy::ImplQuery(nmsRecord& pattern, nmsRecordArray* out, int* count)
{
    if (out != nullptr)
        out->clear();
    std::vector<nmsFields> found;
    const auto readRecords = [&](nmsExchange& exchange, int status) {
        return status != nmscDone || exchange.ReadRecords(found);
    };
    nmsClientStatus* const failure = Request(static_cast<int>(nmsRequestCode::query), &pattern, readRecords);
    if (count != nullptr)
        *count = static_cast<int>(found.size());
    if (out != nullptr)
        for (const nmsFields& fields : found) {
            std::unique_ptr<nmsRecord, Discard> record(nmsRecord::Create(0));
            nmsRecordWire::Take(*record, fields);
            out->append(record.get());
            record.release();
        }
    return failure;
}

nmsClientStatus* nmsServerProxy::Version(nmsRecord& out)
{
    return Request(static_cast<int>(nmsRequestCode::version), nullptr,
                   [&](nmsExchange& exchange, int status) {
                       nmsFields answer;
                       if (status == nmscDone)
                           exchange.ReadRecord(answer);
                       nmsRecordWire::Take(out, answer);
                       return true;
                   });
}

nmsClientStatus* nmsServerProxy::ImplDelete(nmsRecord& pattern, int* count)
{
    int deleted = 0;
    nmsClientStatus* const failure =
        Request(static_cast<int>(nmsRequestCode::remove), &pattern,
                [&](nmsExchange& exchange, int) { return exchange.ReadInt(deleted), true; });
    if (count != nullptr)
        *count = deleted;
    return failure;
}
