#include <ctime>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/failingmalloc.h"
#include <qel/base/btktimeval.h>
#include <qel/base/nmstable.h>
#include <sys/resource.h>

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

TEST(NameTable, FindsByAnyFieldsInTheOrderOfAdding)
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

TEST(NameTable, RefusesTheSameFieldsTwice)
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
    EXPECT_EQ(table.Add(Record("n", "4")), nmscDone);
    EXPECT_EQ(table.Add(Record("n", std::string(200, 'x'))), nmscInternal);
    EXPECT_EQ(table.Add(Record("n", "5")), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "6")), nmscDone);
    EXPECT_EQ(table.Add(Record("n", "7")), nmscInternal);
    EXPECT_EQ(table.Remove(Record("n", "1")), 1u);
    EXPECT_EQ(table.Add(Record("n", "8", self)), nmscDone);
}

TEST(NameTable, CountsWhatAnswersStillHold)
{
    nmsTable table({.bytes = 300});
    ASSERT_EQ(table.Add(Record("n", std::string(200, 'x'))), nmscDone);
    auto answer = table.Find({});
    ASSERT_EQ(table.Remove({}), 1u);

    EXPECT_EQ(table.Add(Record("n", std::string(200, 'y'))), nmscInternal);
    answer.clear();
    EXPECT_EQ(table.Add(Record("n", std::string(200, 'y'))), nmscDone);
}

// A client could keep the name server from the others with a few requests if this multiplied.
TEST(NameTable, ManyFieldsThatAllRecordsHaveCostLittle)
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

TEST(NameTable, DropsTheRecordsOfAProcessWithIt)
{
    nmsTable table;
    for (int i = 0; i < 100; ++i) {
        ChildProcess server(Sleeping);
        ASSERT_EQ(table.Add(Record("name", "server", Id(server))), nmscDone) << i;
        ASSERT_EQ(table.Find(Record("name", "server")).size(), 1u);
        server.signal(SIGKILL);
        siginfo_t ended;
        waitid(P_PID, Id(server), &ended, WEXITED | WNOWAIT); // not collected: the id is still taken
        EXPECT_TRUE(table.Find(Record("name", "server")).empty());
        EXPECT_EQ(table.Add(Record("name", "server", Id(server))), nmscNotAllowed);
    }
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(table.Add(Record("name", "server", 0xFFFFFFFF)), nmscNotAllowed);
}

TEST(NameTable, DropsThemAlsoWithoutDescriptorsLeft)
{
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few = {3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    nmsTable table; // may spend one at most
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

TEST(NameTable, StaysAsItIsWhenThereIsNoMemoryForARecord)
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
