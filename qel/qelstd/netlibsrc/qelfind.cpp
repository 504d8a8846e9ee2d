#include "qelfind.h"

#include <cstdlib>

#include <qel/base/nmsclient.h>

#include "netconnect_p.h"
#include "netexception.h"
#include "netfind_c.h"
#include "netserver.h"
#include "qelstd_c_p.h"

namespace {

btkTimeval endAfter(double seconds)
{
    return btkTimeval::Now() + btkTimeval(seconds);
}

// The port in a record; 0 when it has none that can be connected to.
int portOf(const capi_nmsRecord* record)
{
    const char* const text = nmsRecGetFieldValueByName(record, "_PortNumber");
    const long port = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return port > 0 && port <= 65535 ? static_cast<int>(port) : 0;
}

nmsOwnedRecords query(capi_nmsServerProxy& proxy, const capi_nmsRecord& pattern, netAddress* about)
{
    capi_nmsRecordArray* found = nullptr;
    const nmsOwnedError error(nmsServQuery(&proxy, &pattern, &found, nullptr));
    if (error != nullptr)
        netXException::Throw(netNameServiceProblem,
                             nmsErrGetCode(error.get()) == nmscNoConnection ? "Name Server is not found"
                                                                            : nmsErrGetText(error.get()),
                             about);
    return nmsOwnedRecords(found);
}

netAddress* findBy(const char* name, const char* host, btkTimeval end)
{
    const xrchandle<netAddress> wanted(netAddress::Create(name, host));
    const xstring text = wanted->getServerName();
    const xstring asked = wanted->getHostName();
    if (text.isNull())
        netXException::Throw(netInvalidAddress, "A server without a name cannot be found");
    const nmsOwnedProxy proxy(nmsServConnectByName(asked.isNull() ? nullptr : asked.CastToCString()));
    const nmsOwnedRecord pattern(nmsRecCreate(0));
    if (proxy == nullptr || !nmsRecAdd(pattern.get(), "_ServerName", text.CastToCString()) ||
        !nmsRecAdd(pattern.get(), "_Scope", "all"))
        throw std::bad_alloc();
    nmsServSetDeadline(proxy.get(), end.IsForever() ? netAnswerEnd() : end);
    const nmsOwnedRecords records = query(*proxy, *pattern, wanted.get());
    for (int i = 0; const capi_nmsRecord* const record = nmsRecArrGetByIndex(records.get(), i); ++i)
        if (const int port = portOf(record); port != 0) {
            const char* const elsewhere = nmsRecGetFieldValueByName(record, "_HostName");
            return netAddress::Create(port, elsewhere != nullptr ? elsewhere
                                            : asked.isNull()     ? xnullstr
                                                                 : host);
        }
    netXException::Throw(netServerNotFound, "Server is not registered", wanted.get());
}

} // namespace

netAddress* netFind(const char* name, const char* host, double seconds)
{
    return findBy(name, host, endAfter(seconds));
}

netSocketStream* netConnectByName(const char* name, const char* host, double seconds)
{
    const btkTimeval end = endAfter(seconds);
    xrchandle<netAddress> address;
    for (int attempt = 0; attempt == 0 || (attempt == 1 && btkTimeval::Now() < end); ++attempt) {
        address = findBy(name, host, end);
        const double left = end.IsForever() ? seconds : (end - btkTimeval::Now()).ToSeconds();
        if (netSocketStream* const stream = netConnectTo(address.get(), name, left))
            return stream;
    }
    netXException::Throw(netConnectionRefused, "Connection refused", address.get());
}

int netfind_c(const char* name, __xstring_c* host)
{
    *host = xstring().getxstring_c();
    return qelForC(xuninitint, [&] {
        const xrchandle<netAddress> found(findBy(name, nullptr, btkTimeval::Forever()));
        *host = found->getHostName().getxstring_c();
        return found->getPortN();
    });
}
