#include "netaddress.h"

#include <cstdlib>
#include <string>

#include "netconnect_p.h"
#include "netexception.h"
#include "qeltable.h"
#include "syslib.h"

constinit qelClass netAddress::rtti = {
    .name = "netlib::Address",
    .counted = true,
    .attrs = {QEL_ATTR(HostName), QEL_ATTR(PortN, qelOptional), QEL_ATTR(ServerName, qelOptional)},
};

namespace {

constexpr const char* nameField = "_ServerName";
constexpr const char* portField = "_PortNumber";

const char* textOf(const xstring& text)
{
    return text == nullptr ? nullptr : text.CastToCString();
}

// Takes and reports the error. True when there was none.
bool succeeded(capi_nmsError* answered)
{
    const nmsOwnedError error(answered);
    if (error != nullptr)
        nmsErrPrint(error.get());
    return error == nullptr;
}

nmsOwnedProxy newProxy(const xstring& host)
{
    const char* const name = textOf(host);
    return nmsOwnedProxy(name == nullptr ? nmsServConnectLocal() : nmsServConnectByName(name));
}

bool answers(const nmsOwnedProxy& proxy)
{
    return proxy != nullptr && nmsOwnedError(nmsServPing(proxy.get())) == nullptr;
}

nmsOwnedRecord recordOf(const xstring& name, int port)
{
    nmsOwnedRecord record(MakeServerRecord(name));
    if (record != nullptr && !nmsRecAdd(record.get(), portField, std::to_string(port).c_str()))
        record.reset();
    return record;
}

int resolvePortBy(netAddress* address, btkTimeval end)
{
    if (!qelIsObject(address))
        netXException::Throw(netInvalidAddress, "Address is nil!");
    if (address->getPortN() == 0) {
        const nmsOwnedProxy proxy = netNameServer(address->getHostName(), end);
        if (proxy == nullptr)
            netXException::Throw(netNameServiceProblem, "Name Server is not found", address);
        const int port = GetPortFromNMS(proxy.get(), address->getServerName());
        if (port == 0)
            netXException::Throw(netNameServiceProblem, "Server is not registered", address);
        address->setPortN(port);
    }
    return address->getPortN();
}

} // namespace

netAddress::netAddress(const char* host, int port, const char* server)
    : hostName(host == xnullstr ? sysGetCurHostName() : xstring(host)), portN(port), serverName(server)
{
}

netAddress* netAddress::Create(int port, const char* host)
{
    return new (pDefMemMgr) netAddress(host, port, nullptr);
}

netAddress* netAddress::Create(const char* serverName, const char* host)
{
    return new (pDefMemMgr) netAddress(host, 0, serverName);
}

int ResolvePort(netAddress* address)
{
    return resolvePortBy(address, netAnswerEnd());
}

std::unique_ptr<btkStreamSocket> netConnect(netAddress* address, btkTimeval end)
{
    const int port = resolvePortBy(address, end.IsForever() ? netAnswerEnd() : end);
    const xstring host = address->getHostName();
    auto socket = std::make_unique<btkStreamSocket>();
    if (!socket->Connect(textOf(host), port, end.IsForever() ? end : end - btkTimeval::Now()))
        return nullptr;
    return socket;
}

nmsOwnedProxy netNameServer(const xstring& host, btkTimeval end)
{
    nmsOwnedProxy proxy = newProxy(host);
    if (proxy != nullptr)
        nmsServSetDeadline(proxy.get(), end);
    return answers(proxy) ? std::move(proxy) : nullptr;
}

capi_nmsServerProxy* getNameServer(xstring host)
{
    nmsOwnedProxy proxy = newProxy(host);
    return answers(proxy) ? proxy.release() : nullptr;
}

capi_nmsRecord* MakeServerRecord(xstring name)
{
    nmsOwnedRecord record(nmsRecCreate(1));
    if (record == nullptr || !nmsRecAdd(record.get(), nameField, textOf(name)))
        return nullptr;
    return record.release();
}

bool RegisterWithNMS(capi_nmsServerProxy* proxy, int port, xstring name)
{
    const nmsOwnedProxy owned(proxy);
    const nmsOwnedRecord record = recordOf(name, port);
    return record != nullptr && succeeded(nmsServRegister(proxy, record.get()));
}

void netUnregister(capi_nmsServerProxy* proxy, int port, const xstring& name)
{
    const nmsOwnedRecord record = recordOf(name, port);
    if (record != nullptr)
        succeeded(nmsServRemove(proxy, record.get(), nullptr));
}

bool IsRegisteredWithNMS(capi_nmsServerProxy* proxy, xstring name)
{
    const nmsOwnedRecord record(MakeServerRecord(name));
    int count = 0;
    return record != nullptr && succeeded(nmsServQuery(proxy, record.get(), nullptr, &count)) && count != 0;
}

bool UnregisterFromNMS(capi_nmsServerProxy* proxy, xstring name)
{
    const nmsOwnedRecord record(MakeServerRecord(name));
    int count = 0;
    return record != nullptr && succeeded(nmsServRemove(proxy, record.get(), &count));
}

int GetPortFromNMS(capi_nmsServerProxy* proxy, xstring name)
{
    const nmsOwnedRecord record(MakeServerRecord(name));
    if (record == nullptr)
        return 0;
    capi_nmsRecordArray* answered = nullptr;
    int count = 0;
    const bool isAnswered = succeeded(nmsServQuery(proxy, record.get(), &answered, &count));
    const nmsOwnedRecords array(answered);
    if (!isAnswered) {
        nmsRecPrint(record.get());
        return 0;
    }
    for (int i = 0; i < count; ++i) {
        const capi_nmsRecord* const found = nmsRecArrGetByIndex(array.get(), i);
        if (found != nullptr && nmsRecHasField(found, portField)) {
            const long port = std::strtol(nmsRecGetFieldValueByName(found, portField), nullptr, 10);
            return port > 0 && port <= 65535 ? static_cast<int>(port) : 0;
        }
    }
    return 0;
}
