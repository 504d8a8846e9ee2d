#include <sys/socket.h>

#include <qel/base/xsocketbuf.h>

#include "support/socketpair.h"
#include "support/test.h"

namespace {

const btkTimeval aWhile(10, 0);

struct Ends : SocketPair
{
    std::unique_ptr<xsocketbuf> out = std::make_unique<xsocketbuf>(&near);
    std::unique_ptr<xsocketbuf> in = std::make_unique<xsocketbuf>(&far);

    void write(const std::string& text)
    {
        ASSERT_EQ(out->sputn(text.data(), static_cast<std::streamsize>(text.size())),
                  static_cast<std::streamsize>(text.size()));
    }
    std::string read(std::size_t count)
    {
        std::string got(count, 0);
        got.resize(static_cast<std::size_t>(in->sgetn(got.data(), static_cast<std::streamsize>(count))));
        return got;
    }
    std::string urgent()
    {
        btkEvent come(in->GetUrgentEvent());
        EXPECT_EQ(btkEvent::Wait({&come}, aWhile), 1);
        char value[4] = {};
        return {value, in->ReceiveUrgent(value)};
    }
};

} // namespace

TEST(xsocketbuf, SendsPendingOutputBeforeItWaits)
{
    Ends ends;
    ends.write("question");
    EXPECT_FALSE(ends.far.IsReadable(btkTimeval(0, 20000))) << "small output is collected";

    std::thread answerer([&] {
        EXPECT_EQ(ends.read(8), "question");
        ends.in->sputn("answer", 6);
        ends.in->pubsync();
    });
    char answer[6];
    EXPECT_EQ(ends.out->sgetn(answer, 6), 6); // without a flush
    answerer.join();

    ends.write("waited for");
    btkEvent input(ends.out->GetInputEvent());
    EXPECT_EQ(btkEvent::Wait({&input}, btkTimeval(0, 20000)), 0);
    EXPECT_TRUE(ends.far.IsReadable(aWhile));
    EXPECT_EQ(ends.read(10), "waited for");

    ends.write("last");
    ends.out.reset();
    ends.near.Close();
    EXPECT_EQ(ends.read(100), "last");
    EXPECT_TRUE(ends.in->IsEofReached());
    EXPECT_TRUE(input.IsSignaled()) << "an event outlives its buffer";
}

TEST(xsocketbuf, SeparatesUrgentValuesAtEveryOffset)
{
    std::string stream(70000, 0);
    for (std::size_t i = 0; i < stream.size(); ++i)
        stream[i] = static_cast<char>(i * 7 + i / 251);
    for (std::size_t before :
         {0, 1, 2, 3, 4, 5, 7, 8, 4095, 32767, 32768, 32769, 65533, 65534, 65535, 65536}) {
        for (std::size_t early : {std::size_t(0), std::size_t(1), before / 2, before}) {
            SCOPED_TRACE(testing::Message() << before << " before, " << early << " read early");
            early = std::min(early, before);
            Ends ends;
            ends.write(stream.substr(0, before));
            ends.out->pubsync();
            EXPECT_TRUE(ends.read(early) == stream.substr(0, early));
            ASSERT_TRUE(ends.out->SendUrgent("\0\xFFmn"));
            ends.write(stream.substr(before));
            ends.out->pubsync();

            EXPECT_EQ(ends.urgent(), std::string("\0\xFFmn", 4));
            EXPECT_TRUE(ends.read(stream.size() - early) == stream.substr(early));
        }
    }
}

TEST(xsocketbuf, UrgentValueAloneIsNoInput)
{
    Ends ends;
    btkEvent input(ends.in->GetInputEvent());
    btkEvent come(ends.in->GetUrgentEvent());
    ends.out->SendUrgent("wxyz");

    EXPECT_EQ(btkEvent::Wait({&come}, aWhile), 1);
    EXPECT_EQ(btkEvent::Wait({&input}, btkTimeval(0, 20000)), 0);
    std::streambuf* const view = ends.in->GetTryIBuf();
    EXPECT_EQ(view->sgetc(), EOF);
    EXPECT_FALSE(ends.in->IsEofReached());
    ends.in->FreeTryIBuf();
    EXPECT_TRUE(come.IsSignaled()) << "looking for input must not lose the value";
    EXPECT_EQ(ends.urgent(), "wxyz");
    EXPECT_FALSE(come.IsSignaled());
}

TEST(xsocketbuf, WaitForUrgentValuesEndsWithTheConnection)
{
    Ends ends;
    btkEvent come(ends.in->GetUrgentEvent());
    ends.write("unread");
    ends.out->pubsync();
    ASSERT_TRUE(ends.far.IsReadable(aWhile));
    EXPECT_EQ(btkEvent::Wait({&come}, btkTimeval(0, 20000)), 0);

    btkResetOnClose(ends.near.GetHandle(), true);
    ends.out.reset();
    ends.near.Close();
    EXPECT_EQ(btkEvent::Wait({&come}, aWhile), 1);
    EXPECT_EQ(ends.urgent(), "");
}

TEST(xsocketbuf, ViewShowsReceivedBytesWithoutConsumingThem)
{
    Ends ends;
    ends.write("abc");
    ends.out->pubsync();
    ASSERT_TRUE(ends.far.IsReadable(aWhile));
    char got[8] = {};

    EXPECT_EQ(ends.in->GetTryIBuf()->sgetn(got, 8), 3);
    EXPECT_TRUE(ends.in->IsTryExhausted());
    ends.in->FreeTryIBuf();
    EXPECT_EQ(ends.in->CountReadable(), 3u);
    EXPECT_EQ(ends.read(3), "abc");
}

TEST(xsocketbuf, TestsWritesAndSendsNothing)
{
    Ends ends;
    std::streambuf* area = ends.out->GetTryOBuf();
    EXPECT_EQ(area->sputn("abc", 3), 3);
    EXPECT_EQ(area->sputc('d'), 'd');
    ends.out->FreeTryOBuf();
    EXPECT_FALSE(ends.out->IsTryExhausted());
    ends.write("x");
    EXPECT_EQ(ends.out->GetTryOBuf()->sputn("abc", 3), 3) << "also while some is collected";
    ends.out->pubsync();
    EXPECT_EQ(ends.read(1), "x");

    // Once the connection is full, only this buffer accepts output.
    btkEvent writable(ends.out->GetOutputEvent());
    const std::string block(4096, 'b');
    bool broken = false;
    while (btkCountWritable(ends.near.GetHandle(), broken) > 0)
        send(ends.near.GetHandle(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    EXPECT_FALSE(broken);
    EXPECT_FALSE(writable.IsSignaled());
    area = ends.out->GetTryOBuf();
    std::size_t taken = 0;
    while (area->sputc('c') == 'c')
        ++taken;
    EXPECT_GT(taken, 0u);
    EXPECT_TRUE(ends.out->IsTryExhausted());

    btkResetOnClose(ends.far.GetHandle(), true);
    ends.in.reset();
    ends.far.Close();
    EXPECT_EQ(btkEvent::Wait({&writable}, aWhile), 1);
    EXPECT_EQ(ends.out->GetTryOBuf()->sputc('x'), EOF);
    EXPECT_FALSE(ends.out->IsTryExhausted()) << "waiting will not help";
    ends.out->sputc('y'); // it is collected,
    EXPECT_EQ(ends.out->pubsync(), -1);
    EXPECT_FALSE(ends.out->SendUrgent("0123"));
    EXPECT_EQ(ends.out->sputn(block.data(), 4096), 4096);
    EXPECT_EQ(ends.out->sputn(std::string(1 << 20, 'z').data(), 1 << 20), 0)
        << "and fails when it is to be sent";
}

TEST(xsocketbuf, ReceivesArrivedBytesBeforeItSends)
{
    Ends ends;
    ends.in->sputn("here", 4);
    ends.in->pubsync();
    ASSERT_TRUE(ends.near.IsReadable(aWhile));
    ends.write("collected");
    char got[4];
    EXPECT_EQ(ends.out->sgetn(got, 4), 4);
    EXPECT_FALSE(ends.far.IsReadable(btkTimeval(0, 20000))) << "nothing had to wait";

    ends.in.reset();
    ends.far.Close();
    EXPECT_EQ(ends.out->sgetc(), EOF);
    EXPECT_TRUE(ends.out->IsEofReached());
}
