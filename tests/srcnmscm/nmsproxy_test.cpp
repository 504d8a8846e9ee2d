#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/nameserver.h"
#include <qel/nmsproxy.h>

namespace {

using Proxy = xrchandle<nmsServerProxy>;
using Record = xrchandle<nmsRecord>;
using Status = std::unique_ptr<nmsClientStatus>;

Record RecordOf(const char* name, const char* value, int owner = 0)
{
    Record record(nmsRecord::Create(owner));
    record->Add(name, value);
    return record;
}

// What `action` throws: an X, held by a reference.
template<class X, class Action>
xrchandle<X> Thrown(Action action)
{
    try {
        action();
    } catch (xthrowable* thrown) {
        xrchandle<X> held(X::softcast(thrown));
        xrcrelease(thrown);
        return held;
    }
    return nullptr;
}

std::string Text(const xstring& s)
{
    return s.CastToCString();
}

// The description and the name of the function of what `action` throws.
template<class X, class Action>
std::string Told(Action action)
{
    const xrchandle<X> thrown = Thrown<X>(action);
    return thrown ? Text(thrown->getDescription()) + " in " + Text(thrown->getFunc()->getName()) : "nothing";
}

} // namespace

TEST(nmsServerProxy, AsksTheNameServer)
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

TEST(nmsServerProxy, AFarNameServerIsNotStoppedAndKnowsNoProcesses)
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

TEST(nmsServerProxy, SaysWhenThereIsNoNameServer)
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
