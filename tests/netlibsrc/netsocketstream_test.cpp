#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>
#include <qel/syslib.h>
#include <qel/xiolib.h>
#include <qel/xnetlib.h>
#include <qel/xrtti.h>

#include "failure.h"
#include "support/addresses.h"
#include "support/interrupt.h"
#include "support/socketpair.h"
#include "support/streampair.h"

namespace {

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

using Stream = std::unique_ptr<netSocketStream, qelDelete>;
using Event = std::unique_ptr<ioEvent, qelDelete>;

Stream streamOver(btkStreamSocket& connected)
{
    auto* const socket = new btkStreamSocket;
    btkFd borrowed(connected.GetHandle());
    socket->Adopt(borrowed.Duplicate());
    borrowed.Release();
    connected.Close();
    return Stream(netSocketStream::Create(socket));
}

struct Streams : SocketPair
{
    Stream out = streamOver(near);
    Stream in = streamOver(far);
};

// A name server on a free port, which this process uses.
class NameService : public testing::Test
{
protected:
    NameService() : server({.port = 0})
    {
        if (server.Listen()) {
            setenv("VRXNMSPORT", std::to_string(server.GetPort()).c_str(), 1);
            thread = std::thread([this] { server.Run(); });
        }
    }
    ~NameService() override
    {
        server.Stop();
        if (thread.joinable())
            thread.join();
        unsetenv("VRXNMSPORT");
    }

    // Registers a record with these fields; a null port leaves it out.
    void add(const char* name, const char* port)
    {
        capi_nmsServerProxy* proxy = nmsServConnectLocal();
        capi_nmsRecord* record = MakeServerRecord(xstring(name));
        nmsRecAdd(record, "n", std::to_string(++added).c_str());
        if (port != nullptr)
            nmsRecAdd(record, "_PortNumber", port);
        EXPECT_EQ(nmsServRegister(proxy, record), nullptr);
        nmsRecDelete(&record);
        nmsServDelete(&proxy);
    }
    static std::string resolve(const char* name, int* port = nullptr)
    {
        const xrchandle<netAddress> address(netAddress::Create(name, nullptr));
        return failureOf([&] {
            const int found = ResolvePort(address.get());
            EXPECT_EQ(found, address->getPortN());
            if (port != nullptr)
                *port = found;
        });
    }

    nmsServer server;
    std::thread thread;
    int added = 0;
};

} // namespace

TEST(netAddress, HoldsHostPortAndServerName)
{
    const xrchandle<netAddress> here(netAddress::Create(4000, xnullstr));
    EXPECT_TRUE(here->getHostName() == sysGetCurHostName());
    EXPECT_EQ(here->getPortN(), 4000);
    EXPECT_TRUE(here->getServerName() == nullptr);

    const xrchandle<netAddress> named(netAddress::Create("name", nullptr));
    EXPECT_TRUE(named->getHostName() == nullptr);
    EXPECT_EQ(named->getPortN(), 0);
    EXPECT_TRUE(named->getServerName() == "name");
    auto* const type = xrttistruct::cast(named->getRtti());
    EXPECT_TRUE(type->findAttr("HostName", 1)->getValue(named.get()).isNull());
    EXPECT_TRUE(type->findAttr("PortN", 1)->getValue(named.get()) == 0);
    EXPECT_TRUE(type->findAttr("ServerName", 1)->getValue(named.get()) == "name");
    EXPECT_EQ(failureOf([] { ResolvePort(nullptr); }), "1 Address is nil!");
}

TEST_F(NameService, ListsAServerFromItsRegistrationToItsEnd)
{
    EXPECT_TRUE(RegisterWithNMS(getNameServer(xstring()), 7001, xstring("words")));
    capi_nmsServerProxy* proxy = getNameServer(xstring("localhost"));
    ASSERT_NE(proxy, nullptr);
    EXPECT_TRUE(IsRegisteredWithNMS(proxy, xstring("words")));
    EXPECT_FALSE(IsRegisteredWithNMS(proxy, xstring("others")));
    int port = 0;
    EXPECT_EQ(resolve("words", &port), "");
    EXPECT_EQ(port, 7001);

    EXPECT_TRUE(UnregisterFromNMS(proxy, xstring("words")));

    EXPECT_FALSE(IsRegisteredWithNMS(proxy, xstring("words")));
    EXPECT_EQ(resolve("words"), "0 Server is not registered");
    nmsServDelete(&proxy);
}

TEST_F(NameService, TheFirstRecordWithAPortDecides)
{
    add("many", nullptr);
    add("many", "7002");
    add("many", "7003");
    int port = 0;
    EXPECT_EQ(resolve("many", &port), "");
    EXPECT_EQ(port, 7002);

    for (const char* const useless : {"0", "-5", "abc", "65536", "4294974297"}) {
        add(useless, useless);
        EXPECT_EQ(resolve(useless), "0 Server is not registered");
    }
}

TEST(NameServiceGone, IsReportedUnlessThePortIsGiven)
{
    btkAcceptSocket door;
    ASSERT_TRUE(door.Listen(0, "127.0.0.1"));
    setenv("VRXNMSPORT", std::to_string(door.GetPortN()).c_str(), 1);
    const int port = door.GetPortN();
    door.Close();
    const xrchandle<netAddress> known(netAddress::Create(port, nullptr));
    const xrchandle<netAddress> named(netAddress::Create("name", nullptr));

    EXPECT_EQ(ResolvePort(known.get()), port);
    EXPECT_EQ(failureOf([&] { ResolvePort(named.get()); }), "0 Name Server is not found");
    const xrchandle<netAddress> remote(netAddress::Create("name", "127.0.0.1"));
    EXPECT_EQ(describeThrown([&] { ResolvePort(remote.get()); },
                             [](xthrowable* thrown) { return std::string(qelTextOf(thrown)); }),
              "Name Server is not found (server name, host 127.0.0.1)");
    EXPECT_EQ(netBaseServer::Connect(known.get(), 5.0), nullptr);
    unsetenv("VRXNMSPORT");
}

TEST(netSocketStream, ConnectsAndTransfersValuesInXdrForm)
{
    btkAcceptSocket door;
    ASSERT_TRUE(door.Listen(0, nullptr));
    const xrchandle<netAddress> address(netAddress::Create(door.GetPortN(), xnullstr));
    const Stream client(netBaseServer::Connect(address.get(), INFINITE));
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(door.Wait(btkTimeval(10, 0), 1), 1);
    btkStreamSocket accepted;
    ASSERT_TRUE(door.Accept(&accepted));
    const Stream server = streamOver(accepted);

    client->WriteInt(-2);
    client->WriteString("text");
    client->WriteReal(0.5);
    client->Flush(1);

    EXPECT_EQ(server->ReadInt(), -2);
    EXPECT_TRUE(server->ReadString(nullptr) == "text");
    EXPECT_EQ(server->ReadReal(), 0.5);
    EXPECT_EQ(server->TryReadInt(), ioWouldBlock);
    client->Close();
    EXPECT_EQ(failureOf([&] { server->ReadInt(); }), "Stream Error (iolib): EOF reached");
}

TEST(netSocketStream, TransfersUrgentIntegersBesideTheStream)
{
    Streams streams;
    netSocketStream& out = *streams.out;
    netSocketStream& in = *streams.in;
    const Event urgent(in.OutOfBandEvent());
    EXPECT_EQ(urgent->getType(), 2);
    EXPECT_EQ(in.ReadOutOfBand(), xnullint);

    for (const int value : {-7, 0, 0x01020304, 2147483647}) {
        out.WriteInt(value / 2);
        EXPECT_EQ(out.WriteOutOfBand(value), 1);
        out.WriteInt(value / 3);
        out.Flush(1);

        EXPECT_EQ(urgent->Wait(10.0), 1);
        EXPECT_EQ(in.ReadOutOfBand(), value);
        EXPECT_EQ(in.ReadOutOfBand(), xnullint);
        EXPECT_EQ(urgent->getIsSignaled(), 0);
        EXPECT_EQ(in.ReadInt(), value / 2);
        EXPECT_EQ(in.ReadInt(), value / 3);
    }
}

// Two at once corrupt the stream; sent separately, each arrives.
TEST(netSocketStream, SeparatesConsecutiveUrgentIntegers)
{
    Streams streams;
    netSocketStream& out = *streams.out;
    netSocketStream& in = *streams.in;
    out.setUrgentSpacing(0.4);
    std::vector<int> values, urgents;
    std::thread reader([&] {
        const Event urgent(in.OutOfBandEvent());
        while (urgents.size() < 3 && urgent->Wait(10.0) == 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30)); // busy with something else
            urgents.push_back(in.ReadOutOfBand());
            if (urgents.size() == 2) { // a reply arrives
                in.WriteInt(1);
                in.Flush(1);
            }
        }
        for (int i = 0; i < 3; ++i)
            values.push_back(in.ReadInt());
    });
    double took[3];
    for (int i = 0; i < 3; ++i) {
        out.WriteInt(100 * (i + 1));
        const btkTimeval start = btkTimeval::Now();
        EXPECT_EQ(out.WriteOutOfBand(i + 1), 1);
        took[i] = (btkTimeval::Now() - start).ToSeconds();
    }
    out.Flush(1);
    reader.join();
    EXPECT_EQ(urgents, std::vector<int>({1, 2, 3}));
    EXPECT_EQ(values, std::vector<int>({100, 200, 300}));
    EXPECT_GE(took[1], 0.35);
    EXPECT_LT(took[2], 0.35) << "the peer has answered";
    EXPECT_EQ(out.ReadInt(), 1);
}

TEST(netSocketStream, RejectsUrgentIntegersOnceClosed)
{
    Streams streams;
    netSocketStream& closed = *streams.out;
    const Event urgent(closed.OutOfBandEvent());
    closed.Close();

    const char* const text = "Stream Error (iolib): stream not open";
    EXPECT_EQ(failureOf([&] { closed.WriteOutOfBand(1); }), text);
    EXPECT_EQ(failureOf([&] { closed.ReadOutOfBand(); }), text);
    EXPECT_EQ(failureOf([&] { closed.OutOfBandEvent(); }), text);
    EXPECT_EQ(urgent->getIsSignaled(), 1);
}

// ---- limits

namespace {

constexpr const char* timeoutText = "Stream Error (iolib): timeout expired";

// The duration of `work` in seconds.
template<class Work>
double secondsOf(Work work)
{
    const btkTimeval start = btkTimeval::Now();
    work();
    return (btkTimeval::Now() - start).ToSeconds();
}

void expectLimit(double taken, double limit)
{
    EXPECT_GE(taken, limit - 0.001);
    EXPECT_LT(taken, limit * 1.1 + 0.25); // 0.05 on a machine that is not loaded
}

} // namespace

TEST(netSocketStream, ReadTimesOutAfterItsLimitWithoutInput)
{
    Streams streams;
    netSocketStream& in = *streams.in;
    in.setITimeout(0.2);
    const auto readsInVain = [&](auto read) {
        expectLimit(secondsOf([&] { EXPECT_EQ(failureOf(read), timeoutText); }), 0.2);
        EXPECT_TRUE(in.getIsTimeout());
        EXPECT_FALSE(in.getIsEof() || in.getIsBad());
        EXPECT_EQ(failureOf(read), timeoutText); // at once: the state is set
        in.setIsFail(0);
    };
    char bytes[8] = {};

    streams.out->WriteInt(7);
    streams.out->WriteBytes("\0\0", 2); // half a value
    streams.out->Flush(1);
    EXPECT_EQ(in.ReadInt(), 7);
    readsInVain([&] { in.ReadInt(); });
    readsInVain([&] { in.ReadBytes(bytes, 8); });
    const std::unique_ptr<ioStringStream, qelDelete> copy(ioStringStream::Create(nullptr));
    copy->setSerializer(in.getSerializer());
    readsInVain([&] { copy->ReadStream(&in); });
    streams.out->WriteInt(8);
    streams.out->Flush(1);
    EXPECT_EQ(in.ReadBytes(bytes, 8), 4u); // the bytes received before
    EXPECT_TRUE(in.getIsTimeout());
    in.setIsFail(0);

    // An occasional byte is progress.
    std::thread dripping([&] {
        for (int i = 0; i < 4; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            streams.out->WriteByte(i);
            streams.out->Flush(1);
        }
    });
    EXPECT_EQ(in.ReadInt(), 0x00010203);
    dripping.join();
    in.setITimeout(INFINITE);
    streams.out->Close();
    EXPECT_EQ(failureOf([&] { in.ReadInt(); }), "Stream Error (iolib): EOF reached");
}

TEST(netSocketStream, WriteTimesOutAfterItsLimitWithoutProgress)
{
    const std::string tooMuch(32 << 20, 'x');
    const auto size = static_cast<unsigned>(tooMuch.size());
    {
        Streams streams;
        streams.out->setOTimeout(0.2);
        expectLimit(secondsOf([&] {
                        EXPECT_EQ(failureOf([&] { streams.out->WriteBytes(tooMuch.data(), size); }),
                                  timeoutText);
                    }),
                    0.2);
        streams.out->setIsFail(0);
        EXPECT_LT(secondsOf([&] { streams.out->Close(); }), 0.1); // nothing is sent after lost bytes
    }
    Streams streams;
    streams.out->setOTimeout(1.0);
    std::thread slow([&] { // an occasional part is progress
        std::vector<char> part(2 << 20);
        streams.in->setITimeout(10.0);
        allowStreamFailure([&] {
            for (unsigned left = size; left > 0;) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                left -=
                    streams.in->ReadBytes(part.data(), std::min(left, static_cast<unsigned>(part.size())));
            }
        });
    });
    const double taken =
        secondsOf([&] { EXPECT_EQ(failureOf([&] { streams.out->WriteBytes(tooMuch.data(), size); }), ""); });
    slow.join();
    EXPECT_GT(taken, 1.0);
}

TEST(netSocketStream, BuffersAtMostItsBudgetsOfAPeersData)
{
    Streams streams;
    netSocketStream& in = *streams.in;
    streams.out->WriteInt(64 << 20 | 1);
    streams.out->WriteBytes("abc", 3);
    streams.out->Flush(1);
    EXPECT_EQ(in.TryReadString(nullptr), ioFormatError);
    EXPECT_EQ(failureOf([&] { in.ReadString(nullptr); }), "Stream Error (iolib): conversion error");

    Streams others;
    others.in->setSerializer(ioSerializer::getAscii());
    others.in->setTextLimit(100000);
    others.in->setUrgentBudget(300000);
    const std::string endless(1 << 20, 'x');
    const Event urgent(others.in->OutOfBandEvent());
    std::thread writing([&] {
        others.out->WriteBytes(endless.data(), static_cast<unsigned>(endless.size()));
        others.out->WriteOutOfBand(7);
    });
    writing.join();
    EXPECT_FALSE(urgent->Wait(0.2));
    const Event input(others.in->InputEvent());
    ioTryCode code = ioWouldBlock;
    for (const btkTimeval end = btkTimeval::Now() + btkTimeval(10.0);
         code == ioWouldBlock && btkTimeval::Now() < end;) {
        input->Wait(1.0);
        code = others.in->TryReadString(nullptr);
    }
    EXPECT_EQ(code, ioFormatError);
    // It is found once enough of the bytes before it have been read.
    std::vector<char> part(100000);
    std::size_t taken = 0;
    while (taken < 800000)
        taken += others.in->ReadBytes(part.data(), static_cast<unsigned>(part.size()));
    EXPECT_TRUE(urgent->Wait(10.0));
    EXPECT_EQ(others.in->ReadOutOfBand(), 7);
    while (taken < endless.size())
        taken += others.in->ReadBytes(part.data(),
                                      static_cast<unsigned>(std::min(part.size(), endless.size() - taken)));
    EXPECT_EQ(others.in->PeekNBytes(), 0u);
}

TEST(netSocketStream, ReportsItsPeersAddress)
{
    btkAcceptSocket door;
    ASSERT_TRUE(door.Listen(0, nullptr));
    btkStreamSocket client;
    client.Adopt(btkFd(connectFrom("127.0.0.2", "127.0.0.1", door.GetPortN())));
    ASSERT_EQ(door.Wait(btkTimeval(10, 0), 1), 1);
    auto accepted = std::make_unique<btkStreamSocket>();
    ASSERT_TRUE(door.Accept(accepted.get()));
    btkResetOnClose(client.GetHandle(), true);
    client.Close(); // the address is still known
    const Stream stream(netSocketStream::Create(accepted.release()));
    EXPECT_TRUE(stream->getPeerAddress() == "127.0.0.2");
    stream->Close();
    EXPECT_EQ(failureOf([&] { stream->getPeerAddress(); }), "Stream Error (iolib): stream not open");
}
