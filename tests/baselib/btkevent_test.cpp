#include <sys/resource.h>
#include <unistd.h>

#include <qel/base/btkevent.h>
#include <qel/base/btkpipe.h>

#include "support/child.h"
#include "support/interrupt.h"
#include "support/test.h"

namespace {

struct Pipe
{
    Pipe() { EXPECT_TRUE(btkAnonymousPipe::Create(output, input)); }
    btkEvent* Readable() { return new btkEvent(new btkSelectEvent(input.Get(), 0)); }
    void Put() { EXPECT_EQ(btkWrite(output.Get(), "x", 1), 1u); }

    btkOutputPipe output;
    btkInputPipe input;
};

// An event over a descriptor; the test sets its state.
class ToldEvent : public btkBaseEvent
{
public:
    explicit ToldEvent(btkHandle input) : btkBaseEvent(input, btkReadable, true) {}

    State state = Ask;
    int asksUntilOn = 0; // calls until the state changes from AskAgain to On
    int falseAlarms = 0;

protected:
    State OnAsk() override
    {
        if (asksUntilOn > 0 && --asksUntilOn == 0)
            state = On;
        return state;
    }
    bool OnPolled(btkReadiness) override
    {
        if (falseAlarms == 0)
            return true;
        --falseAlarms;
        char taken;
        EXPECT_EQ(btkRead(GetWatch().handle, &taken, 1), 1);
        return false;
    }
};

double SecondsOf(auto work)
{
    const btkTimeval start = btkTimeval::Now();
    work();
    return (btkTimeval::Now() - start).ToSeconds();
}

} // namespace

TEST(btkEvent, WaitWithoutEventsEndsAtItsLimit)
{
    Pipe pipe;
    const std::unique_ptr<btkEvent> event(pipe.Readable());

    const double passed = SecondsOf([&] { EXPECT_EQ(btkEvent::Wait({event.get()}, btkTimeval(0.05)), 0); });
    EXPECT_GE(passed, 0.05);
    EXPECT_LT(passed, 5);

    EXPECT_EQ(btkEvent::Wait({}, btkTimeval(0.01)), 0);
    EXPECT_EQ(btkEvent::Wait({event.get()}, btkTimeval(-5.0)), 0);
}

TEST(btkEvent, WaitCountsAndMarksSignaledEvents)
{
    Pipe first, second, third;
    const std::unique_ptr<btkEvent> a(first.Readable()), b(second.Readable()), c(third.Readable());
    btkEvent never(nullptr), always(new btkAlwaysEvent);
    first.Put();
    third.output.Reset(); // the end of the input is readable, too

    EXPECT_EQ(btkEvent::Wait({a.get(), nullptr, b.get(), &never, c.get(), &always}, btkTimeval::Forever()),
              4 - 1);
    EXPECT_TRUE(a->WasSignaled());
    EXPECT_FALSE(b->WasSignaled());
    EXPECT_TRUE(c->WasSignaled());
    EXPECT_TRUE(always.WasSignaled());
    EXPECT_TRUE(a->IsSignaled());
    EXPECT_FALSE(b->IsSignaled());
    EXPECT_FALSE(never.IsSignaled());
    EXPECT_EQ(btkEvent::Wait({a.get()}, btkTimeval::Forever()), 1);
}

TEST(btkEvent, AnotherThreadEndsAWaitWithoutLimit)
{
    const btkHandle handle = Event_Create(false);
    btkEvent event(new btkEVENTEvent(handle));
    std::thread setter([&] { Event_Set(handle); });

    EXPECT_EQ(btkEvent::Wait({&event}, btkTimeval(std::numeric_limits<double>::infinity())), 1);

    setter.join();
    EXPECT_TRUE(event.IsSignaled()); // waiting resets nothing
    Event_Set(handle);
    Event_Reset(handle);
    EXPECT_FALSE(event.IsSignaled());
    Event_Reset(handle);
    EXPECT_FALSE(event.IsSignaled());
    Event_Free(handle);
}

TEST(btkEvent, InterruptedWaitKeepsItsLimit)
{
    Pipe pipe;
    const std::unique_ptr<btkEvent> event(pipe.Readable());
    Interrupter interrupter;
    const int before = Interrupter::interrupts;

    do { // a busy machine interrupts it seldom
        const double passed =
            SecondsOf([&] { EXPECT_EQ(btkEvent::Wait({event.get()}, btkTimeval(0.1)), 0); });

        EXPECT_GE(passed, 0.1);
        EXPECT_LT(passed, 5);
    } while (Interrupter::interrupts <= before + 5);
}

TEST(btkEvent, DerivedEventDecidesItsStateBesideItsDescriptor)
{
    Pipe pipe;
    auto* told = new ToldEvent(pipe.input.Get());
    btkEvent event(told);

    told->state = ToldEvent::On;
    EXPECT_EQ(btkEvent::Wait({&event}, btkTimeval::Forever()), 1);

    // Off although its descriptor is ready, until its state is read again.
    pipe.Put();
    told->state = ToldEvent::AskAgain;
    EXPECT_FALSE(event.IsSignaled());
    EXPECT_GE(SecondsOf([&] { EXPECT_EQ(btkEvent::Wait({&event}, btkTimeval(0.05)), 0); }), 0.05);
    told->asksUntilOn = 3;
    EXPECT_EQ(btkEvent::Wait({&event}, btkTimeval::Forever()), 1);

    told->state = ToldEvent::Ask;
    told->falseAlarms = 1;
    EXPECT_GE(SecondsOf([&] { EXPECT_EQ(btkEvent::Wait({&event}, btkTimeval(0.05)), 0); }), 0.05);
}

TEST(btkEvent, WaitsForMoreThanAThousandPipes)
{
    std::vector<std::unique_ptr<Pipe>> pipes;
    std::vector<std::unique_ptr<btkEvent>> events;
    btkEvent::List list;
    const std::size_t count =
        std::min<std::size_t>(1200, static_cast<std::size_t>(sysconf(_SC_OPEN_MAX)) / 2 - 50);
    for (std::size_t i = 0; i < count; ++i) {
        pipes.push_back(std::make_unique<Pipe>());
        events.emplace_back(pipes.back()->Readable());
        list.push_back(events.back().get());
    }
    std::thread writer([&] { pipes[count - 1]->Put(); });

    EXPECT_EQ(btkEvent::Wait(list, btkTimeval::Forever()), 1);
    EXPECT_TRUE(events[count - 1]->WasSignaled());
    EXPECT_FALSE(events[0]->WasSignaled());
    writer.join();
}

// The system polls no more entries at once than a process may open descriptors.
TEST(btkEvent, WaitsForMoreEventsThanDescriptorsMayBeOpened)
{
    EXPECT_EQ(runInChild([] {
                  std::vector<Pipe> pipes(40);
                  std::vector<std::unique_ptr<btkEvent>> events;
                  btkEvent::List list;
                  for (Pipe& pipe : pipes) {
                      for (int i = 0; i < 4; ++i)
                          list.push_back(events.emplace_back(pipe.Readable()).get());
                  }
                  // A limit below the number of entries, then also below the number of descriptors.
                  for (const rlim_t most : {100, 16}) {
                      const rlimit limit = {most, most};
                      setrlimit(RLIMIT_NOFILE, &limit);
                      bool isEarly = false;
                      if (SecondsOf([&] { isEarly = btkEvent::Wait(list, btkTimeval(0.1)) != 0; }) < 0.1 ||
                          isEarly)
                          return 1;
                      pipes[33].Put();
                      if (btkEvent::Wait(list, btkTimeval::Forever()) != 4 || !list[4 * 33]->WasSignaled() ||
                          list[0]->WasSignaled())
                          return 2;
                      char taken;
                      btkRead(pipes[33].input.Get(), &taken, 1);
                  }
                  return 0;
              }),
              0);
}
