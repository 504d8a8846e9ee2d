#include <qel/netservice.h>

#include "support/test.h"

namespace {

struct Shell : netService
{
    Shell(const char* called, xrchandle<xstringsequence> with, const char* shown)
        : netService(called, std::move(with), shown)
    {
    }
};

struct Noting : netService_DoService_cb
{
    void Invoke(netService* service, xrchandle<xstringsequence> parms) override
    {
        called = service;
        with = std::move(parms);
    }

    netService* called = nullptr;
    xrchandle<xstringsequence> with;
};

} // namespace

TEST(netService, RunsItsHandlerWithTheProgramsParameters)
{
    char program[] = "prog", option[] = "-a", value[] = "b";
    char* argv[] = {program, option, value, nullptr};
    const xrchandle<xstringsequence> parms = netService::ExtractParms(3, argv);
    ASSERT_EQ(parms->getarraysize(), 3);
    EXPECT_TRUE(parms->get(0) == "prog" && parms->get(1) == "-a" && parms->get(2) == "b");

    Shell service("svc", parms, xnullstr);
    EXPECT_TRUE(service.getDisplayName() == "svc");
    EXPECT_TRUE(Shell("svc", nullptr, nullptr).getDisplayName() == "svc");
    EXPECT_TRUE(Shell("svc", nullptr, "Service").getDisplayName() == "Service");
    EXPECT_EQ(service.Run(), 1);
    Noting noting;
    service.setDoService(&noting);
    EXPECT_EQ(service.Run(), 1);
    EXPECT_EQ(noting.called, &service);
    EXPECT_EQ(noting.with.get(), parms.get());
    service.DoService(nullptr);
    EXPECT_EQ(noting.with.get(), nullptr);
}

TEST(netServiceDeathTest, HasNoShellOnThisSystem)
{
    EXPECT_DEATH(netService::Create("svc", nullptr, nullptr),
                 "QEL generated function not implemented!.*1264");
    EXPECT_DEATH(netService::ReportStarting(1), "netService::ReportStarting.*netlibnew.*1315");
    EXPECT_DEATH(netService::IsStopped(), "netService::IsStopped.*1333");
    EXPECT_DEATH(netService::ReportRunning(), "netService::ReportRunning.*1321");
    EXPECT_DEATH(netService::ReportPaused(), "netService::ReportPaused.*1327");
    EXPECT_DEATH(netService::IsPaused(), "netService::IsPaused.*1340");
    EXPECT_DEATH(netService::IsReleased(), "netService::IsReleased.*1347");
    EXPECT_DEATH(netService::DoPause(), "netService::DoPause.*1354");
}
