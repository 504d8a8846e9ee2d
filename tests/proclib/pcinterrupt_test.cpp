#include <qel/pcinterrupt.h>

#include "support/descriptors.h"
#include "support/test.h"

namespace {

using Interrupt = std::unique_ptr<pcInterruptEvent, qelDelete>;

Interrupt Make()
{
    return Interrupt(pcInterruptEvent::Create());
}

std::atomic<int> handled = 0;

// This program's own handler of an interrupt.
struct OwnHandler
{
    OwnHandler()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++handled; };
        for (int i = 0; i < 2; ++i)
            sigaction(i == 0 ? SIGINT : SIGQUIT, &action, &before[i]);
    }
    ~OwnHandler()
    {
        sigaction(SIGINT, &before[0], nullptr);
        sigaction(SIGQUIT, &before[1], nullptr);
    }
    struct sigaction before[2];
};

} // namespace

TEST(pcInterruptEvent, IsSharedAndTakesBothKeysUntilLastIsDestroyed)
{
    const OwnHandler own;
    handled = 0;
    const long descriptors = openDescriptors();
    for (const int key : {SIGINT, SIGQUIT}) {
        Interrupt first = Make();
        const Interrupt second = Make();
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->getIsSignaled(), 0);

        errno = 77;
        raise(key);
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(first->Wait(5.0), 1);
        EXPECT_EQ(second->getIsSignaled(), 1);
        pcInterruptEvent::Reset();
        EXPECT_EQ(first->getIsSignaled() + second->getIsSignaled(), 0);

        first.reset();
        raise(key);
        EXPECT_EQ(second->getIsSignaled(), 1);
        EXPECT_EQ(handled, 0);
    }
    pcInterruptEvent::Reset(); // no effect without an event
    raise(SIGINT);
    raise(SIGQUIT);
    EXPECT_EQ(handled, 2);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(Make()->getIsSignaled(), 0); // a new one is not signaled by earlier keys
}

TEST(pcInterruptEvent, IsCreatedAndDestroyedWhileKeysArrive)
{
    const OwnHandler own;
    std::atomic<bool> done = false;
    std::thread keys([&] {
        while (!done)
            raise(SIGINT);
    });
    std::thread others([&] {
        while (!done)
            Make();
    });
    int signaled = 0;
    for (int i = 0; i < 2000; ++i)
        signaled += Make()->Wait(5.0);
    done = true;
    keys.join();
    others.join();
    EXPECT_EQ(signaled, 2000);
}
