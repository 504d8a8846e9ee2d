#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btkframes.h>
#include <qel/base/btkpipe.h>
#include <qel/base/btktunnel.h>

#include "support/test.h"
#include "support/wire.h"

namespace {

constexpr btkTimeval aWhile(20, 0);

std::string framed(std::string_view data)
{
    std::string frames;
    btkPutDataFrame(frames, data);
    return frames;
}

std::string credit(std::size_t count)
{
    std::string frames;
    btkPutCreditFrame(frames, count);
    return frames;
}

// Two tunnels with each other over two pipes.
struct Tunnels
{
    Tunnels()
    {
        btkOutputPipe toOne, toOther;
        btkInputPipe ofOne, ofOther;
        if (!btkAnonymousPipe::Create(toOne, ofOne) || !btkAnonymousPipe::Create(toOther, ofOther))
            return;
        std::thread opens(
            [&] { other = otherTunnel.Open(btkFd(ofOther.Release()), btkFd(toOne.Release()), aWhile); });
        one = oneTunnel.Open(btkFd(ofOne.Release()), btkFd(toOther.Release()), aWhile);
        opens.join();
        for (btkStreamSocket* const socket : {one.get(), other.get()})
            if (socket != nullptr) {
                socket->SetRecvLimit(aWhile);
                socket->SetSendLimit(aWhile);
            }
    }

    btkTunnel oneTunnel, otherTunnel;
    std::unique_ptr<btkStreamSocket> one, other;
};

// Sends until nothing more is accepted.
std::size_t fill(btkStreamSocket& socket)
{
    const std::string block(65536, 'x');
    std::size_t sent = 0;
    socket.SetSendLimit(btkTimeval(0.5));
    for (std::size_t count = block.size(); count == block.size(); sent += count)
        count = socket.Send(block.data(), block.size());
    return sent;
}

} // namespace

TEST(BtkFrames, ArriveInPiecesOfAnySize)
{
    const std::string data = numbered(50000);
    std::string frames = framed(data.substr(0, 100));
    btkPutUrgentFrame(frames, {'\xff', 0, '\1', 'x'});
    frames += framed(data.substr(100));
    btkPutEndFrame(frames);
    for (const std::size_t piece : {1, 2, 7, 104, 4096, 100000}) {
        btkFrameReader reader;
        std::string got;
        for (std::size_t i = 0; i < frames.size(); i += piece) {
            EXPECT_FALSE(reader.IsEnded());
            ASSERT_TRUE(reader.Take(std::string_view(frames).substr(i, piece)));
            const std::size_t part = reader.GetData().size() / 2;
            got += reader.GetData().substr(0, part);
            reader.Drop(part);
        }
        got += reader.GetData();

        EXPECT_EQ(got, data);
        EXPECT_TRUE(reader.IsEnded());
        EXPECT_EQ(reader.TakeUrgent(), (btkUrgentValue{'\xff', 0, '\1', 'x'}));
        EXPECT_EQ(reader.TakeUrgent(), std::nullopt);
    }
}

TEST(BtkFrames, CarryNoMoreDataThanWasGranted)
{
    const std::string block(btkFrameMostData, 'x');
    btkFrameReader reader;
    for (std::size_t i = 0; i < btkFrameWindow / block.size(); ++i)
        ASSERT_TRUE(reader.Take(framed(block)));
    reader.Drop(10);
    EXPECT_EQ(reader.TakeGrant(11), 0u);
    EXPECT_EQ(reader.TakeGrant(10), 10u);
    std::string urgent;
    btkPutUrgentFrame(urgent, {});
    EXPECT_TRUE(reader.Take(urgent)) << "always";
    EXPECT_TRUE(reader.Take(framed("0123456789")));
    EXPECT_FALSE(reader.Take(framed("0")));
    EXPECT_FALSE(reader.Take(urgent)) << "not after an error";
    EXPECT_EQ(reader.GetData().size(), btkFrameWindow);

    btkFrameReader sender;
    sender.UseCredit(100);
    EXPECT_TRUE(sender.Take(credit(60)));
    EXPECT_EQ(sender.GetCredit(), btkFrameWindow - 40);
    EXPECT_FALSE(sender.Take(credit(41)));
    EXPECT_FALSE(btkFrameReader().Take(credit(0xffffffff)));
}

TEST(BtkFrames, RefuseWhatIsNone)
{
    using namespace std::literals;
    for (const std::string_view bytes :
         {"\4"sv, "\xff"sv, "\0\0\0\0\0"sv, "\0\0\1\0\1"sv, "\3\3"sv, "\3\0\0\0\0\1"sv, "qel tunnel 1\n"sv})
        EXPECT_FALSE(btkFrameReader().Take(bytes)) << bytes.size();

    btkFrameReader reader;
    for (char i = 0; i < 20; ++i) {
        std::string urgent;
        btkPutUrgentFrame(urgent, {0, 0, 0, i});
        ASSERT_TRUE(reader.Take(urgent));
    }
    for (char i = 4; i < 20; ++i)
        EXPECT_EQ(reader.TakeUrgent(), (btkUrgentValue{0, 0, 0, i})) << "the newest are kept";
    EXPECT_EQ(reader.TakeUrgent(), std::nullopt);
}

TEST(BtkTunnel, CarriesBothDirectionsToTheirEnds)
{
    Tunnels pair;
    ASSERT_TRUE(pair.one != nullptr && pair.other != nullptr);
    const std::string there = numbered(3000000);
    const std::string back = numbered(2000001);

    std::thread sends([&] {
        // The socket object is the reader's.
        EXPECT_EQ(btkWrite(pair.one->GetHandle(), there.data(), there.size()), there.size());
        pair.one->ShutdownOutput();
    });
    std::thread replies([&] {
        EXPECT_EQ(btkWrite(pair.other->GetHandle(), back.data(), back.size()), back.size());
        pair.other->ShutdownOutput();
    });
    std::thread reads([&] { EXPECT_TRUE(received(*pair.one, back.size() + 1) == back); });
    EXPECT_TRUE(received(*pair.other, there.size() + 1) == there);
    sends.join();
    replies.join();
    reads.join();
}

TEST(BtkTunnel, UrgentValueOvertakesInputThatIsNotRead)
{
    Tunnels pair;
    ASSERT_TRUE(pair.one != nullptr && pair.other != nullptr);
    // Small parts, as many as both ends hold.
    const std::string part = numbered(100);
    std::string sent;
    for (btkTimeval last = btkTimeval::Now();
         btkTimeval::Now() - last < (sent.size() > btkFrameWindow ? btkTimeval(0.5) : aWhile);) {
        if (btkCountPeerRoom(pair.one->GetHandle()) < part.size()) {
            usleep(1000);
            continue;
        }
        ASSERT_EQ(pair.one->Send(part.data(), part.size()), part.size());
        sent += part;
        last = btkTimeval::Now();
    }
    EXPECT_GT(sent.size(), btkFrameWindow);
    EXPECT_LT(sent.size(), 4u << 20) << "both ends hold a bounded part";

    ASSERT_EQ(pair.one->Send("\0\0\0\x9", 4, true), 4u);
    char value[4] = {};
    // It is announced before it can be read.
    EXPECT_TRUE(soon([&] { return pair.other->Recv(value, 4, true) == 4; }));
    EXPECT_EQ(value[3], 9);
    pair.one->ShutdownOutput();
    EXPECT_TRUE(received(*pair.other, sent.size() + 1) == sent);
}

TEST(BtkTunnel, FinishSendsWhatTheUserHasSent)
{
    Tunnels pair;
    ASSERT_TRUE(pair.one != nullptr && pair.other != nullptr);
    const std::string text = numbered(100000);
    ASSERT_EQ(pair.one->Send(text.data(), text.size()), text.size());
    pair.one->Close();
    pair.oneTunnel.Finish(aWhile);
    EXPECT_TRUE(received(*pair.other, text.size() + 1) == text);

    // A user that takes nothing does not hold it up for longer.
    Tunnels full;
    fill(*full.one);
    full.one->Close();
    const btkTimeval begin = btkTimeval::Now();
    full.oneTunnel.Finish(btkTimeval(0.2));
    EXPECT_LT((btkTimeval::Now() - begin).ToSeconds(), 10.0);
}

TEST(BtkTunnel, LostConnectionIsNoEnd)
{
    // The other end's program is killed: its pipes close, and no frame says that the data has ended.
    for (const std::string& before : {std::string(), framed("abc"), std::string("\7")}) {
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        btkFd far(ends[0]);
        btkFd near(ends[1]);
        const std::string first = "qel tunnel 1\n" + before;
        ASSERT_EQ(btkWrite(far.Get(), first.data(), first.size()), first.size());
        btkTunnel tunnel;
        btkFd output = near.Duplicate();
        const auto socket = tunnel.Open(std::move(near), std::move(output), aWhile);
        ASSERT_NE(socket, nullptr);
        socket->SetRecvLimit(aWhile);
        if (before != "\7")
            far.Reset();

        char byte = 0;
        std::ptrdiff_t count = 0;
        while ((count = socket->Recv(&byte, 1)) == 1) {
        }
        EXPECT_EQ(count, -1) << before.size();
        EXPECT_EQ(errno, ECONNRESET) << before.size();
    }
}

TEST(BtkTunnel, OpensWithAnotherOnly)
{
    const auto opened = [](std::string_view bytes, bool ends) {
        btkOutputPipe to, unused;
        btkInputPipe from, taken;
        EXPECT_TRUE(btkAnonymousPipe::Create(to, from) && btkAnonymousPipe::Create(unused, taken));
        EXPECT_EQ(btkWrite(to.Get(), bytes.data(), bytes.size()), bytes.size());
        if (ends) {
            to.Reset();
            taken.Reset();
        }
        btkTunnel tunnel;
        return tunnel.Open(btkFd(from.Release()), btkFd(unused.Release()), btkTimeval(0.2)) != nullptr
                   ? 0
                   : errno;
    };
    EXPECT_EQ(opened("Welcome to build7!\n", false), EPROTO);
    EXPECT_EQ(opened("Welcome to build7!\n", true), EPROTO);
    EXPECT_EQ(opened("qel tunnel 2\n", false), EPROTO);
    EXPECT_EQ(opened("qel tun", true), ECONNRESET);
    EXPECT_EQ(opened("qel tunnel 1\n", true), ECONNRESET);
    EXPECT_EQ(opened("qel tun", false), ETIMEDOUT);
    EXPECT_EQ(opened("qel tunnel 1\n", false), 0);
}
