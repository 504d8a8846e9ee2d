
#include <qel/base/btkevent.h>
#include <qel/netthread.h>
#include <qel/xiolib.h>

#include "support/descriptors.h"
#include "support/test.h"

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
