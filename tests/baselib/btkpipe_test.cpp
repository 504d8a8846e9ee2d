#include <fcntl.h>

#include <qel/base/btkpipe.h>

#include "support/interrupt.h"
#include "support/test.h"

namespace {

class btkPipe : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(btkAnonymousPipe::Create(output, input)); }

    btkOutputPipe output;
    btkInputPipe input;
};

} // namespace

TEST_F(btkPipe, ClosesItsEndsOnExecAndOnDestruction)
{
    EXPECT_EQ(fcntl(input.Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(output.Get(), F_GETFD), FD_CLOEXEC);
    const btkHandle second = output.Duplicate().Get();
    EXPECT_EQ(fcntl(second, F_GETFD), -1);

    btkFd moved = std::move(output);
    EXPECT_FALSE(output);
    moved.Reset();

    char byte;
    EXPECT_EQ(btkRead(input.Get(), &byte, 1), 0);
}

TEST_F(btkPipe, WritingToABrokenPipeRaisesNoSignalInTheCaller)
{
    input.Reset();
    EXPECT_EQ(btkWrite(output.Get(), "x", 1), 0u);
    EXPECT_EQ(errno, EPIPE);

    // A signal that the caller had blocked and pending stays so.
    sigset_t pipeSignal, before, pending;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipeSignal, &before);
    EXPECT_EQ(btkWrite(output.Get(), "x", 1), 0u);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    raise(SIGPIPE);
    EXPECT_EQ(btkWrite(output.Get(), "x", 1), 0u);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
    int taken;
    sigwait(&pipeSignal, &taken);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(btkPipe, TransfersEverythingThoughCallsAreInterruptedAndWouldBlock)
{
    const std::string sent(1 << 20, 'q');
    std::string received(sent.size(), ' ');
    fcntl(output.Get(), F_SETFL, O_NONBLOCK);
    fcntl(input.Get(), F_SETFL, O_NONBLOCK);
    Interrupter interrupter;

    std::thread writer([&] { EXPECT_EQ(btkWrite(output.Get(), sent.data(), sent.size()), sent.size()); });
    std::size_t got = 0;
    while (got < received.size()) {
        const auto more = btkRead(input.Get(), received.data() + got, received.size() - got);
        ASSERT_GT(more, 0);
        got += static_cast<std::size_t>(more);
    }
    writer.join();

    EXPECT_EQ(received, sent);
}

TEST_F(btkPipe, ReportsBytesThatCanBeReadAndWrittenWithoutBlocking)
{
    bool broken = true;
    EXPECT_FALSE(btkIsReadable(input.Get()));
    EXPECT_EQ(btkCountReadable(input.Get()), 0u);
    const std::size_t room = btkCountWritable(output.Get(), broken);
    EXPECT_GE(room, 4096u);
    EXPECT_FALSE(broken);

    EXPECT_EQ(btkWrite(output.Get(), "12345", 5), 5u);
    EXPECT_TRUE(btkIsReadable(input.Get()));
    EXPECT_EQ(btkCountReadable(input.Get()), 5u);

    // The promise holds: the descriptor accepts that many bytes in one non-blocking call.
    fcntl(output.Get(), F_SETFL, O_NONBLOCK);
    char byte;
    EXPECT_EQ(btkRead(input.Get(), &byte, 1), 1);
    while (const std::size_t left = btkCountWritable(output.Get(), broken)) {
        const std::string part(left < 3001 ? left : 3001, 'z'); // each leaves part of a page unused
        ASSERT_EQ(write(output.Get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
    }
    EXPECT_FALSE(broken);

    input.Reset();
    EXPECT_EQ(btkCountWritable(output.Get(), broken), 0u);
    EXPECT_TRUE(broken);
}
