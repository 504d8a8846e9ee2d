#include <qel/base/thrmutex.h>

#include "support/test.h"

TEST(thrMutex, IsRecursiveAndKeepsOtherThreadsOut)
{
    thrMutex mutex;
    int counted = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            thrLock outer(mutex);
            thrLock inner(mutex);
            ++counted;
        }
    };

    std::thread first(work), second(work);
    first.join();
    second.join();

    EXPECT_EQ(counted, 40000);
}

TEST(thrMutex, DoesNotLockWhileDisabled)
{
    thrMutex mutex;
    mutex.Enable(false);
    mutex.Lock();
    std::atomic<bool> through = false;

    std::thread([&] {
        thrLock lock(mutex);
        through = true;
    }).join();

    EXPECT_TRUE(through);
    mutex.Unlock();
}

TEST(thrIsThreaded, DetectsThreadsThatTheProgramCreatedItself)
{
    bool seen = false;
    std::thread([&] { seen = thrIsThreaded(); }).join();
    EXPECT_TRUE(seen);
}
