// The event that signals changes of a file.

#include <qel/evteventarray.h>
#include <qel/platform/lasterror.h>

#include "monsupport.h"
#include "support/child.h"
#include "support/descriptors.h"
#include "support/resident.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

class MonitorChange : public testing::Test
{
protected:
    void SetUp() override
    {
        writer = CreateMonitor(path);
        writer->Int("int");
        writer->String("text", 4096 - 9 - 17 - 20 - 15);
        writer->Int("int across"); // its value crosses the end of the first page
        writer->String("text across", 4096);
        watcher = OpenMonitor(path);
        event.reset(watcher->ChangeEvent());
        ASSERT_NE(event, nullptr);
    }

    /// Waits for the event. True when it is signaled.
    bool IsOn() { return event->Wait(10.0) != 0; }
    bool IsQuiet() { return event->getIsSignaled() == 0; }
    int Read() { return watcher->Int("int")->getValue(); }
    std::string FailureOfReading()
    {
        return MonFailureOf([&] { Read(); });
    }

    TempDir dir;
    const std::string path = dir.path("m");
    Owned<monFile> writer;
    Owned<monFile> watcher;
    Owned<evtEvent> event;
};

} // namespace

TEST_F(MonitorChange, IsSignaledFromAnyChangeUntilTheNextRead)
{
    Read();
    EXPECT_TRUE(IsQuiet());
    EXPECT_EQ(event->Wait(0.05), 0);

    const auto change = [&](auto store) {
        store();
        EXPECT_TRUE(IsOn());
        EXPECT_TRUE(IsOn()); // waiting changes nothing
        Read();
        EXPECT_TRUE(IsQuiet());
    };
    monIntParam* const across = writer->Int("int across");
    for (int round = 0; round < 3; ++round) {
        change([&] { writer->Int("int")->setValue(round); });
        change([&] { across->setValue(round); });
        change([&] { writer->String("text across", 0)->setValue("long"); });
    }
    EXPECT_EQ(watcher->Int("int across")->getValue(), 2);

    // A page-crossing number added later, and one written by a fork or another opening.
    writer->String("filler", static_cast<int>(3 * 4096 - std::filesystem::file_size(path) - 22 - 15 - 2));
    change([&] { writer->Int("new"); });
    change([&] { writer->Int("new")->setValue(1); });
    change([&] { OpenMonitor(path)->Int("new")->setValue(2); });
    change([&] { EXPECT_EQ(ChildProcess([&] { return writer->Int("new")->setValue(3) - 3; }).wait(), 0); });
    // The watcher's own stores do not hide those of others.
    change([&] { watcher->Int("new")->setValue(4); });
    change([&] { writer->Int("new")->setValue(5); });
}

TEST_F(MonitorChange, LosesNoChangeBetweenTwoReads)
{
    writer->Int("int")->setValue(1);
    ASSERT_TRUE(IsOn());
    EXPECT_EQ(Read(), 1);
    writer->Int("int")->setValue(2);
    watcher->String("text", 0)->getValue(); // another value of the same round
    ASSERT_TRUE(IsOn());
    EXPECT_EQ(Read(), 2);
    EXPECT_TRUE(IsQuiet());

    // A change that was read before the event was checked is not signaled.
    writer->Int("int")->setValue(3);
    EXPECT_EQ(Read(), 3);
    EXPECT_TRUE(IsQuiet());
}

TEST_F(MonitorChange, JoinsAWaitAndIsSharedByTheEventsOfAFile)
{
    const long open = openDescriptors();
    const Owned<evtEvent> second(watcher->ChangeEvent());
    const Owned<monFile> other = OpenMonitor(path);
    const Owned<evtEvent> others(other->ChangeEvent());
    EXPECT_EQ(openDescriptors(), open + 2); // the other file and its watch
    const Owned<evtEventArray> all(evtEventArray::create());
    for (evtEvent* const each : {event.get(), second.get(), others.get()})
        all->append(each);
    EXPECT_EQ(evtEvent::Wait(all.get(), 0.0), 0);

    writer->Int("int")->setValue(5);
    EXPECT_EQ(evtEvent::Wait(all.get(), 10.0), 3);
    Read();
    EXPECT_EQ(evtEvent::Wait(all.get(), 10.0), 1);
    EXPECT_TRUE(others->WasSignaled());

    // They may outlive their file, and a wait for a closed one ends.
    watcher.reset();
    EXPECT_TRUE(IsOn());
    other->Close();
    EXPECT_NE(others->getIsSignaled(), 0);
    EXPECT_EQ(MonFailureOf([&] { delete other->ChangeEvent(); }), "Stream Error (iolib): stream not open");
}

TEST_F(MonitorChange, ReportsReplacementRemovalAndReturnOfTheFile)
{
    monIntParam* const old = writer->Int("int");
    const Owned<monFile> next = CreateMonitor(path, "next");
    EXPECT_TRUE(IsOn());
    EXPECT_EQ(FailureOfReading(), "monFile has shrunk!");
    EXPECT_TRUE(IsQuiet());
    ASSERT_TRUE(watcher->Reopen());
    EXPECT_TRUE(IsOn()); // not read yet
    EXPECT_EQ(CountOf(watcher->getParams()), 0);
    EXPECT_TRUE(IsQuiet());
    old->setValue(9);
    EXPECT_TRUE(IsQuiet());
    next->Int("int")->setValue(10);
    EXPECT_TRUE(IsOn());
    EXPECT_EQ(Read(), 10);

    std::filesystem::remove(path);
    EXPECT_TRUE(IsOn());
    EXPECT_EQ(FailureOfReading(), "monFile has shrunk!");
    EXPECT_EQ(event->Wait(0.05), 0);
    EXPECT_FALSE(watcher->Reopen());
    const Owned<monFile> last = CreateMonitor(path);
    EXPECT_TRUE(IsOn());
    ASSERT_TRUE(watcher->Reopen());
    last->Int("int")->setValue(11);
    EXPECT_EQ(Read(), 11);
    EXPECT_TRUE(IsQuiet());
}

TEST_F(MonitorChange, CannotBeCreatedWithoutADescriptor)
{
    if (!freedMemoryIsGone)
        GTEST_SKIP() << "a sanitizer needs descriptors itself";
    event.reset();
    {
        const DescriptorLimit limit(nextDescriptor());
        SetLastError(0);
        EXPECT_EQ(watcher->ChangeEvent(), nullptr);
        EXPECT_NE(GetLastError(), 0u);
        EXPECT_EQ(Read(), 0);
    }
    event.reset(watcher->ChangeEvent());
    ASSERT_NE(event, nullptr);
    writer->Int("int across")->setValue(1);
    EXPECT_TRUE(IsOn());
}

TEST_F(MonitorChange, IsSeparateInAForkedChild)
{
    Read();
    ASSERT_TRUE(IsQuiet());
    writer->Int("int")->setValue(6);
    const auto watch = [&] {
        for (int round = 0; round < 3; ++round) {
            if (!IsOn() || Read() != 6 || !IsQuiet())
                return 1 + round;
            writer->Int("int across")->setValue(round);
        }
        return 0;
    };
    EXPECT_EQ(ChildProcess(watch).wait(), 0);
    EXPECT_TRUE(IsOn()); // its parent's change is still pending
    Read();
    EXPECT_TRUE(IsQuiet());

    // Without a descriptor it reads, and does not wait in vain.
    EXPECT_EQ(ChildProcess([&] {
                  const DescriptorLimit limit(nextDescriptor());
                  return IsOn() ? 0 : 1;
              }).wait(),
              0);
}
