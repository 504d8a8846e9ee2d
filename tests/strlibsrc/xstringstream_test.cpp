#include <strstream>

#include <qel/xstring.h>

#include "support/test.h"

TEST(xstringFromStrstream, TakesWrittenTextAndStreamStaysUsable)
{
    std::strstream stream;
    xstring s("before");
    EXPECT_EQ(s = stream, "");

    stream << "number " << 12;
    EXPECT_EQ(xstring(stream), "number 12");
    EXPECT_STREQ(stream.str(), "number 12") << "terminated";
    stream.freeze(false);

    for (int i = 0; i < 500; ++i)
        stream << '.'; // fails on a frozen stream; the leak check verifies that it frees its memory
    s = stream;
    EXPECT_EQ(s.GetLength(), 509);
    EXPECT_TRUE(s.Match("number 12...*"));

    stream << std::ends;
    EXPECT_EQ(xstring(stream).GetLength(), 509);
}

TEST(xstringFromStrstream, TakesWholeFullArray)
{
    char array[4];
    std::strstream stream(array, sizeof array);
    stream << "abcd";
    EXPECT_EQ(xstring(stream), "abcd");
}
