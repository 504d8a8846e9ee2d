#include <sys/stat.h>

#include <qel/base/xfilebuf.h>

#include "support/tempdir.h"
#include "support/test.h"

namespace {

class FileBuffer : public testing::Test
{
protected:
    std::unique_ptr<xfilebuf> Open(xfilebuf::Mode mode)
    {
        return std::unique_ptr<xfilebuf>(xfilebuf::Open(dir.path("f").c_str(), mode));
    }
    static std::string Take(std::streambuf& buffer, std::size_t count)
    {
        std::string text(count, '\0');
        text.resize(static_cast<std::size_t>(buffer.sgetn(text.data(), static_cast<std::streamsize>(count))));
        return text;
    }
    static std::streamsize Put(std::streambuf& buffer, const std::string& text)
    {
        return buffer.sputn(text.data(), static_cast<std::streamsize>(text.size()));
    }

    TempDir dir;
};

std::string Numbered(std::size_t size)
{
    std::string text(size, ' ');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(i * 31 + i / 253);
    return text;
}

} // namespace

TEST_F(FileBuffer, ReadsAndWritesAtOnePosition)
{
    dir.write("f", "0123456789");
    const auto file = Open(xfilebuf::ReadWrite);

    EXPECT_EQ(Take(*file, 2), "01");
    EXPECT_EQ(Put(*file, "ab"), 2);
    EXPECT_EQ(file->Tell(), 4);
    EXPECT_EQ(Take(*file, 3), "456");
    EXPECT_EQ(file->sputc('c'), 'c');
    EXPECT_EQ(Take(*file, 9), "89");
    EXPECT_EQ(Put(*file, "end"), 3);
    EXPECT_EQ(file->Tell(), 13);
    EXPECT_EQ(dir.read("f"), "01ab456c89"); // the last is still pending
    EXPECT_EQ(file->pubsync(), 0);
    EXPECT_EQ(dir.read("f"), "01ab456c89end");
}

TEST_F(FileBuffer, TransfersLargeAndSmallPartsInAnyMix)
{
    const std::string text = Numbered(1 << 20);
    {
        const auto file = Open(xfilebuf::Write);
        for (std::size_t at = 0, part = 1; at < text.size(); at += part, part = part * 5 % 200003)
            ASSERT_EQ(Put(*file, text.substr(at, part)),
                      static_cast<std::streamsize>(std::min(part, text.size() - at)));
    }
    EXPECT_TRUE(dir.read("f") == text);

    const auto file = Open(xfilebuf::Read);
    for (std::size_t at = 0, part = 1; at < text.size(); at += part, part = part * 7 % 150001)
        ASSERT_TRUE(Take(*file, part) == text.substr(at, part)) << at;
    EXPECT_EQ(file->sgetc(), EOF);
}

TEST_F(FileBuffer, SeeksFromEachOriginAndKeepsItsPositionOnFailure)
{
    dir.write("f", "0123456789");
    const auto file = Open(xfilebuf::ReadWrite);

    EXPECT_EQ(file->Seek(4, std::ios_base::beg), 4);
    EXPECT_EQ(file->Seek(2, std::ios_base::cur), 6);
    EXPECT_EQ(Take(*file, 1), "6");
    EXPECT_EQ(file->Seek(-1, std::ios_base::beg), -1);
    EXPECT_EQ(file->Seek(0x7fffffffffffffff, std::ios_base::cur), -1);
    EXPECT_EQ(file->pubseekoff(-8, std::ios_base::cur), -1);
    EXPECT_EQ(file->pubseekoff(0, std::ios_base::end), 10);
    EXPECT_EQ(file->pubseekoff(-3, std::ios_base::cur), 7);
    EXPECT_EQ(Take(*file, 1), "7");
    Put(*file, "XYZ");
    EXPECT_EQ(file->Seek(-1, std::ios_base::end), 10);
    EXPECT_EQ(Take(*file, 3), "Z");
    EXPECT_EQ(file->pubseekoff(0, std::ios_base::cur), 11);
    EXPECT_EQ(file->pubseekpos(3), 3);
    EXPECT_EQ(Take(*file, 1), "3");
}

TEST_F(FileBuffer, HandlesPositionsBeyond32Bits)
{
    const long long far = 5LL << 30;
    dir.write("f", "");
    const auto file = Open(xfilebuf::ReadWrite);

    ASSERT_EQ(file->Seek(far, std::ios_base::beg), far);
    Put(*file, "end");
    EXPECT_EQ(file->GetFileSize(), far + 3);
    EXPECT_EQ(file->Seek(-3, std::ios_base::end), far);
    EXPECT_EQ(Take(*file, 4), "end");
    EXPECT_EQ(file->Tell(), far + 3);
}

TEST_F(FileBuffer, SeesWritesOfOthers)
{
    dir.write("f", "1234");
    const auto reader = Open(xfilebuf::Read);
    const auto writer = Open(xfilebuf::ReadWrite);
    EXPECT_EQ(Take(*reader, 1), "1");

    Put(*writer, "abcd");
    writer->pubsync();
    EXPECT_EQ(Take(*reader, 1), "2"); // read ahead before
    reader->Seek(0, std::ios_base::cur);
    EXPECT_EQ(Take(*reader, 9), "cd");

    Put(*writer, "ef");
    EXPECT_EQ(writer->GetFileSize(), 6);
    EXPECT_EQ(writer->Tell(), 6);
    EXPECT_EQ(reader->GetFileSize(), 6);
    EXPECT_EQ(reader->CountReadable(), 2u);
    EXPECT_EQ(Take(*reader, 9), "ef");
}

TEST_F(FileBuffer, TryViewRestoresThePosition)
{
    const std::string text = Numbered(300000);
    dir.write("f", text);
    const auto file = Open(xfilebuf::ReadWrite);
    Take(*file, 5);

    for (const std::size_t size : {std::size_t(3), std::size_t(70000), text.size()}) {
        std::streambuf* const view = file->GetTryIBuf();
        EXPECT_TRUE(file->IsEofReached());
        EXPECT_TRUE(Take(*view, size) == text.substr(5, size));
        file->FreeTryIBuf();
        EXPECT_EQ(file->Tell(), 5);
    }
    Put(*file, "?");
    EXPECT_EQ(Take(*file->GetTryIBuf(), 1), text.substr(6, 1)); // pending output is in place for the view
    file->FreeTryIBuf();
    EXPECT_EQ(Take(*file, 4), text.substr(6, 4));
    EXPECT_EQ(dir.read("f").substr(5, 1), "?");
    EXPECT_TRUE(btkEvent(file->GetInputEvent()).IsSignaled());
    EXPECT_EQ(file->GetOutputEvent(), nullptr);
}

TEST_F(FileBuffer, KeepsBytesThatTheKernelDoesNotAccept)
{
    const std::unique_ptr<xfilebuf> full(xfilebuf::Open("/dev/full", xfilebuf::ReadWrite));
    ASSERT_NE(full, nullptr);

    EXPECT_EQ(Put(*full, "abc"), 3);
    EXPECT_EQ(full->pubsync(), -1);
    EXPECT_EQ(full->Tell(), 3);
    EXPECT_EQ(full->Seek(0, std::ios_base::beg), -1);
    EXPECT_LT(Put(*full, std::string(100000, 'x')), 100000);
    EXPECT_EQ(full->Tell(), 3);
    EXPECT_EQ(full->GetFileSize(), 3);
    EXPECT_EQ(full->sgetc(), EOF) << "reading would lose it";
    EXPECT_EQ(Take(*full, 1), "");
    EXPECT_EQ(Take(*full->GetTryIBuf(), 1), "");
    full->FreeTryIBuf();
    EXPECT_EQ(Put(*full, ""), 0);
    full->DropPending();
    EXPECT_EQ(full->Tell(), 0);
    Open(xfilebuf::Write)->DropPending(); // nothing is pending
    EXPECT_EQ(full->pubsync(), 0);
}

TEST_F(FileBuffer, TreatsANamedPipeAsAPipe)
{
    ASSERT_EQ(mkfifo(dir.path("f").c_str(), 0600), 0);
    std::unique_ptr<xfilebuf> writer;
    std::thread opener([&] { writer = Open(xfilebuf::Write); });
    std::unique_ptr<xfilebuf> reader = Open(xfilebuf::Read);
    opener.join();

    Put(*writer, "abc");
    EXPECT_EQ(Take(*reader->GetTryIBuf(), 9), "abc");
    reader->FreeTryIBuf();
    EXPECT_FALSE(reader->IsEofReached());
    EXPECT_EQ(Take(*reader, 2), "ab");
    EXPECT_EQ(Take(*reader, 1), "c");
    Put(*writer, "def");
    EXPECT_EQ(reader->sgetc(), 'd');
    btkEvent input(reader->GetInputEvent());
    EXPECT_TRUE(input.IsSignaled());
    EXPECT_EQ(Take(*reader, 3), "def");
    EXPECT_FALSE(input.IsSignaled());
    EXPECT_EQ(reader->Tell(), -1);
    EXPECT_EQ(reader->Seek(0, std::ios_base::beg), -1);
    EXPECT_EQ(reader->GetFileSize(), -1);
    reader.reset();
    EXPECT_EQ(Put(*writer, "x"), 0);
}
