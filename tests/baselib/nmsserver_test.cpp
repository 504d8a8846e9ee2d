#include <sched.h>

#include <qel/base/btkpeeruser.h>
#include <qel/base/nmsclient.h>

#include "support/child.h"
#include "support/closedport.h"
#include "support/descriptors.h"
#include "support/interrupt.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

constexpr btkTimeval Patience(10, 0);

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

// One client of the name server of this machine.
class Client
{
public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { nmsServDelete(&proxy); }

    int ping() { return codeOf(nmsServPing(proxy)); }
    int shutdown() { return codeOf(nmsServShutdown(proxy)); }
    int enter(const std::string& name, const std::string& value, int owner = 0)
    {
        Record record(name, value, owner);
        return codeOf(nmsServRegister(proxy, record.held));
    }
    int remove(const std::string& name, const std::string& value, int& count)
    {
        Record record(name, value, 0);
        return codeOf(nmsServRemove(proxy, record.held, &count));
    }
    int query(const std::string& name, const std::string& value, int& count)
    {
        Record record(name, value, 0);
        capi_nmsRecordArray* found = nullptr;
        const int code = codeOf(nmsServQuery(proxy, record.held, &found, &count));
        for (int i = 0; i < count; ++i)
            if (value != nmsRecGetFieldValueByName(nmsRecArrGetByIndex(found, i), name.c_str()))
                ADD_FAILURE() << "a wrong record";
        EXPECT_EQ(nmsRecArrGetByIndex(found, count), nullptr);
        nmsRecArrDelete(&found);
        return code;
    }

private:
    struct Record
    {
        Record(const std::string& name, const std::string& value, int owner) : held(nmsRecCreate(owner))
        {
            nmsRecAdd(held, name.c_str(), value.c_str());
        }
        ~Record() { nmsRecDelete(&held); }
        Record(const Record&) = delete;
        Record& operator=(const Record&) = delete;
        capi_nmsRecord* held;
    };

    static int codeOf(capi_nmsError* error)
    {
        const int code = error == nullptr ? 0 : nmsErrGetCode(error);
        nmsErrDelete(&error);
        return code;
    }

    capi_nmsServerProxy* proxy = nmsServConnectLocal();
};

std::string Request(nmsRequestCode code, const std::string& rest = {})
{
    std::string bytes;
    nmsPutFrame(bytes, code);
    return bytes + rest;
}

// The server's reply to these bytes, until it closes the connection.
std::string AnswerTo(int port, const std::string& bytes)
{
    btkStreamSocket socket;
    if (!socket.Connect("127.0.0.1", port, Patience))
        return "no connection";
    socket.SetRecvLimit(Patience);
    socket.Send(bytes.data(), bytes.size());
    std::string answer(4096, 0);
    answer.resize(socket.RecvAll(answer.data(), answer.size()));
    return answer;
}

// Returns the result of `work`, a request of a client of another user, in a child process.
template<typename Work>
int AsUser(uid_t user, Work work)
{
    return runInChild([&] {
        Client client;
        return setuid(user) == 0 ? work(client) : 100;
    });
}

} // namespace

TEST(NameServer, RepliesMatchTheProtocolByteByByte)
{
    TestNameServer server;
    const int port = server.getPort();
    const std::string empty(8, 0);
    std::string negative;
    nmsPutInt(negative, 0);
    nmsPutInt(negative, -1);

    EXPECT_EQ(AnswerTo(port, Request(nmsRequestCode::ping)), std::string(1, 0));
    EXPECT_EQ(AnswerTo(port, Request(nmsRequestCode::query, empty)), std::string(5, 0));
    EXPECT_EQ(AnswerTo(port, Request(nmsRequestCode::remove, empty)), std::string("\5\0\0\0\0", 5));
    EXPECT_EQ(AnswerTo(port, Request(nmsRequestCode::remove, negative)), std::string("\10\0\0\0\0", 5));
    EXPECT_EQ(AnswerTo(port, Request(nmsRequestCode::enter, negative + std::string(100000, 'x'))), "\10");
    EXPECT_EQ(AnswerTo(port, Request(static_cast<nmsRequestCode>(99))), "\3");
    EXPECT_EQ(AnswerTo(port, "GET / HTTP/1.0\r\n\r\n"), "\3");
}

TEST(NameServer, ClosesClientsThatExceedTheirTime)
{
    const long descriptorsBefore = openDescriptors();
    {
        TestNameServer server({.requestLimit = btkTimeval(1, 0)});
        std::vector<std::unique_ptr<btkStreamSocket>> others;
        const std::string parts[] = {"", Request(nmsRequestCode::query).substr(0, 3),
                                     Request(nmsRequestCode::enter, std::string(7, 0))};
        for (int i = 0; i < 30; ++i) {
            auto& other = others.emplace_back(std::make_unique<btkStreamSocket>());
            ASSERT_TRUE(other->Connect("127.0.0.1", server.getPort(), Patience));
            const std::string& part = parts[i % 3];
            other->Send(part.data(), part.size());
            if (i % 4 == 0)
                other->ShutdownOutput();
        }
        for (const auto& other : others) {
            char byte = 0;
            other->SetRecvLimit(Patience);
            const std::ptrdiff_t got = other->Recv(&byte, 1);
            EXPECT_TRUE(got == 0 || (got < 0 && errno == ECONNRESET)) << "not closed";
        }
    }
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

// A reply that its client reads late arrives whole, too.
TEST(NameServer, SendsALargeReply)
{
    TestNameServer server({.table = {.recordsOfPeer = 2000}});
    Client client;
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(client.enter("n" + std::to_string(i), std::string(250, 'x')), 0);
    btkStreamSocket late;
    ASSERT_TRUE(late.Connect("127.0.0.1", server.getPort(), Patience));
    const std::string all = Request(nmsRequestCode::query, std::string(8, 0));
    late.Send(all.data(), all.size());
    EXPECT_EQ(client.ping(), 0);
    std::string answer(1 << 20, 0);
    std::string last;
    nmsPutText(last, "n1999", 6, 5, 256);
    answer.resize(late.RecvAll(answer.data(), answer.size()));
    ASSERT_GT(answer.size(), 2000u * 250);
    EXPECT_EQ(nmsGetInt(answer.data() + 1), 2000);
    EXPECT_EQ(answer.find(last), answer.size() - last.size() - 8 - 250);
}

// Each client checks every reply about names that only it uses, and that only one client gets a shared name.
TEST(NameServer, NeitherLosesNorDuplicatesRecords)
{
    TestNameServer server;
    constexpr int clients = 64;
    const int rounds = ofALongRun(60, 47000); // 3 million requests
    std::vector<std::atomic<int>> sharedCount(10);
    std::atomic<int> faults = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < clients; ++number)
        threads.emplace_back([&, number] {
            Client client;
            std::minstd_rand random(static_cast<unsigned>(number) + 1);
            std::set<std::string> mine;
            for (int i = 0; i < rounds; ++i) {
                const std::string name = std::to_string(number) + "." + std::to_string(random() % 5);
                const std::size_t shared = random() % sharedCount.size();
                int count = 0;
                switch (random() % 4) {
                case 0:
                    faults += client.enter("mine", name) != (mine.insert(name).second ? 0 : nmscExists);
                    break;
                case 1: {
                    const bool has = mine.erase(name) == 1;
                    faults += client.remove("mine", name, count) != (has ? 0 : nmscNotFound);
                    faults += count != has;
                    break;
                }
                case 2:
                    faults += client.query("mine", name, count) != 0;
                    faults += static_cast<std::size_t>(count) != mine.count(name);
                    break;
                default: {
                    const int code = client.enter("shared", std::to_string(shared));
                    if (code == 0)
                        ++sharedCount[shared];
                    else
                        faults += code != nmscExists;
                }
                }
            }
            for (const std::string& name : mine) {
                int count = 0;
                faults += client.remove("mine", name, count) != 0 || count != 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(faults, 0);
    Client client;
    for (std::size_t i = 0; i < sharedCount.size(); ++i) {
        int count = 0;
        EXPECT_EQ(client.query("shared", std::to_string(i), count), 0);
        EXPECT_EQ(count, sharedCount[i]);
        EXPECT_LE(count, 1);
    }
}

TEST(NameServer, LocalUsersControlTheirOwnRecordsOnly)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot become another user";
    TestNameServer server;
    ASSERT_TRUE(server.isListening());
    Client superuser;
    const ChildProcess others([] { return setuid(1002) == 0 ? pause() : 1; });
    while (btkGetUserOfProcess(static_cast<unsigned>(others.getId())) != 1002U)
        std::this_thread::yield();
    ASSERT_EQ(superuser.enter("_ServerName", "root's", 1), 0);
    ASSERT_EQ(superuser.enter("root's", "of no process"), 0);
    ASSERT_EQ(superuser.enter("_ServerName", "other's", others.getId()), 0) << "the superuser is believed";

    int count = 0;
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.enter("_ServerName", "mine", 1); }), 0) << "its own";
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.enter("of no process", "mine"); }), 0);
    EXPECT_EQ(AsUser(1001, [](Client& c) { return c.enter("_ServerName", "x", getppid()); }), nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.enter("_ServerName", "x", others.getId()); }),
              nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [](Client& c) { return c.shutdown(); }), nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("_ServerName", "root's", count); }),
              nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("_ServerName", "other's", count); }),
              nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("root's", "of no process", count); }),
              nmscNotAllowed);
    EXPECT_EQ(AsUser(1002, [&](Client& c) { return c.remove("of no process", "mine", count); }),
              nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("absent", "", count); }), nmscNotFound);
    EXPECT_EQ(AsUser(1002, [&](Client& c) { return c.remove("_ServerName", "other's", count); }), 0);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("of no process", "mine", count); }), 0);

    EXPECT_EQ(superuser.query("_ServerName", "root's", count), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(superuser.shutdown(), 0);
    server.waitForEnd();
}

TEST(NameServer, BelievesLocalClientsWhereTheirUsersAreNotReported)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has a thread of its own, with which no user namespace can be entered";
#endif
    // In a user namespace without users, all of them are nobody.
    expectSuccessInChild("this machine has no user namespaces for another user", [] {
        if (unshare(CLONE_NEWUSER) != 0)
            return notAllowed;
        TestNameServer server;
        Client client;
        int count = 0;
        if (client.enter("_ServerName", "a", 1) != 0 || client.enter("n", "1") != 0)
            return 1;
        if (client.remove("_ServerName", "a", count) != 0 || client.shutdown() != 0)
            return 2;
        server.waitForEnd();
        return 0;
    });
}

TEST(NameServer, OwnersOfRestoredRecordsAreKept)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "cannot become another user";
    const TempDir folder;
    const std::string path = folder.path() + "/state";
    int count = 0;
    {
        TestNameServer server({.stateFile = path});
        ASSERT_EQ(AsUser(1001, [&](Client& c) { return c.enter("n", "1"); }), 0);
        ASSERT_EQ(Client().enter("n", "2", 1), 0);
    }
    TestNameServer server({.stateFile = path});
    EXPECT_EQ(AsUser(1002, [&](Client& c) { return c.remove("n", "1", count); }), nmscNotAllowed);
    EXPECT_EQ(AsUser(1002, [&](Client& c) { return c.remove("n", "2", count); }), nmscNotAllowed);
    EXPECT_EQ(AsUser(1001, [&](Client& c) { return c.remove("n", "1", count); }), 0);
}

TEST(NameServer, NameIsFreeOnceItsServerIsKilled)
{
    TestNameServer server;
    Client client;
    const int kills = ofALongRun(100, 500);
    for (int i = 0; i < kills; ++i) {
        ChildProcess holder([] {
            pause();
            return 0;
        });
        ASSERT_EQ(client.enter("_ServerName", "x", holder.getId()), 0) << i;
        holder.signal(SIGKILL);
        holder.wait();
    }
}

// Servers are killed under load: clients get "could not connect" or correct replies, and never wait long.
TEST(NameServer, ClientsSurviveItsRestarts)
{
    const ClosedPort closed;
    const std::string port = std::to_string(closed.get());
    const EnvSetting found("VRXNMSPORT", port.c_str());

    std::atomic<bool> ends = false;
    std::atomic<int> faults = 0;
    std::atomic<int> served = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number)
        threads.emplace_back([&, number] {
            Client client;
            const std::string name = "of" + std::to_string(number);
            while (!ends) {
                int count = 0;
                const btkTimeval start = btkTimeval::Now();
                const int entered = client.enter("name", name);
                const int queried = client.query("name", name, count);
                faults += entered != 0 && entered != nmscExists && entered != nmscNoConnection;
                faults += queried != 0 && queried != nmscNoConnection;
                faults += btkTimeval::Now() - start > Patience;
                served += queried == 0 && count == 1;
            }
        });
    const int restarts = ofALongRun(20, 200);
    for (int i = 0; i < restarts; ++i) {
        const int before = served;
        // A separate program: a forked copy of this one may hold locks of its threads.
        ChildProcess server([&] {
            execl("/proc/self/exe", "server", "--serve-names", port.c_str(), nullptr);
            return 127;
        });
        ASSERT_TRUE(soon([&] { return served >= before + 20; }));
        server.signal(SIGKILL);
        EXPECT_EQ(server.wait(), -SIGKILL);
    }
    ends = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(faults, 0);
}

// Kills at any time, while clients register: a record that was registered a second before a kill, and whose
// process runs, is restored, and the file can always be read.
TEST(NameServer, RecordsSurviveItsKills)
{
    const TempDir dir(TempDir::InMemory);
    const std::string state = dir.path("names");
    const auto saved = [&](nmsTable& table) {
        std::ifstream file(state, std::ios::binary);
        std::ostringstream bytes;
        bytes << file.rdbuf();
        return table.Restore(bytes.str());
    };
    const ClosedPort closed;
    const std::string port = std::to_string(closed.get());
    const EnvSetting found("VRXNMSPORT", port.c_str());
    Client client;
    std::size_t known = 0;
    for (int round = 0; round < 8; ++round) {
        ChildProcess server([&] {
            execl("/proc/self/exe", "server", "--serve-names", port.c_str(), state.c_str(), nullptr);
            return 127;
        });
        ASSERT_TRUE(soon([&] { return client.ping() == 0; }));
        int count = 0;
        if (round > 0) {
            EXPECT_EQ(client.query("_ServerName", "mine", count), 0);
            EXPECT_EQ(count, 1) << round;
            EXPECT_EQ(client.query("_ServerName", "killed", count), 0);
            EXPECT_EQ(count, 0) << round;
        }
        client.enter("_ServerName", "mine", 1);
        ChildProcess killed([] {
            pause();
            return 0;
        });
        EXPECT_EQ(client.enter("_ServerName", "killed", killed.getId()), 0);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000 + 70 * round);
        for (int i = 0; std::chrono::steady_clock::now() < until && i < 60; ++i)
            EXPECT_EQ(client.enter("n" + std::to_string(round), std::to_string(i)), 0);
        std::this_thread::sleep_until(until);
        server.signal(SIGKILL);
        server.wait();
        nmsTable table;
        EXPECT_TRUE(saved(table)) << round;
        EXPECT_GT(table.GetSize(), known) << "not written within its time";
        known = table.GetSize();
    }
}

TEST(NameServer, ReportsThatItIsFull)
{
    TestNameServer server({.table = {.records = 8}});
    Client client;
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.enter("n", "1"), 0);
    EXPECT_EQ(client.enter("n", "2"), 0);
    for (int i = 3; i < 100; ++i)
        EXPECT_EQ(client.enter("n", std::to_string(i)), nmscInternal);
    EXPECT_EQ(client.enter("_ServerName", "a", 1), 0);
    const std::string said = testing::internal::GetCapturedStderr(); // the number of refusals varies
    EXPECT_EQ(said.find("name server: full: the records of no process have their whole share; "), 0u) << said;
    EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
}

TEST(NameClient, ReadsThePortFromTheEnvironment)
{
    const struct
    {
        const char* text;
        int port;
    } cases[] = {{nullptr, 1239}, {"1500", 1500}, {"-5", -5}, {"abc", 1239}, {"0", 1239}, {"70000", 70000}};
    for (const auto& [text, port] : cases) {
        const EnvSetting setting("VRXNMSPORT", text);
        testing::internal::CaptureStderr();
        EXPECT_EQ(nmsFindPort(), port);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  text == nullptr || port != 1239
                      ? ""
                      : "ERROR  : value of VRXNMSPORT is invalid, using the port 1239.\n");
    }
}

int main(int argc, char** argv)
{
    if (argc >= 3 && std::string(argv[1]) == "--serve-names") {
        nmsServer server(
            {.port = std::stoi(argv[2]), .stateFile = argc > 3 ? argv[3] : "", .untilSignal = true});
        if (!server.Listen())
            return 1;
        server.Run();
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
