#include <qel/xstring.h>

#include <gtest/gtest.h>

#include <sstream>

TEST(xstring, IsBasicallyThere)
{
    xstring s("abcdef");
    EXPECT_TRUE(s.Substring(2, -1) == "cdef");
    s += 'x';
    EXPECT_TRUE(s == "abcdefx");
    s.Substitute("x", "yyyy", 0, -1);
    EXPECT_TRUE(s == "abcdefyyyy");
    EXPECT_EQ(s.GetMBSize(), 11u);
    std::ostringstream o;
    o << s << xstring();
    EXPECT_EQ(o.str(), "abcdefyyyynil");
    s = "";
    EXPECT_TRUE(s == xstring(""));
    EXPECT_TRUE(s != nullptr);
    EXPECT_EQ(xstring::Printf("%d-%s", 12, "x").GetLength(), 4);
}
