#include <fcntl.h>
#include <sys/stat.h>

#include <qel/fsnodeinfo.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/qelrtti.h>
#include <qel/tmtime.h>

#include "support/tempdir.h"
#include "support/test.h"

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
