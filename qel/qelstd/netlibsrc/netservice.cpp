#include "netservice.h"

#include "qelfatal_p.h"
#include "qeltable.h"

constinit qelClass netService_DoService_cb::rtti = {
    .name = "netlib::Service_DoService_cb",
};

constinit qelClass netService::rtti = {
    .name = "netlib::Service",
};

netService* netService::Create(const char*, xrchandle<xstringsequence>, const char*)
{
    netNoCreate.Report();
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
    netNoReportStarting.Report();
}

void netService::ReportRunning()
{
    netNoReportRunning.Report();
}

void netService::ReportPaused()
{
    netNoReportPaused.Report();
}

unsigned char netService::IsStopped()
{
    netNoIsStopped.Report();
}

unsigned char netService::IsPaused()
{
    netNoIsPaused.Report();
}

unsigned char netService::IsReleased()
{
    netNoIsReleased.Report();
}

void netService::DoPause()
{
    netNoDoPause.Report();
}
