#include <qel/base/btkfd.h>

#include "iosupport.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

class FileStream : public testing::Test
{
protected:
    Owned<ioFileStream> Open(ioOpenMode mode, ioSerializer* form = ioSerializer::getXDR())
    {
        Owned<ioFileStream> stream(ioFileStream::Open(dir.path("f").c_str(), mode));
        if (stream != nullptr)
            stream->setSerializer(form);
        return stream;
    }

    TempDir dir;
};

} // namespace

TEST_F(FileStream, OpensByItsMode)
{
    EXPECT_EQ(Open(ioReadOnly), nullptr);
    EXPECT_EQ(Open(ioReadWrite), nullptr);
    EXPECT_EQ(ioFileStream::Open(nullptr, ioReadOnly), nullptr);
    EXPECT_EQ(ioFileStream::Open(xuninitstr, ioReadOnly), nullptr);
    EXPECT_EQ(ioFileStream::Open(dir.path().c_str(), ioReadOnly), nullptr);

    dir.write("f", "old content");
    {
        const auto stream = Open(static_cast<ioOpenMode>(7));
        EXPECT_EQ(stream->getCanRead(), 1);
        EXPECT_EQ(stream->getCanWrite(), 1);
        stream->WriteBytes("OLD", 3);
    }
    EXPECT_EQ(dir.read("f"), "OLD content");
    EXPECT_EQ(FailureOf([&] { Open(ioReadOnly)->WriteInt(1); }), "Stream Error (iolib): output denied");

    const Owned<ioFileStream> created(ioFileStream::Create(dir.path("f").c_str(), ioWriteOnly, 1));
    EXPECT_EQ(created->getCanRead(), 0);
    EXPECT_EQ(created->getSerializer(), ioSerializer::getAscii());
    EXPECT_EQ(dir.read("f"), "");
    EXPECT_EQ(textOf(created->getPath()), dir.path("f"));
}

TEST_F(FileStream, AcceptsNativePaths)
{
    dir.write("f", "7");
    std::string native = "C:" + dir.path("f");
    std::replace(native.begin(), native.end(), '/', '\\');

    const Owned<ioFileStream> stream(ioFileStream::Open(native.c_str(), ioReadOnly));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->ReadInt(), 7);
    EXPECT_EQ(textOf(stream->getPath()), native);
}

TEST_F(FileStream, TriesWithoutMovingThePosition)
{
    dir.write("f", Hex("00 00 00 05 00 00 00"));
    const auto stream = Open(ioReadOnly);

    EXPECT_EQ(stream->TryReadInt(), ioSuccess);
    EXPECT_EQ(stream->TellPos(), 0);
    EXPECT_EQ(stream->TryReadReal(), ioEndOfFile);
    EXPECT_EQ(stream->ReadInt(), 5);
    EXPECT_EQ(stream->TryReadInt(), ioEndOfFile);
    EXPECT_EQ(stream->TellPos(), 4);
    EXPECT_EQ(stream->PeekNBytes(), 3u);
    EXPECT_EQ(FailureOf([&] { stream->ReadInt(); }), "Stream Error (iolib): EOF reached");

    const Owned<ioEvent> input((stream->SeekOff(0, ioBegin), stream->InputEvent()));
    EXPECT_EQ(input->getIsSignaled(), 1);
    EXPECT_EQ(input->getStream(), stream.get());
    EXPECT_EQ(input->getType(), ioInputPending);
}

TEST_F(FileStream, SeekClearsTheEndOfFile)
{
    dir.write("f", "0123456789");
    const auto stream = Open(ioReadWrite, ioSerializer::getAscii());
    EXPECT_EQ(stream->ReadReal(), 123456789);
    EXPECT_EQ(FailureOf([&] { stream->ReadByte(); }), "Stream Error (iolib): EOF reached");

    stream->SeekOff(0, ioBegin);
    EXPECT_EQ(stream->getIsEof(), 0);
    EXPECT_EQ(stream->ReadByte(), '0');
    stream->SeekOff(-3, ioEnd);
    EXPECT_EQ(stream->TellPos(), 7);
    stream->SeekOff(1, ioCur);
    EXPECT_EQ(stream->ReadByte(), '8');
    stream->WriteByte('x');
    EXPECT_EQ(stream->TellPos(), 10);
    stream->setIsFail(1);
    stream->SeekOff(0, ioCur);
    EXPECT_EQ(stream->getIsFail(), 1); // only the end of file is cleared
    stream->setIsFail(0);

    EXPECT_EQ(FailureOf([&] { stream->SeekOff(-1, ioBegin); }), "Stream Error (iolib): I/O error");
    EXPECT_EQ(stream->getIsBad(), 1);
    EXPECT_EQ(stream->TellPos(), 10);
}

TEST_F(FileStream, SizeIncludesPendingOutputAndAppendsOfOthers)
{
    dir.write("f", "");
    const auto stream = Open(ioReadWrite);
    const auto other = Open(ioReadWrite);
    EXPECT_EQ(stream->TellSize(), 0);

    stream->WriteInt(1);
    EXPECT_EQ(stream->TellSize(), 4);
    EXPECT_EQ(other->TellSize(), 4);
    other->SeekOff(0, ioEnd);
    other->WriteString("abc");
    other->Flush(1);
    EXPECT_EQ(stream->TellSize(), 11);
    EXPECT_EQ(stream->TellPos(), 4);
    EXPECT_EQ(textOf(stream->ReadString(nullptr)), "abc");
    stream->Truncate(2);
    EXPECT_EQ(stream->TellSize(), 11);
}

TEST_F(FileStream, ReturnsNullForSizesThatAnIntCannotHold)
{
    dir.write("f", "");
    std::filesystem::resize_file(dir.path("f"), (1LL << 31) + 5);
    const auto stream = Open(ioReadOnly);

    EXPECT_EQ(stream->TellSize(), xnullint);
    stream->SeekOff(-8, ioEnd);
    EXPECT_EQ(stream->TellPos(), 0x7ffffffd);
    stream->ReadInt();
    EXPECT_EQ(stream->TellPos(), xnullint);
}

TEST_F(FileStream, CopiesLargeFiles)
{
    std::string content(3000000, ' ');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i ^ (i >> 9));
    dir.write("f", content);
    const auto from = Open(ioReadOnly);
    {
        const Owned<ioFileStream> to(ioFileStream::Open(dir.path("g").c_str(), ioWriteOnly));
        to->setSerializer(ioSerializer::getXDR());
        from->ReadByte();
        CopyStream(to.get(), from.get());
    }
    EXPECT_TRUE(dir.read("g") == content.substr(1));
}

TEST_F(FileStream, CopiesFromAPipe)
{
    std::string content(1000000, ' ');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i ^ (i >> 7));
    const Owned<ioPipe> pipe(ioPipe::Create());
    std::thread writer([&] {
        pipe->getWriteEnd()->WriteInt(3);
        pipe->getWriteEnd()->WriteBytes(content.data(), static_cast<unsigned>(content.size()));
        pipe->getWriteEnd()->Close();
    });
    EXPECT_EQ(pipe->getReadEnd()->ReadInt(), 3); // part of the rest is buffered now
    dir.write("f", "head....");
    const auto to = Open(ioReadWrite, ioSerializer::getBinary());
    to->WriteBytes("HEAD", 4);

    CopyStream(to.get(), pipe->getReadEnd());
    writer.join();

    EXPECT_EQ(to->TellPos(), 1000004);
    EXPECT_TRUE(dir.read("f") == "HEAD" + content);
}

TEST_F(FileStream, CopiesFilesOfUnknownSize)
{
    const Owned<ioFileStream> from(ioFileStream::Open("/proc/self/status", ioReadOnly));
    const Owned<ioStringStream> memory(ioStringStream::Create(xnullstr));
    {
        const Owned<ioFileStream> to(ioFileStream::Open(dir.path("f").c_str(), ioWriteOnly));
        to->ReadStream(from.get());
    }
    from->SeekOff(0, ioBegin);
    memory->ReadStream(from.get());

    EXPECT_NE(dir.read("f").find("Pid:"), std::string::npos);
    EXPECT_NE(textOf(memory->getStr()).find("Pid:"), std::string::npos);
}

TEST_F(FileStream, ReportsAFailedReadAsAnErrorNotAsTheEnd)
{
    // Nothing is mapped at the beginning of this process's memory: reading there fails.
    const Owned<ioFileStream> memory(ioFileStream::Open("/proc/self/mem", ioReadOnly));
    EXPECT_EQ(memory->TryReadInt(), ioIOError);
    EXPECT_EQ(FailureOf([&] { memory->ReadInt(); }), "Stream Error (iolib): I/O error");
    EXPECT_EQ(memory->getIsBad(), 1);
    EXPECT_EQ(memory->getIsEof(), 0);

    memory->setIsFail(0);
    const auto copy = Open(ioWriteOnly, ioSerializer::getAscii());
    EXPECT_EQ(FailureOf([&] { CopyStream(copy.get(), memory.get()); }), "Stream Error (iolib): I/O error");
}

TEST_F(FileStream, FlushAndCloseReportOutputThatCannotBeWritten)
{
    Owned<ioFileStream> full(ioFileStream::Open("/dev/full", ioWriteOnly));
    full->WriteInt(1);
    EXPECT_EQ(FailureOf([&] { full->Close(); }), "Stream Error (iolib): I/O error");
    EXPECT_EQ(full->getIsOpen(), 0);
    EXPECT_EQ(FailureOf([&] { full->Close(); }), "");

    full.reset(ioFileStream::Open("/dev/full", ioWriteOnly));
    full->WriteInt(1);
    EXPECT_EQ(FailureOf([&] { full->Flush(1); }), "Stream Error (iolib): I/O error");
    EXPECT_EQ(full->getIsBad(), 1);
    EXPECT_EQ(FailureOf([&] { full.reset(); }), ""); // a destructor stays silent
}

TEST_F(FileStream, CopiesAFileOntoItsOwnEndOnce)
{
    dir.write("f", std::string(10000, 'a'));
    const auto from = Open(ioReadOnly), to = Open(ioReadWrite);
    to->SeekOff(0, ioEnd);
    CopyStream(to.get(), from.get());
    to->Flush(1);
    EXPECT_EQ(to->TellSize(), 20000);
}

TEST_F(FileStream, CountsBytesReadFromAKernelFile)
{
    const Owned<ioFileStream> file(ioFileStream::Open("/proc/self/status", ioReadOnly));
    const unsigned count = file->PeekNBytes();
    EXPECT_GT(count, 0u);
    EXPECT_EQ(RestOf(*file).substr(0, 5), "Name:");
}
