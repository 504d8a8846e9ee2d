#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btkcarrier.h>
#include <qel/base/xsocketbuf.h>

#include "support/carried.h"
#include "support/descriptors.h"
#include "support/test.h"
#include "support/wire.h"

namespace {

constexpr btkTimeval aWhile(20, 0);
constexpr btkTimeval shortly(0, 50000);

// Two ends, between which the kernel holds little.
class BtkCarrier : public testing::Test
{
protected:
    BtkCarrier()
    {
        auto one = std::make_unique<btkStreamSocket>(), other = std::make_unique<btkStreamSocket>();
        if (!SocketPair::connect(*one, *other))
            return;
        for (btkStreamSocket* const socket : {one.get(), other.get()}) {
            const int room = 32 << 10;
            setsockopt(socket->GetHandle(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
            btkSetOwnRoom(socket->GetHandle(), room);
        }
        near = carried(std::move(one));
        far = carried(std::move(other));
    }

    std::unique_ptr<btkStreamSocket> near, far;
};

} // namespace

TEST_F(BtkCarrier, CarriesMuchInBothDirectionsToTheEnd)
{
    ASSERT_NE(far, nullptr);
    const std::string data = numbered(3000001);
    std::thread echoes([&] {
        EXPECT_TRUE(received(*far, data.size() + 1) == data);
        EXPECT_EQ(far->Send(data.data(), data.size()), data.size());
        far->Close(); // sends the rest
    });
    EXPECT_EQ(near->Send(data.data(), data.size()), data.size());
    near->ShutdownOutput();
    EXPECT_EQ(near->Send("x", 1), 0u);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(received(*near, data.size() + 1) == data);
    char byte = 0;
    EXPECT_EQ(near->Recv(&byte, 1), 0);
    echoes.join();
}

TEST_F(BtkCarrier, EndsThatBothWriteTakeEachOthersWindow)
{
    ASSERT_NE(far, nullptr);
    const std::string data = numbered(btkFrameWindow);
    const auto exchange = [&](btkStreamSocket& own) {
        EXPECT_EQ(own.Send(data.data(), data.size()), data.size());
        EXPECT_TRUE(received(own, data.size()) == data);
    };
    std::thread other([&] { exchange(*far); });
    exchange(*near);
    other.join();
}

TEST_F(BtkCarrier, WindowBoundsDataButNoUrgentValues)
{
    ASSERT_NE(far, nullptr);
    xsocketbuf buffer(far.get()), nearBuffer(near.get());
    btkEvent urgent(buffer.GetUrgentEvent()), room(nearBuffer.GetOutputEvent());
    const std::string data = numbered(btkFrameWindow + 1);
    std::thread sends([&] {
        near->SetSendLimit(aWhile);
        EXPECT_EQ(near->Send(data.data(), btkFrameWindow), btkFrameWindow);
        EXPECT_EQ(near->Send("\0\0\0\x9", 4, true), 4u);
        EXPECT_FALSE(room.IsSignaled());
        near->SetSendLimit(shortly);
        EXPECT_EQ(near->Send(&data[btkFrameWindow], 1), 0u);
        EXPECT_TRUE(near->IsLimitPassed());
    });
    EXPECT_EQ(btkEvent::Wait({&urgent}, aWhile), 1);
    char value[4] = {};
    EXPECT_EQ(far->Recv(value, 4, true), 4);
    EXPECT_EQ(value[3], 9);
    EXPECT_FALSE(urgent.IsSignaled());
    EXPECT_EQ(far->Recv(value, 4, true), 0);
    sends.join();

    // Only reading makes room.
    EXPECT_EQ(btkEvent::Wait({&room}, shortly), 0);
    EXPECT_EQ(far->CountReadable(), btkFrameWindow);
    EXPECT_TRUE(received(*far, btkFrameWindow) == data.substr(0, btkFrameWindow));
    EXPECT_EQ(btkEvent::Wait({&room}, aWhile), 1);
    near->SetSendLimit(aWhile);
    EXPECT_EQ(near->Send(&data[btkFrameWindow], 1), 1u);
    EXPECT_TRUE(received(*far, 1) == data.substr(btkFrameWindow));
}

TEST_F(BtkCarrier, WaitsSeeDataAndNotWhatElsePasses)
{
    ASSERT_NE(far, nullptr);
    xsocketbuf buffer(near.get());
    btkEvent input(buffer.GetInputEvent());
    char byte = 0;
    EXPECT_EQ(near->TryRecv(&byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(far->Send("\0\0\0\x9", 4, true), 4u);
    EXPECT_EQ(btkEvent::Wait({&input}, shortly), 0);
    EXPECT_FALSE(near->IsReadable(shortly));
    near->SetRecvLimit(shortly);
    EXPECT_EQ(near->Recv(&byte, 1), -1);
    EXPECT_TRUE(near->IsLimitPassed());
    EXPECT_TRUE(near->HasUrgent());

    EXPECT_EQ(far->Send("ab", 2), 2u);
    EXPECT_EQ(btkEvent::Wait({&input}, aWhile), 1);
    EXPECT_EQ(near->CountReadable(), 2u);
    EXPECT_EQ(received(*near, 1), "a");
    EXPECT_TRUE(input.IsSignaled());
    EXPECT_EQ(received(*near, 1), "b");
    EXPECT_FALSE(input.IsSignaled());
    far->Close();
    EXPECT_EQ(btkEvent::Wait({&input}, aWhile), 1);
    EXPECT_EQ(near->Recv(&byte, 1), 0);
}

TEST_F(BtkCarrier, ClosedEndSendsTheRestWhileThePeerGrants)
{
    ASSERT_NE(far, nullptr);
    const long before = openDescriptors();
    const std::string data = numbered(btkFrameWindow);
    std::atomic<bool> isClosed = false;
    std::thread sends([&] {
        EXPECT_EQ(near->Send(data.data(), data.size()), data.size());
        near->Close();
        isClosed = true;
    });
    // As much as lets it close; the rest is still on its way then.
    std::string got;
    while (!isClosed && got.size() < data.size() - 32768)
        got += received(*far, 4096);
    sends.join();
    EXPECT_TRUE(got + received(*far, data.size()) == data);
    far->Close();
    EXPECT_TRUE(soon([&] { return openDescriptors() == before - 4; }));
}

TEST_F(BtkCarrier, LostConnectionIsNoEnd)
{
    ASSERT_NE(far, nullptr);
    // The far end's data ends without a frame that says so, or is none.
    for (const char* const last : {"", "\7"}) {
        SCOPED_TRACE(last);
        SocketPair pair;
        auto plain = std::make_unique<btkStreamSocket>();
        plain->Adopt(btkFd(dup(pair.near.GetHandle())));
        pair.near.Close();
        const auto socket = carried(std::move(plain));
        xsocketbuf buffer(socket.get());
        btkEvent urgent(buffer.GetUrgentEvent()), room(buffer.GetOutputEvent());
        std::string frames;
        btkPutDataFrame(frames, "abc");
        frames += last;
        ASSERT_EQ(pair.far.Send(frames.data(), frames.size()), frames.size());
        if (*last == '\0')
            pair.far.ShutdownOutput();

        EXPECT_EQ(received(*socket, 3), "abc");
        char byte = 0;
        EXPECT_EQ(socket->Recv(&byte, 1), -1);
        EXPECT_EQ(errno, ECONNRESET);
        EXPECT_EQ(socket->GetCarrier()->GetFailure({}), "it was cut");
        EXPECT_TRUE(urgent.IsSignaled());
        EXPECT_TRUE(room.IsSignaled());
        EXPECT_EQ(socket->Send("x", 1), 0u);
        EXPECT_FALSE(socket->UseKernelSocket());
        EXPECT_EQ(pair.far.Recv(&byte, 1), 0) << "the peer learns it";
    }
}

TEST_F(BtkCarrier, BecomesASocketOfTheKernelBetweenTwoBytes)
{
    ASSERT_NE(far, nullptr);
    const std::string data = numbered(200000);
    const std::string peer = near->GetPeerAddrStr();
    ASSERT_EQ(far->Send("\0\0\0\x9", 4, true), 4u);
    std::thread sends([&] { EXPECT_EQ(far->Send(data.data(), data.size()), data.size()); });
    EXPECT_TRUE(received(*near, 1000) == data.substr(0, 1000));
    EXPECT_GT(near->CountReadable(), 0u);
    const btkHandle handle = near->GetHandle();

    ASSERT_TRUE(near->UseKernelSocket());
    ASSERT_TRUE(near->UseKernelSocket());
    EXPECT_EQ(near->GetHandle(), handle);
    EXPECT_TRUE(near->IsEncrypted());
    EXPECT_EQ(near->GetCarrier()->peerNames.at(0), "words");
    EXPECT_EQ(near->GetPeerAddrStr(), peer);
    EXPECT_EQ(near->GetPeerUser(), btkGetOwnUser());
    std::string rest(data.size() - 1000, 0);
    EXPECT_EQ(static_cast<std::size_t>(recv(handle, rest.data(), 1, MSG_PEEK)), 1u);
    EXPECT_TRUE(received(*near, rest.size()) == data.substr(1000));
    sends.join();
    char value[4] = {};
    EXPECT_TRUE(soon([&] { return near->Recv(value, 4, true) == 4; }));
    EXPECT_EQ(value[3], 9);
    EXPECT_EQ(btkWrite(handle, "abc", 3), 3u);
    EXPECT_EQ(received(*far, 3), "abc");
    near->Close();
    EXPECT_EQ(far->Recv(value, 1), 0);
}
