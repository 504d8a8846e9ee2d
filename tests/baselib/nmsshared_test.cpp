#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

#include <qel/base/nmsclient.h>
#include <qel/base/nmsshared.h>

namespace {

// A table whose keeper is the test.
class Shared : public testing::Test
{
protected:
    using Id = nmsTable::Id;

    Shared()
    {
        nmsSharingOptions options;
        options.recordsOfMachine = 2;
        options.connect = [this] {
            int ends[2] = {-1, -1};
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
            keeper = nmsChannel(btkFd(ends[1]));
            return btkFd(ends[0]);
        };
        shared.emplace(table, options);
        shared->Work(false);
    }
    Id enter(const std::string& name, const std::string& value)
    {
        Id id = 0;
        EXPECT_EQ(table.Add({0, {{"_ServerName", name}, {"v", value}}}, {}, {}, nmsTable::Hidden, id),
                  nmscDone);
        shared->Enter(id);
        shared->Work(false);
        return id;
    }
    // The kinds of the messages to the keeper.
    std::vector<int> heard()
    {
        std::vector<int> kinds;
        keeper.Receive([&](nmsStoreMessage kind, nmsPartReader) { kinds.push_back(static_cast<int>(kind)); });
        return kinds;
    }
    void tell(nmsStoreMessage kind, std::uint64_t number, const std::string& more = {})
    {
        std::string parts;
        nmsPutNumber(parts, number);
        keeper.Send(kind, parts + more);
        keeper.Flush();
        shared->Work(true);
    }
    void tellHeld(Id id, std::uint64_t revision)
    {
        std::string part;
        nmsPutNumber(part, revision);
        tell(nmsStoreMessage::held, id, part);
    }
    void tellState(bool isStale)
    {
        std::string part;
        nmsPutText(part, "because");
        tell(nmsStoreMessage::state, isStale ? 1 : 0, part);
    }
    void tellOther(const std::string& key, std::uint64_t revision, const nmsFields& record)
    {
        std::string parts;
        nmsPutText(parts, key);
        nmsPutNumber(parts, revision);
        nmsPutText(parts, "there");
        nmsPutRecord(parts, record);
        keeper.Send(nmsStoreMessage::other, parts);
        keeper.Flush();
        shared->Work(true);
    }
    // The matching records of all machines, as texts.
    std::string everywhere(const std::string& name)
    {
        std::string all;
        for (const auto& encoded : shared->Find({0, {{"_ServerName", name}}})) {
            const nmsFields record = nmsPartReader(*encoded).TakeRecord();
            all += std::to_string(record.owner);
            for (const auto& [field, value] : record.fields)
                all += ' ' + field + '=' + value;
            all += '\n';
        }
        return all;
    }
    std::string statusOf(const char* field)
    {
        nmsFields about;
        shared->Describe(about);
        const std::string* const found = about.Find(field);
        return found == nullptr ? "none" : *found;
    }

    nmsTable table;
    nmsChannel keeper;
    std::optional<nmsShared> shared;
};

using Results = std::vector<nmsShared::Result>;

} // namespace

TEST_F(Shared, RecordIsThereOnceTheStoreHoldsIt)
{
    EXPECT_EQ(heard(), (std::vector<int>{3}));
    const Id id = enter("words", "1");
    EXPECT_EQ(heard(), (std::vector<int>{1}));
    EXPECT_TRUE(table.Find({}).empty());
    EXPECT_TRUE(shared->TakeResults().empty());
    tellHeld(id, 5);
    tellState(false);
    EXPECT_EQ(shared->TakeResults(), (Results{{id, nmscDone}}));
    EXPECT_EQ(everywhere("words"), "0 _ServerName=words v=1 _Revision=5\n");

    table.Remove({0, {{"v", "1"}}});
    shared->Work(false);
    EXPECT_EQ(heard(), (std::vector<int>{2}));
    EXPECT_TRUE(shared->TakeResults().empty());
    tell(nmsStoreMessage::left, id);
    EXPECT_EQ(shared->TakeResults(), (Results{{id, nmscDone}}));

    const Id taken = enter("words", "2");
    tell(nmsStoreMessage::taken, taken);
    EXPECT_EQ(shared->TakeResults(), (Results{{taken, nmscExists}}));
    EXPECT_EQ(table.GetSize(), 0U);
    tell(nmsStoreMessage::held, taken); // too late, and incomplete
    EXPECT_TRUE(shared->TakeResults().empty());
}

TEST_F(Shared, DisplacedRecordIsInNoAnswerForAllMachines)
{
    tellState(false);
    const Id id = enter("words", "1");
    tellHeld(id, 5);
    tell(nmsStoreMessage::taken, id);
    EXPECT_EQ(everywhere("words"), "");
    EXPECT_EQ(table.Find({}).size(), 1U);
    EXPECT_EQ(statusOf("DisplacedNames"), "words");
    tellHeld(id, 9);
    EXPECT_EQ(everywhere("words"), "0 _ServerName=words v=1 _Revision=9\n");
    EXPECT_EQ(statusOf("Displaced"), "0");

    const Id forger = enter("words\nforged line", "1");
    tellHeld(forger, 10);
    testing::internal::CaptureStderr();
    tell(nmsStoreMessage::taken, forger);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "name server: displaced: another machine has the name words\\x0aforged line now\n");
}

TEST_F(Shared, CopyFollowsTheStoreWithinItsLimits)
{
    tellOther("k1", 7, {4711, {{"_ServerName", "far"}, {"_HostName", "forged"}}});
    EXPECT_EQ(everywhere("far"), "0 _ServerName=far _HostName=there _Revision=7 _Stale=1\n");
    tellState(false);
    tellOther("k1", 8, {4711, {{"_ServerName", "far"}}});
    EXPECT_EQ(everywhere("far"), "0 _ServerName=far _HostName=there _Revision=8\n");
    EXPECT_TRUE(table.Find({}).empty());

    nmsFields most;
    for (int i = 0; i < 256; ++i)
        most.Set("f" + std::to_string(i), "");
    tellOther("k2", 9, most);
    tellOther("k3", 10, {1, {{"_ServerName", "third"}}});
    EXPECT_EQ(statusOf("RecordsOfOthers"), "2");
    EXPECT_EQ(statusOf("RecordsOfOthersRefused"), "1");
    tellState(true);
    const auto found = shared->Find({0, {{"f0", ""}}});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(nmsPartReader(*found[0]).TakeRecord().fields.size(), 256U);

    // A record that is not sent again is dropped.
    keeper.Send(nmsStoreMessage::reload);
    tellOther("k1", 8, {4711, {{"_ServerName", "far"}}});
    EXPECT_EQ(statusOf("RecordsOfOthers"), "2");
    keeper.Send(nmsStoreMessage::loaded);
    tellState(false);
    EXPECT_EQ(statusOf("RecordsOfOthers"), "1");
    std::string key;
    nmsPutText(key, "k1");
    keeper.Send(nmsStoreMessage::gone, key);
    tellState(false);
    EXPECT_EQ(everywhere("far"), "");
}

TEST_F(Shared, KeeperThatHasExitedIsReplacedAndGetsAllRecords)
{
    tellState(false);
    const Id id = enter("words", "1");
    tellHeld(id, 5);
    keeper = nmsChannel();
    shared->Work(true);
    EXPECT_EQ(statusOf("StoreStale"), "1");
    EXPECT_EQ(everywhere("words"), "0 _ServerName=words v=1 _Revision=5 _Stale=1\n");
    const btkTimeval end = btkTimeval::Now() + btkTimeval(20.0);
    while (!keeper.IsOpen() && btkTimeval::Now() < end)
        shared->Work(false);
    EXPECT_EQ(heard(), (std::vector<int>{1, 3}));
}
