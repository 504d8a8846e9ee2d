#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/base/xbufaccess.h>
#include <qel/base/xfilebuf.h>
#include <qel/base/xpipebuf.h>
#include <qel/base/xsocketbuf.h>
#include <qel/base/xstdbuf.h>
#include <qel/base/xstringbuf.h>

#include "support/child.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

std::string Take(std::streambuf& buffer, std::size_t count)
{
    std::string text(count, '\0');
    text.resize(static_cast<std::size_t>(buffer.sgetn(text.data(), static_cast<std::streamsize>(count))));
    return text;
}

std::streamsize Put(std::streambuf& buffer, std::string_view text)
{
    return buffer.sputn(text.data(), static_cast<std::streamsize>(text.size()));
}

// Up to `count` bytes of a try view.
std::string Try(xstreambuf& buffer, std::size_t count)
{
    const std::string text = Take(*buffer.GetTryIBuf(), count);
    buffer.FreeTryIBuf();
    return text;
}

// A buffer that exposes the protected operations that the standard library may call.
template<class Buffer>
struct Opened : Buffer
{
    using Buffer::Buffer;
    using Buffer::overflow;
    using Buffer::underflow;
};

class PipeBuffers : public testing::Test
{
protected:
    void SetUp() override
    {
        btkOutputPipe writing;
        btkInputPipe reading;
        ASSERT_TRUE(btkAnonymousPipe::Create(writing, reading));
        output = std::make_unique<xopipebuf>(std::move(writing));
        input = std::make_unique<xipipebuf>(std::move(reading));
    }

    std::unique_ptr<xopipebuf> output;
    std::unique_ptr<xipipebuf> input;
};

} // namespace

TEST(xstringbuf, ShowsWrittenBytesAtOnce)
{
    xstringbuf buffer;
    EXPECT_EQ(buffer.sgetc(), EOF);

    EXPECT_EQ(Put(buffer, "abc"), 3);
    EXPECT_EQ(Take(buffer, 2), "ab");
    buffer.sputc('d');
    EXPECT_EQ(buffer.CountReadable(), 2u);
    EXPECT_EQ(Take(buffer, 5), "cd");

    std::string all = "abcd";
    for (int i = 0; i < 1000; ++i) {
        const std::string part(static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
        all += part;
        Put(buffer, part);
        EXPECT_EQ(Take(buffer, part.size()), part);
    }
    EXPECT_EQ(std::string(buffer.GetText(), buffer.GetSize()), all);
    EXPECT_EQ(buffer.in_avail(), -1);
    buffer.sputc('x');
    EXPECT_EQ(buffer.in_avail(), 1);
    EXPECT_THROW(Put(buffer, std::string_view("x", static_cast<std::size_t>(-1) / 4)), std::bad_alloc);
    EXPECT_EQ(Take(buffer, 2), "x");
}

TEST(xstringbuf, RejectsWritesIntoAGivenText)
{
    xstringbuf buffer("text", 4);

    EXPECT_EQ(Put(buffer, "x"), 0);
    EXPECT_EQ(buffer.sputc('x'), EOF);
    EXPECT_EQ(Take(buffer, 9), "text");
    EXPECT_EQ(std::string(buffer.GetText(), buffer.GetSize()), "text");
}

TEST(xstringbuf, TryViewConsumesNothingAndReportsTheEnd)
{
    xstringbuf buffer;
    Put(buffer, "12345");
    Take(buffer, 1);

    EXPECT_EQ(Try(buffer, 3), "234");
    EXPECT_FALSE(buffer.IsTryExhausted());
    EXPECT_EQ(Try(buffer, 9), "2345");
    EXPECT_TRUE(buffer.IsTryExhausted());
    EXPECT_TRUE(buffer.IsEofReached());
    EXPECT_EQ(Take(buffer, 9), "2345");
    EXPECT_EQ(buffer.GetTryOBuf(), nullptr);
}

TEST(xstringbuf, OfTheNullTextIsAtItsEnd)
{
    xstringbuf buffer("", 0);
    EXPECT_EQ(buffer.sgetc(), EOF);
    EXPECT_EQ(buffer.CountReadable(), 0u);
    EXPECT_EQ(std::string(buffer.GetText(), buffer.GetSize()), "");
}

TEST(xbufaccess, ReadsAndWritesDirectlyInTheAreas)
{
    xstringbuf buffer;
    EXPECT_EQ(xbufaccess::Reserve(buffer, 1), nullptr);
    Put(buffer, "a");

    char* const room = xbufaccess::Reserve(buffer, 3);
    ASSERT_NE(room, nullptr);
    std::copy_n("bcd", 3, room);
    xbufaccess::Commit(buffer, 3);
    EXPECT_EQ(buffer.CountReadable(), 4u);

    EXPECT_EQ(xbufaccess::View(buffer, 5), nullptr);
    EXPECT_EQ(std::string(xbufaccess::View(buffer, 4), 4), "abcd");
    xbufaccess::Consume(buffer, 3);
    EXPECT_EQ(Take(buffer, 2), "d");
}

TEST_F(PipeBuffers, WriteUnbufferedAndReadAllRequestedBytes)
{
    EXPECT_EQ(input->in_avail(), 0) << "some may come";
    Put(*output, "12");
    EXPECT_EQ(input->CountReadable(), 2u);
    std::thread writer([&] {
        Put(*output, "345");
        output->sputc('6');
    });

    EXPECT_EQ(Take(*input, 6), "123456");

    writer.join();
    output.reset();
    EXPECT_EQ(Take(*input, 1), "");
    EXPECT_TRUE(input->IsEofReached());
    EXPECT_EQ(input->in_avail(), -1);
    EXPECT_EQ(Take(*input, 1 << 20), "");
}

TEST_F(PipeBuffers, ShowArrivedBytesAndDistinguishAPauseFromTheEnd)
{
    EXPECT_EQ(Try(*input, 4), "");
    EXPECT_TRUE(input->IsTryExhausted());
    EXPECT_FALSE(input->IsEofReached());

    Put(*output, "abc");
    EXPECT_EQ(Try(*input, 3), "abc");
    EXPECT_FALSE(input->IsTryExhausted());
    Put(*output, "d");
    EXPECT_EQ(input->CountReadable(), 4u);
    EXPECT_EQ(Try(*input, 4), "abcd");
    EXPECT_EQ(Try(*input, 5), "abcd");
    EXPECT_FALSE(input->IsEofReached());

    Put(*output, "e");
    output.reset();
    EXPECT_EQ(Try(*input, 6), "abcde"); // the view that takes the last byte sees the end as well
    EXPECT_TRUE(input->IsEofReached());
    EXPECT_EQ(Take(*input, 9), "abcde");
}

TEST_F(PipeBuffers, SignalBufferedAndPendingInputAndTheEnd)
{
    btkEvent pending(input->GetInputEvent());
    EXPECT_FALSE(pending.IsSignaled());

    Put(*output, "abc");
    EXPECT_TRUE(pending.IsSignaled());
    EXPECT_EQ(Take(*input, 1), "a"); // "bc" is held now, the pipe is empty
    EXPECT_EQ(btkEvent::Wait({&pending}, btkTimeval::Forever()), 1);

    EXPECT_EQ(Take(*input, 2), "bc");
    EXPECT_FALSE(pending.IsSignaled());
    output.reset();
    EXPECT_TRUE(pending.IsSignaled());
    input.reset();
    EXPECT_TRUE(pending.IsSignaled()); // a wait for a destroyed buffer ends
}

TEST_F(PipeBuffers, DoNotEndAWaitForMoreBytesThanArrived)
{
    btkEvent pending(input->GetInputEvent());
    Put(*output, "ab");
    EXPECT_EQ(Try(*input, 4), "ab");

    EXPECT_FALSE(pending.IsSignaled());
    EXPECT_EQ(btkEvent::Wait({&pending}, {}), 0);
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(btkEvent::Wait({&pending}, btkTimeval(0.05)), 0);
    EXPECT_GE(btkTimeval::Now() - start, btkTimeval(0.05));
    EXPECT_FALSE(pending.WasSignaled());

    Put(*output, "cd");
    EXPECT_EQ(btkEvent::Wait({&pending}, btkTimeval::Forever()), 1);
    EXPECT_EQ(Try(*input, 4), "abcd");
    EXPECT_EQ(Take(*input, 1), "a");
    EXPECT_EQ(btkEvent::Wait({&pending}, btkTimeval::Forever()),
              1); // some were consumed: the rest may suffice now

    // As many bytes in the same place, but new ones: not examined yet.
    EXPECT_EQ(Try(*input, 9), "bcd");
    EXPECT_EQ(Take(*input, 3), "bcd");
    Put(*output, "xyz!");
    EXPECT_EQ(Take(*input, 1), "x");
    EXPECT_EQ(btkEvent::Wait({&pending}, btkTimeval::Forever()), 1);
}

TEST(xopipebuf, ResetsItsEventAfterAShortTryUntilThereIsMoreRoom)
{
    btkOutputPipe output;
    btkInputPipe input;
    ASSERT_TRUE(btkAnonymousPipe::Create(output, input));
    xopipebuf buffer(std::move(output));
    btkEvent writable(buffer.GetOutputEvent());
    const std::string page(4096, 'p'), three(12288, 't');
    const auto tries = [&](const std::string& text) {
        const std::streamsize taken = Put(*buffer.GetTryOBuf(), text);
        buffer.FreeTryOBuf();
        return taken == static_cast<std::streamsize>(text.size());
    };
    const auto readPage = [&] {
        char taken[4096];
        EXPECT_EQ(btkRead(input.Get(), taken, sizeof taken), 4096);
    };
    while (tries(page))
        Put(buffer, page);
    readPage();

    EXPECT_EQ(btkEvent::Wait({&writable}, {}), 1);
    EXPECT_FALSE(tries(three));
    EXPECT_EQ(btkEvent::Wait({&writable}, btkTimeval(0.03)), 0);
    EXPECT_FALSE(writable.IsSignaled());
    EXPECT_TRUE(tries(page));
    EXPECT_TRUE(writable.IsSignaled());

    EXPECT_FALSE(tries(three));
    std::thread reader([&] {
        while (btkCountReadable(input.Get()) > 0)
            readPage();
    });
    EXPECT_EQ(btkEvent::Wait({&writable}, btkTimeval::Forever()), 1);
    reader.join();
    EXPECT_TRUE(tries(three));
    EXPECT_FALSE(tries(std::string(1 << 20, 'l')));
    EXPECT_TRUE(buffer.IsTryTooLarge());

    EXPECT_TRUE(tries(page));
    Put(buffer, "x");
    EXPECT_FALSE(tries(three));
    input.Reset();
    EXPECT_EQ(btkEvent::Wait({&writable}, btkTimeval::Forever()), 1); // without a reader, too
}

TEST(StandardBuffers, KeepTheirOrderWithOutputOfTheStandardLibrary)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        xostdbuf output(0), error(1);
        fputs("1", stdout);
        output.sputc('2');
        fputs("3", stdout);
        Put(output, "4");
        Put(error, "e");
        output.pubsync();
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1234");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "e");
}

TEST(AllBuffers, WriteNothingForTheEndOfFile)
{
    const TempDir dir;
    btkStreamSocket socket;
    btkFd file = btkOpenFile(dir.path("f").c_str(), btkOpenWrite | btkOpenCreate);
    Opened<xstringbuf> text;
    Opened<xoutputbuf> output(file.Get());
    Opened<xostdbuf> standard(0);
    Opened<xsocketbuf> connection(&socket);
    EXPECT_NE(text.overflow(EOF), EOF);
    EXPECT_NE(output.overflow(EOF), EOF);
    EXPECT_NE(standard.overflow(EOF), EOF);
    EXPECT_NE(connection.overflow(EOF), EOF);
    EXPECT_EQ(text.GetSize(), 0u);
    EXPECT_EQ(dir.read("f"), "");
}

TEST(AllBuffers, PassOnCopiesThatTheKernelCanMake)
{
    const TempDir dir;
    const std::string bytes(200000, 'b');
    dir.write("from", bytes);
    const auto open = [&](const char* name, xfilebuf::Mode mode) {
        return std::unique_ptr<xfilebuf>(xfilebuf::Open(dir.path(name).c_str(), mode));
    };
    const auto from = open("from", xfilebuf::Read);
    const auto to = open("to", xfilebuf::Write);
    Put(*to, "head");
    from->PassTo(*to);
    EXPECT_EQ(from->sgetc(), EOF);
    Put(*to, "tail");
    to->pubsync();
    EXPECT_TRUE(dir.read("to") == "head" + bytes + "tail");

    // Buffered input, the same file, a wrong open mode, a text buffer and a full disk need a plain copy.
    from->Seek(0, std::ios_base::beg);
    EXPECT_EQ(from->sgetc(), 'b');
    from->PassTo(*to);
    EXPECT_EQ(from->Tell(), 0);
    from->Seek(0, std::ios_base::beg);
    from->PassTo(*from);
    EXPECT_EQ(from->Tell(), 0);
    to->PassTo(*from);
    xstringbuf text;
    from->PassTo(text);
    EXPECT_EQ(from->Tell(), 0);
    EXPECT_EQ(text.GetSize(), 0u);
    const std::unique_ptr<xfilebuf> full(xfilebuf::Open("/dev/full", xfilebuf::ReadWrite));
    Put(*full, "pending");
    from->PassTo(*full);
    EXPECT_EQ(from->Tell(), 0);
    EXPECT_EQ(Take(*from, 3), "bbb");
    full->DropPending();
    to->pubsync();
    EXPECT_EQ(dir.read("to").size(), bytes.size() + 8);
}

TEST(StandardBuffers, ShowWrittenOutputBeforeTheyWaitForInput)
{
    btkOutputPipe writing;
    btkInputPipe reading;
    ASSERT_TRUE(btkAnonymousPipe::Create(writing, reading));
    const btkFd kept(dup(0));
    testing::internal::CaptureStdout();
    ASSERT_EQ(dup2(reading.Get(), 0), 0);
    fputs("question ", stdout);
    bool isShown = false;
    std::thread answerer([&] {
        const btkTimeval end = btkTimeval::Now() + btkTimeval(10.0);
        struct stat shown = {};
        while (!isShown && btkTimeval::Now() < end)
            isShown = fstat(1, &shown) == 0 && shown.st_size == 9;
        btkWrite(writing.Get(), "answer", 6);
    });

    xistdbuf input;
    EXPECT_EQ(Take(input, 6), "answer");

    answerer.join();
    EXPECT_TRUE(isShown);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "question ");
    dup2(kept.Get(), 0);
}

TEST(StandardBuffers, FailWithoutASignalWhenTheReaderIsClosed)
{
    btkOutputPipe writing;
    btkInputPipe reading;
    ASSERT_TRUE(btkAnonymousPipe::Create(writing, reading));
    reading.Reset();
    EXPECT_EQ(runInChild([&] {
                  dup2(writing.Get(), 1);
                  dup2(writing.Get(), 2);
                  xostdbuf output(0), error(1);
                  const bool isCollected = output.sputc('x') == 'x';
                  const bool isWritten = error.sputc('x') == 'x' || Put(error, "more") == 4;
                  return isCollected && output.pubsync() == -1 && !isWritten ? 0 : 1;
              }),
              0);
}

TEST(StandardBuffers, ReadStandardInputAndShowItByTryViews)
{
    btkOutputPipe writing;
    btkInputPipe reading;
    ASSERT_TRUE(btkAnonymousPipe::Create(writing, reading));
    const btkFd kept(dup(0));
    ASSERT_EQ(dup2(reading.Get(), 0), 0);

    xistdbuf input;
    EXPECT_EQ(btkWrite(writing.Get(), "line\n", 5), 5u);
    EXPECT_EQ(Try(input, 5), "line\n");
    EXPECT_EQ(Take(input, 4), "line");
    writing.Reset();
    EXPECT_EQ(Take(input, 4), "\n");
    EXPECT_TRUE(input.IsEofReached());

    dup2(kept.Get(), 0);
}
