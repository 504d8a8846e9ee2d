#include <qel/base/btksocket.h>
#include <qel/evtevent.h>
#include <qel/xiolib.h>
#include <qel/xmonlib.h>
#include <qel/xnetlib.h>

#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/testserver.h"

namespace {

constexpr btkTimeval patience(10, 0);

class NetStatistics : public testing::Test
{
protected:
    std::string folder() const { return root.path("qelstd"); }

    TempDir root;
    EnvSetting noService{"RUNTIME_DIRECTORY", nullptr};
    EnvSetting runtime{"XDG_RUNTIME_DIR", root.path()};
};

// Reads what the server publishes until it is this much, for some seconds: it writes its values one by one.
template<class Reader>
double Await(monFile& file, double wanted, const Reader& read)
{
    const Owned<evtEvent> changed(file.ChangeEvent());
    const btkTimeval end = btkTimeval::Now() + patience;
    for (;;) {
        const double value = read();
        const btkTimeval now = btkTimeval::Now();
        if (value == wanted || now >= end)
            return value;
        changed->Wait((end - now).ToSeconds());
    }
}

double AwaitValue(monFile& file, const char* name, double wanted)
{
    return Await(file, wanted, [&]() -> double {
        monParam* found = nullptr;
        file.getParams()->find(name, &found);
        return found != nullptr ? monRealParam::cast(found)->getValue() : -1;
    });
}

double AwaitServices(monFile& file, double wanted)
{
    return Await(file, wanted, [&] {
        double all = 0;
        monParamDict* const params = file.getParams();
        for (int slot = 0; slot < params->getarraysize(); ++slot) {
            monParam* param = nullptr;
            if (params->getbyindex(slot, &param)) {
                const std::string name = param->getName().CastToCString();
                if (name.starts_with("latency.us.") && name != "latency.us.sum")
                    all += monRealParam::cast(param)->getValue();
            }
        }
        return all;
    });
}

// The server reads the integer: 0 fails, an odd one gets a thread.
netServerLoopAction serve(netSocketStream& stream)
{
    const int value = stream.ReadInt();
    if (value == 0)
        throw std::runtime_error("nothing");
    stream.WriteInt(value);
    if (value % 2 == 0)
        return netServerContinue;
    stream.Flush(1);
    return netSpawnAsyncServer;
}

TEST_F(NetStatistics, CountsWhatAServerDoes)
{
    Owned<netServer> made(netServer::Create(nullptr, 0));
    made->setOnRequest(qel::onRequest(&serve));
    made->setOnAsyncRequest(qel::onAsyncRequest([](netSocketStream& stream) { stream.ReadInt(); }));
    made->setOnError(qel::onError([](const qel::caught&) { return true; }));
    made->setAsyncLimit(1);
    // Nothing but the statistics wakes the loop then.
    made->setTimeSlice(INFINITE);
    made->setSilentPatience(2.0);
    ASSERT_TRUE(made->setStatistics(true, "counted"));
    const std::string path = made->getStatisticsFile().CastToCString();
    EXPECT_EQ(0U, path.find(folder() + "/counted-"));
    {
        const Owned<monFile> file(monFile::Open(path.c_str()));
        ServedInThread<netServer> server(made.release());
        EXPECT_TRUE(netServer::IsAlive(server.address().get()));
        EXPECT_TRUE(netServer::IsAlive(server.address().get()));
        EXPECT_EQ(2, AwaitValue(*file, "requests.ping", 2));
        netServer::GetVersion(server.address().get());

        const auto ask = [&](int value) {
            Owned<netSocketStream> stream(netServer::Connect(server.address().get(), 10.0));
            stream->WriteInt(value);
            return value == 0 || stream->ReadInt() == value ? std::move(stream) : Owned<netSocketStream>();
        };
        EXPECT_NE(nullptr, ask(4));
        EXPECT_NE(nullptr, ask(0));
        {
            const Owned<netSocketStream> running = ask(1);
            ASSERT_NE(nullptr, running);
            EXPECT_EQ(1, AwaitValue(*file, "async.running", 1));
            EXPECT_NE(nullptr, ask(3)); // one too many
            EXPECT_EQ(1, AwaitValue(*file, "refused.limit", 1));
            running->WriteInt(0);
            running->Flush(true);
            EXPECT_EQ(0, AwaitValue(*file, "async.running", 0)); // though no client comes
        }
        btkStreamSocket silent;
        ASSERT_TRUE(silent.Connect(nullptr, server.getPort(), patience));
        EXPECT_EQ(1, AwaitValue(*file, "silent.expired", 1));
        btkStreamSocket foreign;
        ASSERT_TRUE(foreign.Connect(nullptr, server.getPort(), patience));
        foreign.Send("\x09", 1);
        EXPECT_EQ(1, AwaitValue(*file, "requests.other", 1));

        EXPECT_EQ(1, AwaitValue(*file, "requests.version", 1));
        EXPECT_EQ(4, AwaitValue(*file, "requests.served", 4));
        EXPECT_EQ(1, AwaitValue(*file, "failures", 1));
        EXPECT_EQ(1, AwaitValue(*file, "async.ended", 1));
        EXPECT_EQ(9, AwaitValue(*file, "connections", 9));
        EXPECT_EQ(20, AwaitValue(*file, "bytes.received", 20)); // an int of each client, and another one
        EXPECT_EQ(12, AwaitValue(*file, "bytes.sent", 12));
        // Of the connections, the silent one is no service, and one that was refused after its start is none.
        EXPECT_EQ(7, AwaitServices(*file, 7));
        netServer::Shutdown(server.address().get());
        server.waitForEnd();
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(NetStatistics, AreWrittenTenTimesASecondAtMost)
{
    Owned<netServer> made(netServer::Create(nullptr, 0));
    ASSERT_TRUE(made->setStatistics(true, "often"));
    const Owned<monFile> file(monFile::Open(made->getStatisticsFile().CastToCString()));
    ServedInThread<netServer> server(made.release());
    const btkTimeval start = btkTimeval::Now();
    monRealParam* const pings = file->Real("requests.ping");
    int changes = 0;
    for (double last = 0; btkTimeval::Now() - start < btkTimeval(0.5) || changes < 2;) {
        ASSERT_TRUE(netServer::IsAlive(server.address().get()));
        changes += std::exchange(last, pings->getValue()) != last;
    }
    EXPECT_LE(changes, (btkTimeval::Now() - start).ToSeconds() * 10 + 1);
}

TEST_F(NetStatistics, AreWrittenWhenAskedForOnly)
{
    const auto runOnce = [] {
        const Owned<netServer> server(netServer::Create(nullptr, 0));
        server->Stop();
        const Owned<netSocketStream> none(server->Accept(0.0));
        return !(server->getStatisticsFile() == nullptr);
    };
    EXPECT_FALSE(runOnce());
    {
        const EnvSetting off("QELSTD_STATS", "0");
        EXPECT_FALSE(runOnce());
    }
    EXPECT_FALSE(std::filesystem::exists(folder()));
    const EnvSetting on("QELSTD_STATS", "1");
    EXPECT_TRUE(runOnce());
    const Owned<netServer> refusing(netServer::Create(nullptr, 0));
    EXPECT_TRUE(refusing->setStatistics(false));
    refusing->Stop();
    refusing->Run();
    const Owned<netSocketStream> none(refusing->Accept(0.0));
    EXPECT_EQ(xstring(nullptr), refusing->getStatisticsFile());
    const EnvSetting nowhere("XDG_RUNTIME_DIR", "/nowhere");
    EXPECT_FALSE(refusing->setStatistics(true)); // it serves without
}

} // namespace
