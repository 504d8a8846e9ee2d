#include <sys/socket.h>

#include <qel/base/nmsclient.h>
#include <qel/base/nmsshared.h>

#include "support/test.h"

namespace {

// A table whose keeper is the test.
class Shared : public testing::Test
{
protected:
    using Id = nmsTable::Id;

    Shared() { begin({}, 4, 2); }
    void begin(nmsSharingOptions options, std::size_t records, std::size_t recordsOfMachine)
    {
        options.records = records;
        options.recordsOfMachine = recordsOfMachine;
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
    // The keys that the keeper is asked for, the first and the last of each message.
    std::string asked()
    {
        std::string all;
        keeper.Receive([&](nmsStoreMessage kind, nmsPartReader parts) {
            if (kind != nmsStoreMessage::again)
                return;
            all += parts.TakeText() + '-';
            all += parts.TakeText() + ' ';
        });
        return all;
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
    void send(nmsStoreMessage kind, const std::string& parts = {})
    {
        keeper.Send(kind, parts);
        keeper.Flush();
        shared->Work(true);
    }
    void tellOther(const std::string& key, std::uint64_t revision, const nmsFields& record,
                   const std::string& host = "there")
    {
        std::string parts;
        nmsPutText(parts, key);
        nmsPutNumber(parts, revision);
        nmsPutText(parts, host);
        nmsPutRecord(parts, record);
        send(nmsStoreMessage::other, parts);
    }
    // A record of as many bytes, with its key as name.
    void tellOther(const std::string& key, std::size_t size, const std::string& host)
    {
        tellOther(key, 7, {1, {{"_ServerName", key}, {"v", std::string(size, 'x')}}}, host);
    }
    void tellGone(const std::string& key)
    {
        std::string part;
        nmsPutText(part, key);
        send(nmsStoreMessage::gone, part);
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
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "1");
    tellState(true);
    const auto found = shared->Find({0, {{"f0", ""}}});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(nmsPartReader(*found[0]).TakeRecord().fields.size(), 256U);

    // A record that is not sent again is dropped.
    send(nmsStoreMessage::reload);
    tellOther("k1", 8, {4711, {{"_ServerName", "far"}}});
    EXPECT_EQ(statusOf("RecordsOfOthers"), "2");
    send(nmsStoreMessage::loaded);
    tellState(false);
    EXPECT_EQ(statusOf("RecordsOfOthers"), "1");
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "0");
    tellGone("k1");
    EXPECT_EQ(everywhere("far"), "");
    tellOther(std::string(600, 'k'), 1, {1, {{"_ServerName", "no keeper's key"}}});
    EXPECT_EQ(statusOf("RecordsOfOthers"), "0");
}

TEST_F(Shared, RecordLeftOutIsCopiedOnceThereIsRoom)
{
    for (const char* const key : {"a1", "a2", "a3", "a4"})
        tellOther(key, key[1] == '4' ? 1 : 100, "a");
    for (const char* const key : {"b1", "b2", "b3"})
        tellOther(key, 1, "b");
    EXPECT_EQ(statusOf("RecordsOfOthers"), "4");
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "3");
    tellOther("c1", 1, "c"); // has no room because of the others' records
    tellGone("none");
    EXPECT_EQ(asked(), "");

    // Each machine keeps within its share, and what is asked for has room.
    tellGone("a1");
    EXPECT_EQ(asked(), "a4-a4 ");
    tellGone("a2");
    EXPECT_EQ(asked(), ""); // not yet
    tellOther("a4", 1, "a");
    send(nmsStoreMessage::sent);
    EXPECT_EQ(asked(), "a3-a3 ");
    tellOther("b1", 1, "b"); // sent once more: nothing has changed
    tellOther("d1", 1, "d"); // takes the room meanwhile
    tellOther("a3", 100, "a");
    send(nmsStoreMessage::sent);
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "3");
    EXPECT_EQ(asked(), "");
    tellGone("a3"); // it is no longer waited for
    tellGone("a4");
    EXPECT_EQ(asked(), "c1-c1 ");
    tellGone("c1");
    send(nmsStoreMessage::sent);
    tellGone("b1");
    EXPECT_EQ(asked(), "b3-b3 ");
    EXPECT_NE(everywhere("b2"), "");

    // A keeper that loads anew sends it all.
    send(nmsStoreMessage::reload);
    tellOther("b3", 1, "b");
    send(nmsStoreMessage::loaded);
    EXPECT_EQ(statusOf("RecordsOfOthers"), "1");
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "0");
}

TEST_F(Shared, BytesOfTheCopyAreLimitedForEachMachineAndInAll)
{
    nmsSharingOptions options;
    options.bytes = 700;
    begin(options, 8, 4);
    tellOther("a1", 250, "a"); // beyond the half, with its other fields
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "1");
    for (const char* const host : {"b", "c", "d"})
        tellOther(std::string(host) + '1', 150, host);
    EXPECT_EQ(statusOf("RecordsOfOthers"), "2");
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "2");
    EXPECT_LE(std::stoul(statusOf("BytesOfOthers")), 700U);
    tellState(false);
    auto held = shared->Find({}); // by a response
    tellGone("b1");
    EXPECT_EQ(asked(), "");
    held.clear();
    std::string keys;
    EXPECT_TRUE(soon([&] { return shared->Work(false), !(keys = asked()).empty(); }));
    EXPECT_EQ(keys, "d1-d1 ");
}

TEST_F(Shared, KeysBeyondTheListAreReadAnew)
{
    begin({}, 3, 1);
    for (const char* const key : {"a1", "a2", "a5", "a3", "a4"})
        tellOther(key, 1, "a");
    for (const char* const key : {"b1", "b2", "c1", "c2", "d2", "d1"})
        tellOther(key, 1, key[0] == 'c' ? "c" : std::string(1, key[0]));
    EXPECT_EQ(statusOf("RecordsOfOthersLeftOut"), "3"); // a2, b2, c2
    tellGone("a1");
    EXPECT_EQ(asked(), "a2-a2 ");
    tellOther("a2", 1, "a");
    send(nmsStoreMessage::sent);
    EXPECT_EQ(asked(), "a3-a5 "); // in its own list
    for (const char* const key : {"a3", "a4", "a5"})
        tellOther(key, 1, "a");
    send(nmsStoreMessage::sent);
    EXPECT_EQ(asked(), "");
    tellGone("b2");
    tellGone("c2");
    EXPECT_EQ(asked(), "a4-d2 "); // in the list of all
    send(nmsStoreMessage::sent);
    EXPECT_EQ(asked(), "");
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
    EXPECT_TRUE(soon([&] { return shared->Work(false), keeper.IsOpen(); }));
    EXPECT_EQ(heard(), (std::vector<int>{1, 3}));
}
