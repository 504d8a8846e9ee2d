#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>

#include <qel/base/btkevent.h>
#include <qel/netservice.h>
#include <qel/netthread.h>
#include <qel/xiolib.h>

#include "support/descriptors.h"

namespace {

// Exits with the code that its owner writes to the control pipe.
class Worker : public netThread
{
public:
    ~Worker() override { Close(); }

    std::atomic<bool> ran = false;
    bool postStarted = false;

protected:
    int OnStart() override
    {
        ran = true;
        const std::unique_ptr<ioEvent> told(SignalStream()->InputEvent());
        EXPECT_TRUE(told->Wait(30.0));
        return SignalStream()->ReadByte();
    }
    void OnPostStart() override { postStarted = true; }
};

// Exposes the protected members of a thread.
struct Open : Worker
{
    using Worker::AtFork;
    using Worker::GetExitHandle;
    using Worker::SignalStream;
};

class Unwilling : public netBaseThread
{
public:
    bool ran = false;

protected:
    bool OnPreStart() override { return false; }
    int OnStart() override
    {
        ran = true;
        return 1;
    }
};

} // namespace

TEST(netThread, EndsWithTheCodeSignaledByItsOwner)
{
    const long before = openDescriptors();
    {
        Worker worker;
        EXPECT_EQ(worker.ControlStream(), nullptr);
        ASSERT_TRUE(worker.Start());
        EXPECT_TRUE(worker.postStarted);
        EXPECT_FALSE(worker.Start()); // it is running
        btkEvent exit(worker.GetExitEvent());
        EXPECT_FALSE(worker.IsExited());
        EXPECT_FALSE(exit.IsSignaled());

        worker.ControlStream()->WriteByte(7);
        EXPECT_EQ(btkEvent::Wait({&exit}, btkTimeval(30, 0)), 1);
        EXPECT_TRUE(worker.IsExited());
        EXPECT_EQ(worker.GetExitCode(), 7);
        EXPECT_EQ(worker.WaitExitCode(), 7);
        EXPECT_TRUE(worker.IsExited());
        EXPECT_TRUE(exit.IsSignaled());
        EXPECT_TRUE(btkEvent(worker.GetExitEvent()).IsSignaled());

        worker.Close();
        worker.Close();
        EXPECT_EQ(worker.ControlStream(), nullptr);
        ASSERT_TRUE(worker.Start()); // again, and its code is not the old one
        worker.ControlStream()->WriteByte(8);
        EXPECT_EQ(worker.WaitExitCode(), 8);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(netThread, IsNotStartedWhenItRefusesOrNoPipeCanBeCreated)
{
    Unwilling unwilling;
    EXPECT_FALSE(unwilling.Start());
    EXPECT_FALSE(unwilling.ran);
    EXPECT_TRUE(unwilling.IsExited());
    EXPECT_EQ(unwilling.WaitExitCode(), 0);
    EXPECT_TRUE(btkEvent(unwilling.GetExitEvent()).IsSignaled());
    unwilling.Close();

    Worker worker;
    {
        const DescriptorLimit none(nextDescriptor());
        EXPECT_FALSE(worker.Start());
    }
    EXPECT_FALSE(worker.ran);
    ASSERT_TRUE(worker.Start());
    worker.ControlStream()->WriteByte(1);
    EXPECT_EQ(worker.WaitExitCode(), 1);
}

TEST(netThread, ForkKeepsOneEndOfItsPipeOnEachSide)
{
    for (const bool isParent : {false, true}) {
        Open worker;
        EXPECT_EQ(worker.GetExitHandle(), -1);
        worker.AtFork(isParent); // without a pipe
        ASSERT_TRUE(worker.Start());
        EXPECT_FALSE(btkIsReadable(worker.GetExitHandle()));
        worker.ControlStream()->WriteByte(9);
        EXPECT_TRUE(btkIsReadable(worker.GetExitHandle(), btkTimeval(30.0)));
        EXPECT_TRUE(worker.IsExited());
        worker.AtFork(isParent);
        EXPECT_EQ(worker.SignalStream()->getIsOpen() != 0, !isParent);
        EXPECT_EQ(worker.ControlStream()->getIsOpen() != 0, isParent);
        EXPECT_EQ(worker.WaitExitCode(), 9);
        EXPECT_EQ(worker.GetExitHandle(), -1);
    }
}

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
