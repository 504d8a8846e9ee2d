#include <qel/xiolib.h>
#include <qel/xnetlib.h>

#include "failure.h"
#include "support/addresses.h"
#include "support/interrupt.h"
#include "support/streampair.h"
#include "support/test.h"

namespace {

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

using Event = std::unique_ptr<ioEvent, qelDelete>;

} // namespace

TEST(netSocketStream, TransfersUrgentIntegersBesideTheStream)
{
    StreamPair streams;
    netSocketStream& out = *streams.near;
    netSocketStream& in = *streams.far;
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
    StreamPair streams;
    netSocketStream& out = *streams.near;
    netSocketStream& in = *streams.far;
    out.setUrgentSpacing(1.0);
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
    EXPECT_GE(took[1], 0.9);
    EXPECT_LT(took[2], 0.9) << "the peer has answered";
    EXPECT_EQ(out.ReadInt(), 1);
}

TEST(netSocketStream, RejectsUrgentIntegersOnceClosed)
{
    StreamPair streams;
    netSocketStream& closed = *streams.near;
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

constexpr double shortLimit = 0.5;

void expectLimit(double taken)
{
    EXPECT_GE(taken, shortLimit - 0.001);
    EXPECT_LT(taken, 2 * shortLimit);
}

} // namespace

TEST(netSocketStream, ReadTimesOutAfterItsLimitWithoutInput)
{
    StreamPair streams;
    netSocketStream& in = *streams.far;
    in.setITimeout(shortLimit);
    const auto readsInVain = [&](auto read) {
        expectLimit(secondsOf([&] { EXPECT_EQ(failureOf(read), timeoutText); }));
        EXPECT_TRUE(in.getIsTimeout());
        EXPECT_FALSE(in.getIsEof() || in.getIsBad());
        EXPECT_EQ(failureOf(read), timeoutText); // at once: the state is set
        in.setIsFail(0);
    };
    char bytes[8] = {};

    streams.near->WriteInt(7);
    streams.near->WriteBytes("\0\0", 2); // half a value
    streams.near->Flush(1);
    EXPECT_EQ(in.ReadInt(), 7);
    readsInVain([&] { in.ReadInt(); });
    readsInVain([&] { in.ReadBytes(bytes, 8); });
    const std::unique_ptr<ioStringStream, qelDelete> copy(ioStringStream::Create(nullptr));
    copy->setSerializer(in.getSerializer());
    readsInVain([&] { copy->ReadStream(&in); });
    streams.near->WriteInt(8);
    streams.near->Flush(1);
    EXPECT_EQ(in.ReadBytes(bytes, 8), 4u); // the bytes received before
    EXPECT_TRUE(in.getIsTimeout());
    in.setIsFail(0);

    // An occasional byte is progress.
    in.setITimeout(1.0);
    std::thread dripping([&] {
        for (int i = 0; i < 4; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            streams.near->WriteByte(i);
            streams.near->Flush(1);
        }
    });
    EXPECT_EQ(in.ReadInt(), 0x00010203);
    dripping.join();
    in.setITimeout(INFINITE);
    streams.near->Close();
    EXPECT_EQ(failureOf([&] { in.ReadInt(); }), "Stream Error (iolib): EOF reached");
}

TEST(netSocketStream, WriteTimesOutAfterItsLimitWithoutProgress)
{
    const std::string tooMuch(32 << 20, 'x');
    const auto size = static_cast<unsigned>(tooMuch.size());
    {
        StreamPair streams;
        streams.near->setOTimeout(shortLimit);
        expectLimit(secondsOf([&] {
            EXPECT_EQ(failureOf([&] { streams.near->WriteBytes(tooMuch.data(), size); }), timeoutText);
        }));
        streams.near->setIsFail(0);
        streams.near->setOTimeout(20.0);
        EXPECT_LT(secondsOf([&] { streams.near->Close(); }), 10.0); // nothing is sent after lost bytes
    }
    StreamPair streams;
    streams.near->setOTimeout(1.0);
    std::atomic<bool> isWritten = false;
    std::thread slow([&] {               // an occasional part is progress
        std::vector<char> part(1 << 20); // much less than the kernel's buffers hold, some 20 MiB
        streams.far->setITimeout(10.0);
        allowStreamFailure([&] {
            for (unsigned left = size; left > 0;) {
                if (!isWritten)
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                left -=
                    streams.far->ReadBytes(part.data(), std::min(left, static_cast<unsigned>(part.size())));
            }
        });
    });
    const double taken =
        secondsOf([&] { EXPECT_EQ(failureOf([&] { streams.near->WriteBytes(tooMuch.data(), size); }), ""); });
    isWritten = true;
    slow.join();
    EXPECT_GT(taken, 1.0);
}

TEST(netSocketStream, BuffersAtMostItsBudgetsOfAPeersData)
{
    StreamPair streams;
    netSocketStream& in = *streams.far;
    streams.near->WriteInt(64 << 20 | 1);
    streams.near->WriteBytes("abc", 3);
    streams.near->Flush(1);
    EXPECT_EQ(in.TryReadString(nullptr), ioFormatError);
    EXPECT_EQ(failureOf([&] { in.ReadString(nullptr); }), "Stream Error (iolib): conversion error");

    StreamPair others;
    others.far->setSerializer(ioSerializer::getAscii());
    others.far->setTextLimit(100000);
    others.far->setUrgentBudget(60000);
    const std::string endless(1 << 20, 'x');
    const Event urgent(others.far->OutOfBandEvent());
    std::thread writing([&] {
        others.near->WriteBytes(endless.data(), static_cast<unsigned>(endless.size()));
        others.near->WriteOutOfBand(7);
    });
    writing.join();
    EXPECT_FALSE(urgent->Wait(0.2));
    const Event input(others.far->InputEvent());
    ioTryCode code = ioWouldBlock;
    for (const btkTimeval end = btkTimeval::Now() + btkTimeval(10.0);
         code == ioWouldBlock && btkTimeval::Now() < end;) {
        input->Wait(1.0);
        code = others.far->TryReadString(nullptr);
    }
    EXPECT_EQ(code, ioFormatError);
    // It is found once no more bytes lie before it than the budget, for which each kernel has room.
    std::vector<char> part(100000);
    std::size_t taken = 0;
    while (taken < 1000000)
        taken += others.far->ReadBytes(part.data(), static_cast<unsigned>(part.size()));
    EXPECT_TRUE(urgent->Wait(10.0));
    EXPECT_EQ(others.far->ReadOutOfBand(), 7);
    while (taken < endless.size())
        taken += others.far->ReadBytes(part.data(),
                                       static_cast<unsigned>(std::min(part.size(), endless.size() - taken)));
    EXPECT_EQ(others.far->PeekNBytes(), 0u);
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
    const Owned<netSocketStream> stream(netSocketStream::Create(accepted.release()));
    EXPECT_TRUE(stream->getPeerAddress() == "127.0.0.2");
    stream->Close();
    EXPECT_EQ(failureOf([&] { stream->getPeerAddress(); }), "Stream Error (iolib): stream not open");
}
