#include <qel/base/btksocket.h>
#include <qel/nmsproxy.h>

#include "support/interrupt.h"
#include "support/nameserver.h"
#include "support/test.h"
#include "support/thrown.h"

namespace {

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

using Proxy = xrchandle<nmsServerProxy>;
using Record = xrchandle<nmsRecord>;
using Status = std::unique_ptr<nmsClientStatus>;

Record RecordOf(const char* name, const char* value, int owner = 0)
{
    Record record(nmsRecord::Create(owner));
    record->Add(name, value);
    return record;
}

// The X that `action` throws, held by a reference.
template<class X, class Action>
xrchandle<X> Thrown(Action action)
{
    return describeThrown<X>(action, [](X* thrown) { return xrchandle<X>(thrown); });
}

std::string Text(const xstring& s)
{
    return s.CastToCString();
}

// The printed form of an exception.
template<class X, class Action>
std::string Printed(Action action)
{
    std::ostringstream os;
    const xrchandle<X> thrown = Thrown<X>(action);
    if (thrown)
        thrown->Print(os);
    return os.str();
}

// Replies to any one request with these bytes and closes the connection. During its lifetime it is the name
// server that proxies find.
class StrangeServer
{
public:
    explicit StrangeServer(std::string answer) : bytes(std::move(answer))
    {
        isListening = door.Listen(0, "127.0.0.1");
        setting.emplace("VRXNMSPORT", std::to_string(door.GetPortN()).c_str());
        loop = std::thread([this] {
            constexpr btkTimeval patience(10, 0);
            btkStreamSocket client;
            if (door.Wait(patience, 1) != 1 || !door.Accept(&client))
                return;
            client.Send(bytes.data(), bytes.size());
            client.ShutdownOutput();
            client.SetRecvLimit(patience);
            char byte = 0;
            while (client.Recv(&byte, 1) > 0) {
            }
        });
    }
    ~StrangeServer() { loop.join(); }
    std::string port() const { return std::to_string(door.GetPortN()); }

    bool isListening = false;

private:
    btkAcceptSocket door;
    std::string bytes;
    std::optional<EnvSetting> setting;
    std::thread loop;
};

// The description and the function name of the exception that `action` throws.
template<class X, class Action>
std::string Told(Action action)
{
    const xrchandle<X> thrown = Thrown<X>(action);
    return thrown ? Text(thrown->getDescription()) + " in " + Text(thrown->getFunc()->getName()) : "nothing";
}

} // namespace

TEST(nmsServerProxy, QueriesTheNameServer)
{
    const TestNameServer server({.version = "v7"});
    const Proxy proxy(nmsServerProxy::ConnectLocal());
    const Record mine = RecordOf("_ServerName", "mine", 1);
    const Record none = RecordOf("_ServerName", "none");

    EXPECT_TRUE(proxy->IsAlive());
    EXPECT_EQ(proxy->GetVersion(), "v7");
    proxy->Register(mine.get());
    proxy->Register(RecordOf("_ServerName", "other").get());
    const xrchandle<nmsRecordArray> all(proxy->Query(Record(nmsRecord::Create(0)).get()));
    ASSERT_EQ(all->getarraysize(), 2);
    const Record first(all->get(0));
    const Record second(all->get(1));
    EXPECT_TRUE(first->Match(mine.get()));
    EXPECT_TRUE(first->IsAlive());
    EXPECT_EQ(second->GetFieldValueByName("_ServerName"), "other");
    EXPECT_EQ(proxy->Delete(mine.get()), 1);
    const xrchandle<nmsRecordArray> nothing(proxy->Query(mine.get()));
    EXPECT_EQ(nothing->getarraysize(), 0);

    const std::string head = "ERROR  : NameServer on client request: ";
    EXPECT_EQ(Told<nmsXCantDelete>([&] { proxy->Delete(none.get()); }),
              head + "could not find matching record. in nmsServerProxy::Delete");
    EXPECT_EQ(Thrown<nmsXCantDelete>([&] { proxy->Delete(none.get()); })->getTemplate(), none.get());
    proxy->Register(none.get());
    EXPECT_EQ(Told<nmsXCantRegisterRecord>([&] { proxy->Register(none.get()); }),
              head + "this record(s) already exists. in nmsServerProxy::Register");
    EXPECT_EQ(Thrown<nmsXCantRegisterRecord>([&] { proxy->Register(none.get()); })->getRecord(), none.get());
    const Record tooLong = RecordOf("n", std::string(256, 'x').c_str());
    EXPECT_EQ(Told<nmsXCantQuery>([&] { proxy->Query(tooLong.get()); }),
              "ERROR  : NMS client: internal error occured. in nmsServerProxy::Query");
}

TEST(nmsServerProxy, RemoteNameServerIsNotStoppedAndHasNoProcesses)
{
    const TestNameServer server;
    const Proxy far(nmsServerProxy::ConnectByName("127.0.0.1"));
    const std::string text =
        "ERROR  : NMS client: not authorized to perform this request. in nmsServerProxy::";

    testing::internal::CaptureStderr();
    EXPECT_EQ(Told<nmsXCantShutdown>([&] { far->Shutdown(); }), text + "Shutdown");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR  : NMS client: cannot shutdown nonlocal NameService.\n");
    EXPECT_EQ(Told<nmsXCantRegisterRecord>([&] { far->Register(RecordOf("a", "b", 1).get()); }),
              text + "Register");
    far->Register(RecordOf("a", "b").get());
    EXPECT_TRUE(far->IsAlive());
}

TEST(nmsServerProxy, ReportsAMissingNameServer)
{
    TestNameServer server;
    const Proxy proxy(nmsServerProxy::ConnectLocal());
    proxy->Shutdown();
    server.waitForEnd();

    EXPECT_FALSE(proxy->IsAlive());
    EXPECT_EQ(Told<nmsXCantConnectLocal>([] { nmsServerProxy::ConnectLocal(); }),
              "Can't connect locally in nmsServerProxy::ConnectLocal");
    const auto failure =
        Thrown<nmsXCantConnectByName>([] { nmsServerProxy::ConnectByName("nohost.invalid"); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->getServerName(), "nohost.invalid");
    EXPECT_EQ(failure->getDescription(), "ERROR  : can't connect by name");

    const Record tooLong = RecordOf("n", std::string(256, 'x').c_str());
    EXPECT_EQ(Status(proxy->ImplRegister(*tooLong))->getCode(), 2);

    const Status status(proxy->Ping());
    std::ostringstream told;
    told << *status << *proxy;
    const std::string expected = "ERROR  : NMS client: could not connect to NameServer. (LOCALHOST, port " +
                                 std::to_string(server.getPort()) + ")\n" + Text(proxy->getHost());
    EXPECT_EQ(told.str(), expected);
}

TEST(nmsServerProxy, HandlesAnyReply)
{
    const Proxy proxy(nmsServerProxy::InitLocalProxy());
    const Record pattern = RecordOf("a", "b");
    const std::string done(1, '\0');
    const std::string zero(4, '\0');
    const std::string head = "ERROR  : NameServer on client request: ";
    {
        const StrangeServer noVersion(done + zero + zero);
        EXPECT_EQ(Told<nmsXCantGetVersion>([&] { proxy->GetVersion(); }),
                  "ERROR  : Other in nmsServerProxy::GetVersion");
    }
    {
        const StrangeServer cutOff(done + zero + zero.substr(1) + "\1"); // and no field follows
        EXPECT_EQ(Told<nmsXCantGetVersion>([&] { proxy->GetVersion(); }),
                  "ERROR  : Other in nmsServerProxy::GetVersion");
    }
    {
        const StrangeServer none(done + zero);
        EXPECT_EQ(proxy->Delete(pattern.get()), 0);
    }
    {
        const StrangeServer some("\5" + zero.substr(1) + "\3"); // the number follows every status
        int count = 0;
        const Status status(proxy->ImplDelete(*pattern, &count));
        ASSERT_NE(status, nullptr);
        EXPECT_EQ(status->getCode(), 5);
        EXPECT_EQ(status->getOrigin(), nmsClientStatus::Server);
        EXPECT_EQ(count, 3);
    }
    {
        const StrangeServer unknown("\x4d");
        EXPECT_EQ(Told<nmsXCantRegisterRecord>([&] { proxy->Register(pattern.get()); }),
                  head + "internal error occured. in nmsServerProxy::Register");
    }
    {
        const StrangeServer unwilling("\6");
        EXPECT_FALSE(proxy->IsAlive());
    }
    for (const std::string& number : {"\x7F\xFF\xFF\xFF" + zero + zero, std::string("\xFF\xFF\xFF\xFF")}) {
        const StrangeServer lying(done + number); // one record at most follows
        int count = -1;
        EXPECT_EQ(Status(proxy->ImplQuery(*pattern, nullptr, &count))->getCode(), nmscNoConnection);
        EXPECT_LE(count, 1);
    }
    {
        // Two records are announced and one arrives.
        const StrangeServer broken(done + zero.substr(1) + "\2" + zero + zero);
        EXPECT_EQ(Told<nmsXCantQuery>([&] { proxy->Query(pattern.get()); }),
                  "ERROR  : NMS client: could not connect to NameServer. (LOCALHOST, port " + broken.port() +
                      ") in nmsServerProxy::Query");
    }
    {
        const StrangeServer broken(done + zero.substr(1) + "\2" + zero + zero);
        const xrchandle<nmsRecordArray> found(nmsRecordArray::create());
        int count = 0;
        EXPECT_EQ(Status(proxy->ImplQuery(*pattern, found.get(), &count))->getCode(), 2);
        EXPECT_EQ(count, 1);
        ASSERT_EQ(found->getarraysize(), 1);
        const Record kept(found->get(0));
    }
}

TEST(nmsXException, PrintsTheOperationAndItsFailure)
{
    const EnvSetting noPort("VRXNMSPORT", "70000");
    const Proxy proxy(nmsServerProxy::InitLocalProxy());
    const std::string head = "Exception: \"ERROR  : NMS client: could not connect to NameServer. (LOCALHOST, "
                             "port 70000)\"\n\tin function \"nmsServerProxy::";

    EXPECT_EQ(
        Printed<nmsXCantConnectByName>([] { nmsServerProxy::ConnectByName("nohost.invalid"); }),
        "Exception: \"ERROR  : can't connect by name\"\n\tin function \"nmsServerProxy::ConnectByName\"\n"
        "\t( Server: \"nohost.invalid\" )\n");
    EXPECT_EQ(Printed<nmsXException>([&] { proxy->Shutdown(); }), head + "Shutdown\"\n");
    // The records are destroyed before these are printed.
    EXPECT_EQ(Printed<nmsXCantRegisterRecord>([&] { proxy->Register(RecordOf("a", "b").get()); }),
              head + "Register\"\n\t( Record: \"a=b\" )\n");
    EXPECT_EQ(Printed<nmsXException>([&] { proxy->Delete(RecordOf("c", "d").get()); }),
              head + "Delete\"\n\t( Template: \"c=d\" )\n");
    EXPECT_EQ(Printed<nmsXCantQuery>([] { nmsXCantQuery::Throw("text", nullptr, nullptr); }).substr(0, 19),
              "Exception: \"text\"\n\t");
}
