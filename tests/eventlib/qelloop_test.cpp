#include <qel/base/btktimeval.h>
#include <qel/qelloop.h>

#include "support/test.h"

using namespace std::chrono_literals;

TEST(WaitAny, ReturnsTheFirstSignaledEvent)
{
    qel::event a, b, c(true);

    EXPECT_EQ(qel::waitAny({&a, nullptr, &b}, 10ms), nullptr);
    EXPECT_EQ(qel::waitAny({}, 0), nullptr);
    std::thread setter([&] { b.set(); });
    EXPECT_EQ(qel::waitAny({&a, &b}), &b);
    setter.join();
    EXPECT_EQ(qel::waitAny({&a, &c, &b}, 0), &c);
    b.reset();
    EXPECT_EQ(qel::waitAny({&b}, 0), nullptr);
}

TEST(Loop, CallsFunctionsWhenEventsAreSignaledAndTimesHaveCome)
{
    qel::event ready;
    qel::loop loop;
    std::string calls;
    loop.on(ready, [&](evtEvent& signaled) {
        EXPECT_EQ(&signaled, &ready);
        ready.reset();
        calls += 'e';
        loop.after(1ms, [&] { loop.stop(); });
    });
    int ticks = 0;
    qel::loop::id ticking = 0;
    ticking = loop.every(0.001, [&] {
        if (++ticks == 3)
            loop.off(ticking), ready.set();
    });
    const qel::loop::id never = loop.after(INFINITE, [&] { calls += 'n'; });

    loop.run();
    loop.off(never);

    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(calls, "e");
}

TEST(Loop, StopFromAnyThreadEndsTheRunningOrTheNextRunOnce)
{
    qel::loop loop;
    loop.stop();
    loop.run();

    std::thread stopper;
    loop.after(0, [&] { stopper = std::thread([&] { loop.stop(); }); });
    loop.run();
    stopper.join();

    int calls = 0;
    qel::event always(true);
    loop.on(always, [&] {
        if (++calls == 3)
            loop.stop();
    });
    loop.on(always, [&] { ++calls; });
    loop.run();
    EXPECT_EQ(calls, 3) << "no function is called after a stop";
}

TEST(Loop, FunctionsMayRemoveThemselvesAndOthersAndThrow)
{
    qel::event always(true);
    qel::loop loop;
    std::string calls;
    qel::loop::id first = 0;
    qel::loop::id second = 0;
    first = loop.on(always, [&, kept = std::string("a long text, which is freed with the function")] {
        loop.off(first);
        loop.off(second);
        loop.off(99);
        calls += kept.front();
    });
    second = loop.on(always, [&] { calls += '2'; });
    loop.on(always, [&] {
        calls += 't';
        throw std::runtime_error("stop");
    });

    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_EQ(calls, "att");
}

TEST(Loop, LateCallsAreLeftOut)
{
    qel::event never;
    qel::loop loop;
    int calls = 0;
    const btkTimeval start = btkTimeval::Now();
    loop.every(0.02, [&] {
        if (++calls == 1)
            never.Wait(0.1);
        else
            loop.stop();
    });

    loop.run();

    EXPECT_EQ(calls, 2);
    EXPECT_GE((btkTimeval::Now() - start).ToSeconds(), 0.12) << "the calls during the first one";
}
