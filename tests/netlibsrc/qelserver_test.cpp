// Servers whose handlers are functions.

#include <qel/qelexception.h>
#include <qel/qelserver.h>
#include <qel/xerrhandler.h>
#include <qel/xnetlib.h>

#include "support/descriptors.h"
#include "support/test.h"
#include "support/testserver.h"
#include "support/thrown.h"

namespace {

/// Records what is reported, and handles it or not.
class Listener final : public xerrlistener
{
public:
    explicit Listener(int handles) : result(handles) { xerrhandler::addlistener(this); }

    xerhstatus onError(const char* text, xrcunihandle<xthrowable> error, xrcunihandle<xobject> subject,
                       xrcunihandle<xobject>) override
    {
        report = std::string(error->getQelTypeName().CastToCString()) + ": " + text;
        about = subject.get();
        thread = std::this_thread::get_id();
        return result;
    }

    int result;
    std::string report;
    xobject* about = nullptr;
    std::thread::id thread;
};

/// Serves one connection, in a thread of its own, by a function that throws, until the request has been joined;
/// returns the error output.
template<class Fail>
std::string errorOutputOfAsync(netBaseServer& server, Fail fail)
{
    std::atomic<bool> wasCalled = false;
    server.setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server.setOnAsyncRequest(qel::onAsyncRequest([&wasCalled, fail](netSocketStream&) {
        wasCalled = true;
        fail();
    }));
    testing::internal::CaptureStderr();
    const long before = openDescriptors();
    const Owned<netSocketStream> client = connectTo(server);
    server.setOnIdle(qel::onIdle([&] {
        return wasCalled && openDescriptors() == before + 1 ? netServerTerminate : netServerContinue;
    }));
    server.Run();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(FunctionHandlers, ServeRequestsAndAreFreedWithTheServer)
{
    const auto token = std::make_shared<int>(0);
    {
        const Owned<netBaseServer> server = makeBaseServer();
        server->setOnRequest(qel::onRequest([token](netBaseServer& of, netSocketStream& stream) {
            stream.WriteInt(stream.ReadInt() + of.getPortN());
            return netServerTerminate;
        }));
        server->setOnIdle(qel::onIdle([token] { ++*token; }));
        server->setOnIdle(qel::onIdle([token](netBaseServer&) { return netServerContinue; }));
        const Owned<netSocketStream> client = connectTo(*server);
        client->WriteInt(1);
        client->Flush(true);

        server->Run();

        EXPECT_EQ(client->ReadInt(), server->getPortN() + 1);
        EXPECT_EQ(thrownBy([&] { client->ReadInt(); }), "iolib::XStream") << "the stream was not closed";
        EXPECT_EQ(token.use_count(), 4);
    }
    EXPECT_EQ(token.use_count(), 1);
}

TEST(FunctionHandlers, OnErrorDecidesWhetherTheServerGoesOn)
{
    const Owned<netBaseServer> server = makeBaseServer();
    int calls = 0;
    std::string seen;
    server->setOnRequest(qel::onRequest([&](netSocketStream&) {
        if (++calls == 1)
            throw std::runtime_error("first");
        qelXNull::Throw();
    }));
    server->setOnError(qel::onError([&](netBaseServer&, const qel::caught& failure) {
        seen += std::string(failure.type().CastToCString()) + ' ';
        return calls == 1;
    }));
    const Owned<netSocketStream> first = connectTo(*server);
    const Owned<netSocketStream> second = connectTo(*server);

    testing::internal::CaptureStderr();
    EXPECT_EQ(thrownBy([&] { server->Run(); }), "qellib::XNull");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(seen, "qellib::XNativeException qellib::XNull ");

    server->setOnError(qel::onError([](const qel::caught&) { return false; }));
    calls = 0;
    const Owned<netSocketStream> third = connectTo(*server);
    EXPECT_THROW(server->Run(), std::runtime_error);
}

TEST(FunctionHandlers, FailuresOfAsyncRequestsAreReportedByTheThreadOfRun)
{
    const Owned<netBaseServer> server = makeBaseServer();
    const std::string line =
        "netlib::BaseServer, port " + std::to_string(server->getPortN()) + ", client 127.0.0.1: ";
    const auto throwNull = [] { qelXNull::Throw(); };

    EXPECT_EQ(errorOutputOfAsync(*server, [] { throw std::runtime_error("no way"); }), line + "no way\n");
    EXPECT_EQ(errorOutputOfAsync(*server, throwNull),
              line + "Attempt to assign null to non-optional object\n");
    {
        Listener listener(1);
        EXPECT_EQ(errorOutputOfAsync(*server, throwNull), "");
        EXPECT_EQ(listener.report, "qellib::XNull: Attempt to assign null to non-optional object");
        EXPECT_EQ(listener.about, static_cast<xobject*>(server.get()));
        EXPECT_EQ(listener.thread, std::this_thread::get_id());

        listener.result = 0;
        EXPECT_NE(errorOutputOfAsync(*server, throwNull), "") << "nobody has handled it";
    }
}

TEST(FunctionHandlers, FailuresAtTheEndOfTheServerAreReportedToo)
{
    Owned<netBaseServer> server = makeBaseServer();
    std::atomic<bool> runs = false;
    server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server->setOnAsyncRequest(qel::onAsyncRequest([&](netSocketStream&, evtEvent& stop) {
        runs = true;
        if (stop.Wait(30.0))
            qelXNull::Throw();
    }));
    server->setOnIdle(qel::onIdle([&] { return runs ? netServerTerminate : netServerContinue; }));
    const Owned<netSocketStream> client = connectTo(*server);
    server->Run();

    Listener listener(1);
    server.reset();

    EXPECT_EQ(listener.report, "qellib::XNull: Attempt to assign null to non-optional object");
}
