#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <utility>

#include <qel/fsdir.h>
#include <qel/fsfile.h>
#include <qel/fsnodeinfo.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/qelrtti.h>
#include <qel/tmtime.h>

#include "support/tempdir.h"
#include "support/texts.h"

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

std::set<std::string> namesIn(const char* directory, const char* pattern)
{
    fsiDir dir;
    std::set<std::string> names;
    EXPECT_TRUE(dir.Open(directory));
    xstring name;
    while (dir.ReadNextMatching(pattern, name) == fsIOOk)
        names.insert(name.CastToCString());
    EXPECT_TRUE(dir.Close());
    return names;
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

TEST(fsMatchesPattern, HandlesStarsAndQuestionMarks)
{
    for (const auto& [name, pattern] : rowsOf<2>("abc,a*c|ac,a*c|abbc,a*c|x,?|a,a**|,*|,|[a],[a]|a.b.c,*.?|"
                                                 "mississippi,m*iss*ip?i|a*b,a?b|\xC3\xA4,?|\xFF,?"))
        EXPECT_TRUE(fsMatchesPattern(name.c_str(), pattern.c_str())) << name << " like " << pattern;
    for (const auto& [name, pattern] : rowsOf<2>("ab,a*c|,?|x.txt,*.TXT|a,|aXbXc,*X*X*X*"))
        EXPECT_FALSE(fsMatchesPattern(name.c_str(), pattern.c_str())) << name << " like " << pattern;
}

TEST(fsMatchesPattern, MatchesInLinearTime)
{
    const std::string name(100000, 'a');
    std::string pattern;
    for (int i = 0; i < 1000; ++i)
        pattern += "a*a?*";
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(fsMatchesPattern(name.c_str(), (pattern + "b").c_str()));
    EXPECT_TRUE(fsMatchesPattern(name.c_str(), pattern.c_str()));
    EXPECT_LT(std::chrono::steady_clock::now() - begin,
              std::chrono::seconds(1)); // forever with plain backtracking
}

TEST(fsiDir, ListsEveryNameOnceWithoutDotEntries)
{
    TempDir dir;
    dir.write("one.txt");
    dir.write("two.txt");
    dir.write("a\\b");
    dir.makeDir("sub*?");
    dir.write("sub*?/in");
    dir.makeDir("empty");

    EXPECT_EQ(namesIn(dir.path(), "*"), (std::set<std::string>{"one.txt", "two.txt",
                                                               "a\xEF\x81\x9C"
                                                               "b",
                                                               "sub*?", "empty"}));
    EXPECT_EQ(namesIn(dir.path(), "*.txt"), (std::set<std::string>{"one.txt", "two.txt"}));
    EXPECT_EQ(namesIn(dir.path("sub*?"), "*"), std::set<std::string>{"in"});

    fsiDir entries;
    xstring name("unchanged");
    ASSERT_TRUE(entries.Open(dir.path("empty")));
    for (const char* none : {xnullstr, "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(entries.ReadNextMatching(none, name), fsIOEnd);
    EXPECT_TRUE(name == "unchanged");
    EXPECT_EQ(entries.Read(name), fsIOEnd);
    EXPECT_EQ(entries.ReadNextMatching("*", name), fsIOEnd);
    EXPECT_TRUE(name == nullptr);
}

TEST(fsiDir, ReportsWhyItCannotBeOpened)
{
    TempDir dir;
    dir.write("file");
    fsiDir entries;
    xstring name;

    EXPECT_FALSE(entries.Open(dir.path("missing")));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(entries.Open(dir.path("file")));
    EXPECT_EQ(GetLastError(), ERROR_DIRECTORY);
    EXPECT_FALSE(entries.Open(std::string(260, 'd').c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(entries.Read(name), fsIOFailed);
    EXPECT_FALSE(entries.Close());
    std::string longPath = dir.path();
    while (longPath.size() < 259)
        longPath += '/';
    EXPECT_TRUE(entries.Open(longPath.c_str()));
}

TEST(fsNodeInfo, KeepsTheOldStatusWhenInitializeFails)
{
    TempDir dir;
    dir.write("a", "12345");
    const timespec times[] = {{1, 0}, {1000000000, 999999999}};
    utimensat(AT_FDCWD, dir.path("a"), times, 0);
    dir.link("a", "link");
    xauto<fsNodeInfo> info;
    ASSERT_TRUE(info.Initialize(dir.path("link"))); // followed

    EXPECT_FALSE(info.Initialize(dir.path("missing")));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(info.getSize(), 5.0);
    EXPECT_EQ(info.getType(), fsFile);
    tmTime* const modified = info.getModTime();
    EXPECT_EQ(modified->getAbsTime(), 1000000000.0);
    xdelete(modified);

    xauto<fsNodeInfo> copy(info);
    EXPECT_EQ(copy.getSize(), 5.0);
    ASSERT_TRUE(info.Initialize(dir.path()));
    EXPECT_EQ(info.getType(), fsDirectory);
    EXPECT_EQ(copy.getType(), fsFile);
}

TEST(fsNodeInfo, OrdersDistantTimesCorrectly)
{
    const TempDir dir(TempDir::InMemory); // stores every time
    dir.write("a", "");
    constexpr long long lastOfCount = 910692730085; // in the year 30828
    constexpr std::pair<long long, double> times[] = {
        {-12000000000, -12000000000.0},        // before 1601
        {lastOfCount, lastOfCount},            // the limit of a 63-bit count of 100 ns
        {lastOfCount + 1, lastOfCount},        //
        {4000000000000000000, lastOfCount},    //
        {-4000000000000000000, -933981677286}, // the other limit
    };
    for (const auto& [kept, shown] : times) {
        const timespec both[] = {{kept, 500}, {kept, 500}};
        struct stat status;
        if (utimensat(AT_FDCWD, dir.path("a"), both, 0) != 0 || stat(dir.path("a"), &status) != 0 ||
            status.st_mtim.tv_sec != kept)
            GTEST_SKIP() << "no file system with 64-bit times";
        xauto<fsNodeInfo> info;
        ASSERT_TRUE(info.Initialize(dir.path("a")));
        tmTime* const modified = info.getModTime();
        EXPECT_EQ(modified->getAbsTime(), shown) << kept;
        xdelete(modified);
    }
}

TEST(fsNodeInfo, IsReadThroughItsDescriptorWithoutLeakingTimes)
{
    TempDir dir;
    dir.write("a", "12345");
    const xrchandle<fsNodeInfo> info(new (pDefMemMgr) fsNodeInfo);
    ASSERT_TRUE(info->Initialize(dir.path("a")));
    xrttistruct* const type = xrttistruct::softcast(fsNodeInfo::getClassRtti());
    ASSERT_EQ(type->getNAttrs(), 3);

    const xany first = type->getAttr(1)->getValue(info.get());
    const xany second = type->getAttr(1)->getValue(info.get());

    EXPECT_TRUE(type->getAttr(0)->getValue(info.get()) == xany(fsFile, qelGetRtti_fsNodeType()));
    EXPECT_TRUE(type->getAttr(2)->getValue(info.get()) == 5.0);
    tmTime* const modified = info->getModTime();
    EXPECT_EQ(tmTime::cast(first)->getAbsTime(), modified->getAbsTime());
    EXPECT_EQ(tmTime::cast(second)->getAbsTime(), modified->getAbsTime());
    xdelete(modified);
}
