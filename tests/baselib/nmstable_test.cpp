#include <ctime>
#include <sys/resource.h>
#include <unistd.h>

#include <qel/base/nmstable.h>

#include "support/child.h"
#include "support/failingmalloc.h"
#include "support/test.h"

namespace {

nmsFields Record(const std::string& name, const std::string& value, std::uint32_t owner = 0)
{
    nmsFields made;
    made.owner = owner;
    made.Set(name, value);
    return made;
}

std::uint32_t Id(const ChildProcess& child)
{
    return static_cast<std::uint32_t>(child.getId());
}

int Sleeping()
{
    pause();
    return 0;
}

} // namespace

TEST(NameTable, FindsByAnyFieldsInInsertionOrder)
{
    nmsTable table;
    for (int i = 0; i < 100; ++i) {
        nmsFields record = Record("name", "s" + std::to_string(i));
        record.Set("kind", i % 2 == 0 ? "even" : "odd");
        record.Set("all", "yes");
        ASSERT_EQ(table.Add(std::move(record)), nmscDone);
    }
    nmsFields both = Record("kind", "odd");
    both.Set("name", "s7");

    EXPECT_EQ(table.Find({}).size(), 100u);
    EXPECT_EQ(table.Find(both).size(), 1u);
    EXPECT_EQ(table.Remove(Record("kind", "even")), 50u);
    const auto rest = table.Find(Record("all", "yes"));
    ASSERT_EQ(rest.size(), 50u);
    EXPECT_NE(rest[1]->find("s3"), std::string::npos);
    EXPECT_TRUE(table.Find(Record("name", "s4")).empty());
    EXPECT_TRUE(table.Find(Record("name", "s*")).empty());
    EXPECT_TRUE(table.Find(Record("s3", "name")).empty());
    EXPECT_EQ(table.Remove({}), 50u);
    EXPECT_EQ(table.GetSize(), 0u);
}

TEST(NameTable, RejectsDuplicateRecords)
{
    nmsTable table;
    EXPECT_EQ(table.Add(Record("name", "a")), nmscDone);
    EXPECT_EQ(table.Add(Record("name", "a", static_cast<std::uint32_t>(getpid()))), nmscExists);
    nmsFields more = Record("name", "a");
    more.Set("port", "1");
    EXPECT_EQ(table.Add(std::move(more)), nmscDone);
}

TEST(NameTable, KeepsWithinItsLimits)
{
    const auto self = static_cast<std::uint32_t>(getpid());
    nmsTable table({.records = 5, .recordsOfOwner = 2, .bytes = 200});
    EXPECT_EQ(table.Add(Record("n", "1", self)), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "2", self)), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "3", self)), nmscInternal);
    const ChildProcess other(Sleeping);
    EXPECT_EQ(table.Add(Record("n", std::string(200, 'x'), Id(other))), nmscInternal);
    EXPECT_EQ(table.Add(Record("n", "4", Id(other))), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "5", Id(other))), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "6")), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "7")), nmscInternal);
    EXPECT_EQ(table.Remove(Record("n", "1")), 1u);
    EXPECT_EQ(table.Add(Record("n", "8", self)), nmscDone);
    EXPECT_EQ(table.GetUse().refused, 3u);
}

TEST(NameTable, ReservesRoomForProcessesWhateverOthersRegister)
{
    const auto self = static_cast<std::uint32_t>(getpid());
    nmsTable table({.records = 40, .recordsOfPeer = 6, .bytes = 4000});
    const auto fill = [&](const std::string& peer) {
        int added = 0;
        while (table.Add(Record(peer, std::to_string(added)), peer) == nmscDone)
            ++added;
        return added;
    };
    EXPECT_EQ(fill("10.0.0.1"), 6);
    EXPECT_STREQ(table.GetUse().lastRefusal, "an address has as many records of no process as it may");
    EXPECT_EQ(fill("10.0.0.2"), 4); // a quarter each
    EXPECT_STREQ(table.GetUse().lastRefusal, "the records of no process have their whole share");
    EXPECT_EQ(table.GetUse().recordsWithoutOwner, 10u);
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ(table.Add(Record("of process", std::to_string(i), self)), nmscDone) << i;

    EXPECT_EQ(table.Remove(Record("10.0.0.1", "3")), 1u);
    EXPECT_EQ(table.Add(Record("n", "one"), "10.0.0.1"), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "two"), "10.0.0.1"), nmscInternal);
    EXPECT_EQ(table.Remove({}), 40u);
    EXPECT_EQ(table.Add(Record("n", std::string(240, 'x'))), nmscDone);
    for (const char* const name : {"a", "b", "c"})
        table.Add(Record(name, std::string(240, 'x')));
    EXPECT_EQ(table.GetSize(), 3u) << "a quarter of the bytes";
}

TEST(NameTable, OnlyOneLivingProcessHasAName)
{
    const auto self = static_cast<std::uint32_t>(getpid());
    const auto twin = [](std::uint32_t owner, const char* port) {
        nmsFields record = Record("_ServerName", "twin", owner);
        record.Set("_PortNumber", port);
        return record;
    };
    for (const bool shared : {false, true}) {
        nmsTable table({.areNamesShared = shared});
        ChildProcess other(Sleeping);
        EXPECT_EQ(table.Add(twin(0, "1")), nmscDone);
        EXPECT_EQ(table.Add(twin(Id(other), "2")), nmscDone);
        EXPECT_EQ(table.Add(twin(self, "3")), shared ? nmscDone : nmscExists);
        EXPECT_EQ(table.Add(twin(Id(other), "4")), nmscDone);
        EXPECT_EQ(table.Add(twin(0, "5")), nmscDone);
        other.signal(SIGKILL);
        other.wait();
        EXPECT_EQ(table.Add(twin(self, "6")), nmscDone);
    }
}

TEST(NameTable, IsRestoredWithoutRecordsOfExitedProcesses)
{
    const auto self = static_cast<std::uint32_t>(getpid());
    std::string saved;
    ChildProcess ends(Sleeping);
    {
        nmsTable table;
        EXPECT_EQ(table.Add(Record("n", "1", self)), nmscDone);
        EXPECT_EQ(table.Add(Record("n", "2", Id(ends))), nmscDone);
        EXPECT_EQ(table.Add(Record("n", "3"), std::string("\0\1", 2)), nmscDone);
        saved = table.Save();
    }
    ends.signal(SIGKILL);
    ends.wait();

    nmsTable table({.recordsOfPeer = 1});
    EXPECT_TRUE(table.Restore(saved));
    ASSERT_EQ(table.GetSize(), 2u);
    EXPECT_EQ(table.Find({})[0], table.Find(Record("n", "1"))[0]) << "in the same order";
    EXPECT_EQ(table.Add(Record("n", "4"), std::string("\0\1", 2)), nmscInternal) << "its address is known";

    // A process with the same id that started at another time is a different one.
    std::string other = saved;
    const std::size_t start = other.find("\n") + 1 + 4 + 37 + 4 + 4; // mark, id of the run, number, length
    other[start] = other[start] == '1' ? '2' : '1';
    nmsTable strict;
    EXPECT_TRUE(strict.Restore(other));
    EXPECT_EQ(strict.GetSize(), 1u);

    // A truncated or damaged file adds the records before the damage, and the damage is reported.
    for (std::size_t size = 0; size < saved.size(); ++size) {
        nmsTable part;
        EXPECT_FALSE(part.Restore(saved.substr(0, size))) << size;
        EXPECT_LE(part.GetSize(), 2u);
    }
    EXPECT_FALSE(nmsTable().Restore(saved + "x"));
    EXPECT_FALSE(nmsTable().Restore("something else"));
}

TEST(NameTable, CountsRecordsThatRepliesStillHold)
{
    const auto self = static_cast<std::uint32_t>(getpid());
    nmsTable table({.bytes = 300});
    ASSERT_EQ(table.Add(Record("n", std::string(200, 'x'), self)), nmscDone);
    auto answer = table.Find({});
    ASSERT_EQ(table.Remove({}), 1u);

    EXPECT_EQ(table.Add(Record("n", std::string(200, 'y'), self)), nmscInternal);
    answer.clear();
    EXPECT_EQ(table.Add(Record("n", std::string(200, 'y'), self)), nmscDone);
}

// If the cost multiplied, a client could block the name server for others with a few requests.
TEST(NameTable, FieldsSharedByAllRecordsCostLittle)
{
    constexpr int records = 500;
    nmsFields shared;
    for (int i = 0; i < 200; ++i)
        shared.Set("field" + std::to_string(i), "same");
    nmsTable table;
    for (int i = 0; i < records; ++i) {
        nmsFields record = shared;
        record.Set("own", std::to_string(i));
        ASSERT_EQ(table.Add(std::move(record)), nmscDone);
    }

    const std::clock_t start = std::clock();
    EXPECT_EQ(table.Find(shared).size(), 1u * records);
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 10);
    EXPECT_EQ(table.Remove(shared), 1u * records);
}

TEST(NameTable, DropsTheRecordsOfAnExitedProcess)
{
    nmsTable table;
    for (int i = 0; i < 100; ++i) {
        ChildProcess server(Sleeping);
        ASSERT_EQ(table.Add(Record("name", "server", Id(server))), nmscDone) << i;
        ASSERT_EQ(table.Find(Record("name", "server")).size(), 1u);
        server.signal(SIGKILL);
        siginfo_t ended;
        waitid(P_PID, Id(server), &ended, WEXITED | WNOWAIT); // not reaped: the id is still in use
        EXPECT_TRUE(table.Find(Record("name", "server")).empty());
        EXPECT_EQ(table.Add(Record("name", "server", Id(server))), nmscNotAllowed);
    }
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(table.Add(Record("name", "server", 0xFFFFFFFF)), nmscNotAllowed);
}

TEST(NameTable, DropsThemAlsoWhenDescriptorsRunOut)
{
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few = {3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    nmsTable table; // may use one at most
    setrlimit(RLIMIT_NOFILE, &before);

    ChildProcess first(Sleeping);
    ChildProcess second(Sleeping);
    EXPECT_EQ(table.Add(Record("name", "first", Id(first))), nmscDone);
    EXPECT_EQ(table.Add(Record("name", "second", Id(second))), nmscDone);
    EXPECT_EQ(table.Find({}).size(), 2u);
    second.signal(SIGKILL);
    second.wait();
    EXPECT_EQ(table.Find({}).size(), 1u);
    EXPECT_EQ(table.GetSize(), 1u);
}

TEST(NameTable, IsUnchangedWhenMemoryForARecordRunsOut)
{
    const auto own = static_cast<std::uint32_t>(getpid());
    const nmsFields added = Record("name", "new");
    nmsTable table;
    ASSERT_EQ(table.Add(Record("kind", "same")), nmscDone);
    for (long after = 0;; ++after) {
        nmsFields record = Record("name", "new", own);
        record.Set("kind", "same");
        bool isThrown = false;
        {
            const failing::Failing memory(after, false);
            try {
                EXPECT_EQ(table.Add(std::move(record)), nmscDone);
            } catch (const std::bad_alloc&) {
                isThrown = true;
            }
        }
        ASSERT_EQ(isThrown, failing::Failing::happened()) << after;
        ASSERT_EQ(table.Find(added).size(), isThrown ? 0u : 1u) << after;
        ASSERT_EQ(table.Find(Record("kind", "same")).size(), isThrown ? 1u : 2u) << after;
        if (!isThrown)
            break;
    }
    EXPECT_EQ(table.Remove(added), 1u);
    EXPECT_EQ(table.Remove({}), 1u);
}
