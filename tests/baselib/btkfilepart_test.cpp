#include <unistd.h>

#include <qel/base/btkfilepart.h>
#include <qel/base/xfilebuf.h>

#include "support/child.h"
#include "support/faults.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

constexpr int readWrite = btkOpenRead | btkOpenWrite;

} // namespace

TEST(btkRangeLock, ConflictsWithOtherOpeningsOnly)
{
    TempDir dir;
    dir.write("f");
    const btkFd a = btkOpenFile(dir.path("f"), readWrite);
    const btkFd b = btkOpenFile(dir.path("f"), readWrite);
    btkRangeLock mine(a.Get(), 10, 10);
    btkRangeLock same(a.Get(), 10, 10);
    btkRangeLock inside(b.Get(), 19, 1);
    btkRangeLock behind(b.Get(), 20, 0);

    EXPECT_EQ(mine.Try(btkRangeLock::Shared), btkRangeLock::Held);
    EXPECT_EQ(inside.Try(btkRangeLock::Shared), btkRangeLock::Held);
    EXPECT_EQ(mine.Try(btkRangeLock::Exclusive), btkRangeLock::Busy);
    EXPECT_TRUE(mine.IsBusy(btkRangeLock::Exclusive));
    EXPECT_FALSE(mine.IsBusy(btkRangeLock::Shared));
    inside.Release();
    EXPECT_EQ(mine.Try(btkRangeLock::Exclusive), btkRangeLock::Held);
    EXPECT_EQ(same.Try(btkRangeLock::Exclusive), btkRangeLock::Held);
    EXPECT_EQ(inside.Try(btkRangeLock::Shared), btkRangeLock::Busy);
    EXPECT_TRUE(inside.IsBusy(btkRangeLock::Shared));
    EXPECT_EQ(behind.Try(btkRangeLock::Exclusive), btkRangeLock::Held);

    const btkTimeval begin = btkTimeval::Now();
    EXPECT_EQ(inside.Wait(btkRangeLock::Shared, btkTimeval(0, 20000)), btkRangeLock::Busy);
    EXPECT_GE(btkTimeval::Now() - begin, btkTimeval(0, 20000));
    mine.Release();
    EXPECT_EQ(inside.Wait(btkRangeLock::Shared, btkTimeval()), btkRangeLock::Held);
}

TEST(btkRangeLock, IsReleasedWithItsObjectAndItsProcess)
{
    TempDir dir;
    dir.write("f");
    const btkFd a = btkOpenFile(dir.path("f"), readWrite);
    {
        btkRangeLock lock(a.Get(), 0, 5);
        lock.Try(btkRangeLock::Exclusive);
    }
    const auto isFree = [&] {
        const btkFd other = btkOpenFile(dir.path("f"), readWrite);
        return !btkRangeLock(other.Get(), 0, 5).IsBusy(btkRangeLock::Exclusive);
    };
    EXPECT_TRUE(isFree());

    ChildProcess holder([&] {
        const btkFd opened = btkOpenFile(dir.path("f"), readWrite);
        btkRangeLock lock(opened.Get(), 0, 5);
        lock.Try(btkRangeLock::Exclusive);
        raise(SIGSTOP);
        return 0;
    });
    ASSERT_TRUE(holder.waitUntilStopped());
    EXPECT_FALSE(isFree());
    holder.signal(SIGKILL);
    holder.wait();
    EXPECT_TRUE(isFree());
}

TEST(btkRangeLock, ReportsWhyAFileCannotBeLocked)
{
    TempDir dir;
    dir.write("f");
    const btkFd readOnly = btkOpenFile(dir.path("f"), btkOpenRead);
    EXPECT_EQ(btkRangeLock(readOnly.Get(), 0, 1).Try(btkRangeLock::Exclusive), btkRangeLock::Unsupported);
    EXPECT_EQ(btkRangeLock(-1, 0, 1).Try(btkRangeLock::Shared), btkRangeLock::Unsupported);
    EXPECT_FALSE(btkRangeLock(-1, 0, 1).IsBusy(btkRangeLock::Shared));
}

TEST(btkFilePart, WritesWholePartsAtAnyPosition)
{
    TempDir dir;
    std::string expected(20000, '.');
    dir.write("f", expected);
    const btkFd file = btkOpenFile(dir.path("f"), readWrite);
    btkPartWriter writer;
    for (const std::size_t size : {1, 8, 4000, 4096, 9000}) {
        for (const std::size_t position : {0, 4090, 4095, 8000, 20000}) {
            const std::string part(size, static_cast<char>('a' + size % 26));
            expected.resize(std::max(expected.size(), position + size));
            expected.replace(position, size, part);
            EXPECT_EQ(writer.Write(file.Get(), part.data(), size, static_cast<long long>(position)), size);
            ASSERT_TRUE(dir.read("f") == expected) << size << " bytes at " << position;
        }
    }
    EXPECT_EQ(writer.Write(file.Get(), nullptr, 0, 5), 0u);

    // A part of the mapped file has been truncated.
    ASSERT_TRUE(btkSetFileSize(file.Get(), 5000));
    EXPECT_EQ(writer.Write(file.Get(), "across", 6, 8190), 6u);
    EXPECT_TRUE(dir.read("f") == expected.substr(0, 5000) + std::string(3190, '\0') + "across");

    EXPECT_TRUE(btkSetFileSize(file.Get(), 7));
    EXPECT_TRUE(btkSetFileSize(file.Get(), 9));
    EXPECT_TRUE(dir.read("f") == expected.substr(0, 7) + std::string(2, '\0'));
    EXPECT_FALSE(btkSetFileSize(file.Get(), -1));
}

TEST(btkFilePart, WritesWithoutMappedPagesWhereMappingIsRefused)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    const std::string test = "btkFilePart.WritesWholePartsAtAnyPosition";
    EXPECT_TRUE(passesWithFault(test, "process_vm_readv", "error=EPERM", 1));
    EXPECT_TRUE(passesWithFault(test, "process_vm_readv", "retval=5", 1));
}

TEST(btkFilePart, LeavesOldOrNewBytesWhenKilled)
{
    // A file system in memory, if there is one, truncates the write at every second kill.
    const std::string path =
        (std::filesystem::exists("/dev/shm") ? "/dev/shm/qeltest." : "qeltest.") + std::to_string(getpid());
    constexpr std::size_t size = 1000;
    constexpr long long position = 4096 - 300;
    const btkFd file = btkOpenFile(path.c_str(), readWrite | btkOpenCreate);
    std::filesystem::remove(path);
    ASSERT_TRUE(btkSetFileSize(file.Get(), 10000));
    std::string found(size, ' ');

    for (int kills = 0; kills < 100; ++kills) {
        ChildProcess writer([&] {
            btkPartWriter part;
            for (char c = 'a';; c ^= 3)
                part.Write(file.Get(), std::string(size, c).data(), size, position);
            return 0;
        });
        usleep(static_cast<useconds_t>(1000 + kills * 20));
        writer.signal(SIGKILL);
        ASSERT_EQ(writer.wait(), -SIGKILL);
        ASSERT_EQ(btkReadAt(file.Get(), found.data(), size, position), static_cast<std::ptrdiff_t>(size));
        ASSERT_TRUE(found == std::string(size, found[0]));
    }
}

TEST(btkFilePart, BufferReadsAtMostTheExpectedBytesAndDropsUnwritableOnes)
{
    TempDir dir;
    dir.write("f", "0123456789");
    const std::unique_ptr<xfilebuf> buffer(xfilebuf::Open(dir.path("f"), xfilebuf::ReadWrite));
    buffer->ExpectRead(4);
    EXPECT_EQ(buffer->sbumpc(), '0');
    dir.write("f", "abcdefghij");
    std::string rest(9, ' ');
    EXPECT_EQ(buffer->sgetn(rest.data(), 9), 9);
    EXPECT_EQ(rest, "123efghij");

    buffer->Seek(2, std::ios_base::beg);
    buffer->KeepWhole();
    EXPECT_EQ(buffer->sputn("XY", 2), 2);
    buffer->DropPending();
    EXPECT_EQ(buffer->Tell(), 2);
    EXPECT_EQ(buffer->sputn("Z", 1), 1);
    EXPECT_EQ(buffer->pubsync(), 0);
    EXPECT_EQ(dir.read("f"), "abZdefghij");
}
