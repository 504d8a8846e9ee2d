
#include <qel/fsdir.h>
#include <qel/fsfile.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "support/tempdir.h"
#include "support/test.h"

namespace {

std::string readAll(fsiFile& file)
{
    std::string all;
    char part[3];
    unsigned long size = 0;
    while (file.Read(part, sizeof part, &size) == fsIOOk)
        all.append(part, size);
    EXPECT_EQ(size, 0u);
    return all;
}

} // namespace

TEST(fsiFile, WritesTruncatesAndReads)
{
    TempDir dir;
    fsiFile file;
    unsigned long size = 0;
    ASSERT_TRUE(file.Open(dir.path("f"), fsWriteOnly)); // created, as it is missing
    EXPECT_EQ(file.Write("0123456789", 10, &size), fsIOOk);
    EXPECT_EQ(size, 10u);
    EXPECT_TRUE(file.Seek(fsFromStart, 3.9));
    EXPECT_EQ(file.Write("x", 1, nullptr), fsIOOk);
    EXPECT_TRUE(file.Seek(fsFromCurrent, 2));
    EXPECT_EQ(file.Write("y", 1, nullptr), fsIOOk);
    EXPECT_TRUE(file.Seek(fsFromEnd, -1));
    EXPECT_EQ(file.Write("z", 1, nullptr), fsIOOk);
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(dir.read("f"), "012x45y78z");

    ASSERT_TRUE(file.Open(dir.path("f"), fsWriteOnly)); // content kept
    EXPECT_TRUE(file.Truncate(4));
    EXPECT_TRUE(file.Close());
    ASSERT_TRUE(file.Open(dir.path("f"), fsReadOnly));
    EXPECT_EQ(readAll(file), "012x");
    EXPECT_EQ(file.Write("no", 2, &size), fsIOFailed);
}

TEST(fsiFile, FailsWithoutSideEffectsWhenItIsNotOpen)
{
    TempDir dir;
    fsiFile file;
    char buffer[4];
    EXPECT_FALSE(file.Open(dir.path("missing"), fsReadOnly));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(file.Read(buffer, 4, nullptr), fsIOFailed);
        EXPECT_EQ(file.Write(buffer, 4, nullptr), fsIOFailed);
        EXPECT_FALSE(file.Seek(fsFromStart, 0));
        EXPECT_FALSE(file.Truncate(0));
        EXPECT_FALSE(file.Close());
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        dir.write("f", "x");
        EXPECT_TRUE(file.Open(dir.path("f"), fsReadOnly));
        EXPECT_TRUE(file.Close());
    }
}

TEST(fsiFile, RejectsInvalidPositionsAndASecondWriter)
{
    TempDir dir;
    fsiFile first, second;
    ASSERT_TRUE(first.Open(dir.path("f"), fsWriteOnly));
    for (const double none : {-1.0, 1e19, xnullreal, static_cast<double>(__builtin_nan(""))}) {
        EXPECT_FALSE(first.Truncate(none));
        EXPECT_FALSE(first.Seek(fsFromStart, none));
    }
    EXPECT_TRUE(first.Seek(fsFromStart, 5e9));

    EXPECT_FALSE(second.Open(dir.path("f"), fsWriteOnly));
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(second.Open(dir.path("f"), fsReadOnly));
}

TEST(fsiFile, DestructorKeepsTheLastError)
{
    TempDir dir;
    {
        fsiFile file;
        fsiDir entries;
        ASSERT_TRUE(file.Open(dir.path("f"), fsWriteOnly));
        ASSERT_TRUE(entries.Open(dir.path()));
        SetLastError(77);
    }
    EXPECT_EQ(GetLastError(), 77u);
}
