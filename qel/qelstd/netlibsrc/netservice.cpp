#include "netservice.h"

#include <qel/base/btkabort.h>

#include "qeltable.h"

constinit qelClass netService_DoService_cb::rtti = {
    .name = "netlib::Service_DoService_cb",
};

constinit qelClass netService::rtti = {
    .name = "netlib::Service",
};

namespace {

// `line`: of the list of operations that are missing on operating systems without a service shell.
[[noreturn]] void ReportMissing(const char* message, int line)
{
    _Abort(message, "qel/qelstd/netlibsrc/netlibnew", line);
}

} // namespace

netService* netService::Create(const char*, xrchandle<xstringsequence>, const char*)
{
    ReportMissing("QEL generated function not implemented!", 1264);
}

netService::netService(const char* serviceName, xrchandle<xstringsequence> parameters, const char* shownName)
    : name(serviceName), displayName(qelIsObject(shownName) ? shownName : serviceName),
      parms(std::move(parameters))
{
}

unsigned char netService::Run()
{
    DoService(parms);
    return 1;
}

void netService::DoService(xrchandle<xstringsequence> parameters)
{
    if (doService != nullptr)
        doService->Invoke(this, std::move(parameters));
}

xrchandle<xstringsequence> netService::ExtractParms(int argc, char** argv)
{
    xrchandle<xstringsequence> texts(xstringsequence::create());
    for (int i = 0; i < argc; ++i)
        texts->append(argv[i]);
    return texts;
}

void netService::ReportStarting(double)
{
    ReportMissing("netService::ReportStarting", 1315);
}

void netService::ReportRunning()
{
    ReportMissing("netService::ReportRunning", 1321);
}

void netService::ReportPaused()
{
    ReportMissing("netService::ReportPaused", 1327);
}

unsigned char netService::IsStopped()
{
    ReportMissing("netService::IsStopped", 1333);
}

unsigned char netService::IsPaused()
{
    ReportMissing("netService::IsPaused", 1340);
}

unsigned char netService::IsReleased()
{
    ReportMissing("netService::IsReleased", 1347);
}

void netService::DoPause()
{
    ReportMissing("netService::DoPause", 1354);
}
