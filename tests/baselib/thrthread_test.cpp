#include <cstdint>
#include <sys/resource.h>

#include <qel/base/thrthread.h>

#include "support/child.h"
#include "support/descriptors.h"
#include "support/test.h"

namespace {

// Takes the handle itself: a thread whose handle was freed may exit after the test.
int waitForEvent(void* event)
{
    btkIsReadable(static_cast<btkHandle>(reinterpret_cast<std::intptr_t>(event)), btkTimeval(10, 0));
    return 7;
}

int endAtOnce(void*)
{
    return 3;
}

class Threads : public testing::Test
{
protected:
    Threads() : gate(Event_Create(false)), gateOwner(gate) {}

    void* Gate() const { return reinterpret_cast<void*>(static_cast<std::intptr_t>(gate)); }

    btkHandle gate;
    btkFd gateOwner;
};

} // namespace

TEST_F(Threads, ReportTheirEndAndTheirExitCode)
{
    void* const thread = StrictThread_Launch(waitForEvent, Gate(), nullptr);
    ASSERT_NE(thread, StrictThread_Refused);
    const long descriptors = openDescriptors();
    btkEvent exited(new btkPROCESSEvent(thread));
    EXPECT_EQ(openDescriptors(), descriptors) << "a server may have none left";
    EXPECT_FALSE(exited.IsSignaled());
    EXPECT_TRUE(StrictThread_CheckRunning(thread));

    Event_Set(gate);

    EXPECT_EQ(btkEvent::Wait({&exited}, btkTimeval(10, 0)), 1);
    EXPECT_FALSE(StrictThread_CheckRunning(thread));
    for (int time = 0; time < 2; ++time) {
        int code = 0;
        StrictThread_Wait(thread, &code);
        EXPECT_EQ(code, 7);
    }
    StrictThread_Free(thread);
    EXPECT_TRUE(exited.IsSignaled()) << "the event must not need the thread's handle";
}

TEST_F(Threads, KeepRunningAfterTheirHandleIsFreed)
{
    void* const thread = StrictThread_Launch(waitForEvent, Gate(), nullptr);
    btkEvent exited(new btkPROCESSEvent(thread));

    StrictThread_Free(thread);

    EXPECT_FALSE(exited.IsSignaled());
    Event_Set(gate);
    EXPECT_EQ(btkEvent::Wait({&exited}, btkTimeval(10, 0)), 1);
}

TEST_F(Threads, EndWhenTheyExitInTheMiddle)
{
    for (const auto leave : {+[](void*) -> int { pthread_exit(nullptr); },
                             +[](void* event) {
                                 pthread_cancel(pthread_self());
                                 return waitForEvent(event);
                             }}) {
        void* const thread = StrictThread_Launch(leave, Gate(), nullptr);
        btkEvent exited(new btkPROCESSEvent(thread));
        EXPECT_EQ(btkEvent::Wait({&exited}, btkTimeval(10, 0)), 1);
        int code = 1;
        StrictThread_Wait(thread, &code);
        EXPECT_EQ(code, 0);
        StrictThread_Free(thread);
    }
}

TEST(ThreadLimits, WithoutDescriptorsNoThreadIsStartedAndNothingLeaks)
{
    const int status = runInChild([] {
        const rlimit none = {3, 3};
        setrlimit(RLIMIT_NOFILE, &none);
        for (int time = 0; time < 1000; ++time) {
            if (StrictThread_Launch(endAtOnce, nullptr, nullptr) != StrictThread_Refused)
                return 1;
        }
        return 0;
    });

    EXPECT_EQ(status, 0);
}

TEST(ThreadLimits, WithoutMemoryForAStackNoThreadIsStarted)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs the address space itself";
#endif
    const int status = runInChild([] {
        const rlimit little = {64 << 20, 64 << 20};
        setrlimit(RLIMIT_AS, &little);
        const rlimit large = {1 << 30, 1 << 30};
        setrlimit(RLIMIT_STACK, &large);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, 1 << 30);
        pthread_setattr_default_np(&huge);
        return StrictThread_Launch(endAtOnce, nullptr, nullptr) == StrictThread_Refused ? 0 : 1;
    });

    EXPECT_EQ(status, 0);
}
