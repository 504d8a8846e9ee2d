#include <qel/base/btktimeval.h>
#include <qel/evteventarray.h>
#include <qel/qelloop.h>

#include "support/test.h"

namespace {

std::unique_ptr<evtEventArray, qelDelete> ArrayOf(std::initializer_list<evtEvent*> events)
{
    std::unique_ptr<evtEventArray, qelDelete> array(evtEventArray::create());
    for (evtEvent* const event : events)
        array->append(event);
    return array;
}

} // namespace

TEST(evtEvent, WaitsForAnyOfAnArray)
{
    qel::event a, b, c;
    const auto array = ArrayOf({&a, nullptr, &b, &c});
    EXPECT_EQ(evtEvent::Wait(array.get(), 0.01), 0);

    std::thread setter([&] { b.set(); });
    EXPECT_EQ(evtEvent::Wait(array.get(), INFINITE), 1);
    setter.join();
    EXPECT_EQ(a.getIsSignaled(), 0);
    EXPECT_EQ(b.getIsSignaled(), 1);
    c.set();
    EXPECT_EQ(evtEvent::Wait(array.get(), 1e300), 2);
    EXPECT_EQ(b.Wait(INFINITE), 1);
    EXPECT_EQ(a.Wait(-3.0), 0);
}

TEST(evtEvent, WaitOnNoEventsEndsAtItsLimit)
{
    const auto empty = ArrayOf({});
    for (evtEventArray* const array : {empty.get(), static_cast<evtEventArray*>(nullptr)}) {
        const btkTimeval start = btkTimeval::Now();
        EXPECT_EQ(evtEvent::Wait(array, 0.05), 0);
        const double passed = (btkTimeval::Now() - start).ToSeconds();
        EXPECT_GE(passed, 0.05);
        EXPECT_LT(passed, 5);
    }
}

TEST(evtRemoveEvent, RemovesEveryOccurrence)
{
    qel::event a, b, c, d;
    const auto array = ArrayOf({&a, &b, &a, &a, &c});

    evtRemoveEvent(array.get(), &d);
    EXPECT_EQ(array->getarraysize(), 5);
    evtRemoveEvent(array.get(), &a);
    ASSERT_EQ(array->getarraysize(), 2);
    EXPECT_EQ(array->get(0), &b);
    EXPECT_EQ(array->get(1), &c);
}
