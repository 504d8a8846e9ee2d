#include <cmath>

#include <qel/base/btktimeval.h>

#include "support/test.h"

TEST(btkTimeval, SplitsSecondsAndMicroseconds)
{
    const btkTimeval time(2.25);

    EXPECT_EQ(time.GetSeconds(), 2);
    EXPECT_EQ(time.GetMicroseconds(), 250000);
    EXPECT_EQ(time, btkTimeval(1, 1250000));
    EXPECT_EQ(time.ToSeconds(), 2.25);
}

TEST(btkTimeval, SaturatesInsteadOfOverflowing)
{
    const btkTimeval greatest(std::numeric_limits<double>::infinity());

    EXPECT_EQ(btkTimeval(0x1.7a2ecc414a04p+418), greatest);
    EXPECT_EQ(btkTimeval(std::numeric_limits<long long>::max(), 5), greatest);
    EXPECT_EQ(greatest + greatest, greatest);
    EXPECT_EQ(btkTimeval::Now() + greatest, greatest);
    EXPECT_TRUE(greatest.IsForever());
    EXPECT_TRUE(btkTimeval(2147483647.0).IsForever());
    EXPECT_FALSE(btkTimeval(2147483646.0).IsForever());
}

TEST(btkTimeval, IsNeverNegative)
{
    EXPECT_EQ(btkTimeval(-1.0), btkTimeval());
    EXPECT_EQ(btkTimeval(-1e300), btkTimeval());
    EXPECT_EQ(btkTimeval(std::nan("")), btkTimeval());
    EXPECT_EQ(btkTimeval(-1, 1500000), btkTimeval());
    EXPECT_EQ(btkTimeval(1, std::numeric_limits<long long>::min()), btkTimeval());
    EXPECT_EQ(btkTimeval(1.0) - btkTimeval(2.0), btkTimeval());
    EXPECT_EQ(btkTimeval(3.0) - btkTimeval(2.0), btkTimeval(1.0));
}

TEST(btkTimeval, ReadsClocksThatAdvance)
{
    const btkTimeval before = btkTimeval::Now();
    const btkTimeval day = btkTimeval::GetTimeOfDay();

    EXPECT_LE(before, btkTimeval::Now());
    EXPECT_GT(day.GetSeconds(), 1700000000);
}
