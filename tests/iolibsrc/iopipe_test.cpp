#include <ctime>

#include <qel/evteventarray.h>

#include "iosupport.h"
#include "support/test.h"

namespace {

class PipeStreams : public testing::Test
{
protected:
    PipeStreams() : pipe(ioPipe::Create()), out(*pipe->getWriteEnd()), in(*pipe->getReadEnd()) {}

    void UseForm(ioSerializer* form)
    {
        out.setSerializer(form);
        in.setSerializer(form);
    }

    Owned<ioPipe> pipe;
    ioPipeStream& out;
    ioPipeStream& in;
};

} // namespace

TEST_F(PipeStreams, TransferValuesInBinaryForm)
{
    EXPECT_EQ(out.getCanRead(), 0);
    EXPECT_EQ(in.getCanWrite(), 0);
    out.WriteInt(0x01020304);
    EXPECT_EQ(in.PeekNBytes(), 4u);
    int native = 0;
    in.ReadBytes(&native, sizeof native);
    EXPECT_EQ(native, 0x01020304);

    out.WriteString("text");
    out.WriteReal(0.5);
    out.Close();
    EXPECT_EQ(textOf(in.ReadString(nullptr)), "text");
    EXPECT_EQ(in.ReadReal(), 0.5);
    EXPECT_EQ(FailureOf([&] { in.ReadByte(); }), "Stream Error (iolib): EOF reached");
}

TEST_F(PipeStreams, WouldBlockUntilTheWholeValueOrTheEndArrives)
{
    EXPECT_EQ(in.TryReadInt(), ioWouldBlock);
    out.WriteBytes("\1\2\2", 3);
    EXPECT_EQ(in.TryReadByte(), ioSuccess);
    EXPECT_EQ(in.TryReadInt(), ioWouldBlock);
    out.WriteByte(1);
    EXPECT_EQ(in.TryReadInt(), ioSuccess);
    EXPECT_EQ(in.PeekNBytes(), 4u);
    EXPECT_EQ(in.ReadInt(), 0x01020201); // in either order of bytes

    out.WriteInt(5); // the length of a string
    out.WriteBytes("abcd", 4);
    EXPECT_EQ(in.TryReadString(nullptr), ioWouldBlock);
    out.Close();
    EXPECT_EQ(in.TryReadString(nullptr), ioEndOfFile);
    EXPECT_EQ(in.getIsGood(), 1);
    EXPECT_EQ(in.PeekNBytes(), 8u);
}

TEST_F(PipeStreams, WouldBlockUntilANumberIsDelimited)
{
    UseForm(ioSerializer::getAscii());
    out.WriteInt(12);
    EXPECT_EQ(in.TryReadInt(), ioWouldBlock);
    EXPECT_EQ(in.TryReadString(nullptr), ioWouldBlock);
    out.WriteInt(3);
    out.WriteByte(' ');
    EXPECT_EQ(in.TryReadInt(), ioSuccess);
    EXPECT_EQ(in.ReadInt(), 123);
    out.WriteReal(1.5);
    EXPECT_EQ(in.TryReadReal(), ioWouldBlock);
    out.Close();
    EXPECT_EQ(in.TryReadReal(), ioSuccess);
    EXPECT_EQ(in.ReadReal(), 1.5);
    EXPECT_EQ(in.TryReadReal(), ioEndOfFile);
}

TEST_F(PipeStreams, AreWaitedForWithEvents)
{
    const Owned<ioEvent> pending(in.InputEvent()), writable(out.OutputEvent());
    EXPECT_EQ(pending->getIsSignaled(), 0);
    EXPECT_EQ(pending->Wait(0.02), 0);
    EXPECT_EQ(writable->Wait(INFINITE), 1);

    // A value that arrives in parts wakes the reader once per part.
    std::thread writer([&] {
        for (const char part : {'\1', '\2', '\2', '\1'})
            out.WriteByte(part);
    });
    int waits = 0;
    while (in.TryReadInt() == ioWouldBlock) {
        ASSERT_EQ(pending->Wait(INFINITE), 1);
        ASSERT_LE(++waits, 5);
    }
    writer.join();
    EXPECT_EQ(in.ReadInt(), 0x01020201); // in either order of bytes
    out.Close();
    EXPECT_EQ(pending->Wait(INFINITE), 1); // the end
}

TEST_F(PipeStreams, TransferAValueLargerThanThePipeByTries)
{
    const std::string large(1 << 20, 'v');
    std::thread writer([&] { out.WriteString(large.c_str()); });
    const Owned<ioEvent> pending(in.InputEvent());
    while (in.TryReadString(nullptr) == ioWouldBlock)
        ASSERT_EQ(pending->Wait(20.0), 1);
    writer.join();

    EXPECT_TRUE(textOf(in.ReadString(nullptr)) == large);
}

TEST_F(PipeStreams, TestWritesWithoutSending)
{
    EXPECT_EQ(out.TryWriteInt(7), ioSuccess);
    EXPECT_EQ(out.TryWriteString("text"), ioSuccess);
    EXPECT_EQ(out.TryWriteString(std::string(1 << 20, 'l').c_str()), ioNotSupported); // it can never fit
    EXPECT_EQ(in.PeekNBytes(), 0u);

    const std::string page(4096, 'p');
    while (out.TryWriteByte(1) == ioSuccess)
        out.WriteBytes(page.data(), 4096);
    EXPECT_EQ(out.TryWriteInt(7), ioWouldBlock);
    EXPECT_EQ(out.TryWriteString("text"), ioWouldBlock);
    const Owned<ioEvent> writable(out.OutputEvent());
    EXPECT_EQ(writable->getIsSignaled(), 0);

    in.Close();
    EXPECT_EQ(out.TryWriteInt(7), ioIOError);
    EXPECT_EQ(FailureOf([&] { out.WriteInt(7); }), "Stream Error (iolib): I/O error"); // and no signal
}

TEST_F(PipeStreams, CopyBytesAsTheyArrive)
{
    const Owned<ioPipe> second(ioPipe::Create());
    std::thread copier([&] {
        CopyStream(second->getWriteEnd(), &in);
        second->getWriteEnd()->Close();
    });
    out.WriteString("first"); // copied before more or the end arrives
    EXPECT_EQ(textOf(second->getReadEnd()->ReadString(nullptr)), "first");
    out.WriteInt(9);
    out.Close();
    EXPECT_EQ(second->getReadEnd()->ReadInt(), 9);
    EXPECT_EQ(FailureOf([&] { second->getReadEnd()->ReadByte(); }), "Stream Error (iolib): EOF reached");
    copier.join();
}

TEST_F(PipeStreams, EventsMayOutliveThem)
{
    const Owned<ioEvent> pending(in.InputEvent());
    in.Close();
    EXPECT_EQ(pending->getIsSignaled(), 1);
    EXPECT_EQ(pending->getStream(), &in);
    pipe.reset();
    EXPECT_EQ(pending->getStream(), nullptr);
    EXPECT_EQ(pending->Wait(INFINITE), 1);
}

// 16 MiB arrive in small parts: searching from the beginning each time takes many seconds.
TEST_F(PipeStreams, ScanAnArrivingTextOnce)
{
    for (ioSerializer* const form : {ioSerializer::getAscii(), ioSerializer::getXDR()}) {
        const Owned<ioPipe> each(ioPipe::Create());
        ioPipeStream &to = *each->getWriteEnd(), &from = *each->getReadEnd();
        to.setSerializer(form);
        from.setSerializer(form);
        const std::string large(16 << 20, 'v');
        std::thread writer([&] {
            to.WriteString(large.c_str());
            to.WriteByte('\n');
        });
        const Owned<ioEvent> pending(from.InputEvent());
        const std::clock_t start = std::clock();
        while (from.TryReadString(nullptr) == ioWouldBlock)
            ASSERT_EQ(pending->Wait(20.0), 1);
        writer.join();
        EXPECT_LT(std::clock() - start, 3 * CLOCKS_PER_SEC);
        EXPECT_TRUE(textOf(from.ReadString(nullptr)) == large);
    }
}

TEST_F(PipeStreams, FindADelimiterBehindTheScannedPart)
{
    UseForm(ioSerializer::getAscii());
    const auto tries = [this](const char* more, const char* delims) {
        out.WriteString(more);
        return in.TryReadString(delims);
    };
    EXPECT_EQ(tries("  ", nullptr), ioWouldBlock);
    EXPECT_EQ(tries("a b", nullptr), ioWouldBlock);
    EXPECT_EQ(tries(";", nullptr), ioWouldBlock);
    EXPECT_EQ(tries("", ";"), ioSuccess); // another delimiter, in the scanned part
    EXPECT_EQ(tries("", ","), ioWouldBlock);
    EXPECT_EQ(in.ReadByte(), 'a');
    EXPECT_EQ(tries("c\n", nullptr), ioSuccess);
    EXPECT_EQ(textOf(in.ReadString(nullptr)), "b;c");
    EXPECT_EQ(tries(" ", ","), ioWouldBlock);
    EXPECT_EQ(tries(" ,x", ","), ioFormatError);
}

TEST_F(PipeStreams, CollectOutputWhenBuffered)
{
    out.setBuffered(true);
    out.WriteInt(1);
    EXPECT_EQ(in.PeekNBytes(), 0u);
    out.Flush(1);
    EXPECT_EQ(in.PeekNBytes(), 4u);

    for (int i = 0; i < 1025; ++i) // 4 KiB and one more
        out.WriteInt(i);
    EXPECT_EQ(in.PeekNBytes(), 4u + 4096u);
    out.setBuffered(false);
    EXPECT_EQ(in.PeekNBytes(), 4u + 4100u);
    out.WriteInt(2);
    EXPECT_EQ(in.PeekNBytes(), 4u + 4104u);

    out.setBuffered(true);
    out.WriteInt(3);
    const std::string large(5000, 'l');
    out.WriteString(large.c_str());
    out.WriteInt(4);
    out.Close();
    EXPECT_EQ(in.PeekNBytes(), 4u + 4104u + 4u + 5004u + 4u);
    EXPECT_EQ(FailureOf([&] { in.setBuffered(true); }), "Stream Error (iolib): output denied");

    // Output collected for a closed reader is dropped silently.
    const Owned<ioPipe> unread(ioPipe::Create());
    unread->getWriteEnd()->setBuffered(true);
    unread->getWriteEnd()->WriteInt(1);
    unread->getReadEnd()->Close();
    EXPECT_EQ(FailureOf([&] { unread->getWriteEnd()->Close(); }), "");
}

TEST(StringStreams, ReturnTheirBytesAndDropConsumedOnes)
{
    const auto stream = MemoryStream(ioSerializer::getXDR());
    unsigned int size = 9;
    EXPECT_EQ(stream->getBytes(&size), nullptr);
    EXPECT_EQ(size, 0u);
    for (int i = 0; i < 3; ++i)
        stream->WriteInt(i);
    const char* const bytes = stream->getBytes(&size);
    EXPECT_EQ(std::string(bytes, size), Hex("00 00 00 00 00 00 00 01 00 00 00 02"));

    EXPECT_EQ(stream->ReadInt(), 0);
    stream->DiscardRead();
    stream->WriteInt(3);
    const char* const rest = stream->getBytes(&size);
    EXPECT_EQ(std::string(rest, size), Hex("00 00 00 01 00 00 00 02 00 00 00 03"));
    for (int next = 1, i = 4; i < 300000; ++i, ++next) {
        stream->WriteInt(i);
        ASSERT_EQ(stream->ReadInt(), next);
        stream->DiscardRead();
        stream->getBytes(&size);
        ASSERT_EQ(size, 12u);
    }
    EXPECT_EQ(stream->SizeOf(true), 4);
    EXPECT_EQ(MemoryStream(ioSerializer::getBinary())->SizeOf(true), 1);
}

TEST(StringStreams, ReadAGivenTextOnly)
{
    const Owned<ioStringStream> stream(ioStringStream::Create("12 ab"));
    EXPECT_EQ(FailureOf([&] { stream->WriteInt(1); }), "Stream Error (iolib): output denied");
    EXPECT_EQ(FailureOf([&] { stream->getStr(); }), "Stream Error (iolib): output denied");
    EXPECT_EQ(stream->ReadInt(), 12);
    EXPECT_EQ(textOf(stream->ReadString(nullptr)), "ab");
}

TEST(StringStreams, KeepAllWrittenBytes)
{
    for (const char* const none : {xnullstr, static_cast<const char*>(nullptr), xuninitstr}) {
        const Owned<ioStringStream> stream(ioStringStream::Create(none));
        EXPECT_EQ(textOf(stream->getStr()), "");
        stream->WriteString("ab");
        EXPECT_EQ(textOf(stream->getStr()), "ab");
        EXPECT_EQ(stream->ReadByte(), 'a');
        stream->WriteInt(5);
        EXPECT_EQ(textOf(stream->getStr()), "ab5");
        EXPECT_EQ(textOf(stream->ReadString(nullptr)), "b5");
        stream->Close();
        EXPECT_EQ(FailureOf([&] { stream->getStr(); }), "Stream Error (iolib): stream not open");
    }
}
