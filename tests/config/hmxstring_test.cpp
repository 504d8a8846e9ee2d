#include <qel/hmxconfigfile.h>

#include "support/test.h"
#include "support/texts.h"

TEST(TextFunctions, RemoveCharacters)
{
    char text[] = "a-b--c-";
    EXPECT_TRUE(StrPress(text, '-'));
    EXPECT_STREQ(text, "abc");
    EXPECT_FALSE(StrPress(text, '-'));
    EXPECT_FALSE(StrPress(text, '\0'));
    EXPECT_STREQ(text, "abc");

    const std::unique_ptr<char[]> pressed(StrPress("a b\tc"));
    EXPECT_STREQ(pressed.get(), "abc");
    for (const char* none : {"abc", "", static_cast<const char*>(nullptr), xnullstr})
        EXPECT_EQ(StrPress(none), nullptr);
    xstring string("\t a "), null;
    StrPress(string);
    StrPress(null);
    EXPECT_EQ(textOf(string), "a");
    EXPECT_EQ(textOf(null), "(null)");
}

TEST(TextFunctions, SplitAtTheFirstCharacter)
{
    for (const auto& [text, first, rest] :
         rowsOf<3>("a:b:c,a,b:c|:x,(null),x|ab:,ab,(null)|:,(null),(null)")) {
        xstring before, after;
        EXPECT_TRUE(StrSplit(text.c_str(), ':', before, after));
        EXPECT_EQ(textOf(before) + "," + textOf(after), first + "," + rest);
        EXPECT_EQ(textOf(StrSplitBefore(text.c_str(), ':')), first);
        EXPECT_EQ(textOf(StrSplitAfter(text.c_str(), ':')), rest);
    }
    xstring before("kept"), after("kept");
    for (const char* none : {"abc", "", static_cast<const char*>(nullptr), xnullstr}) {
        EXPECT_FALSE(StrSplit(none, ':', before, after));
        EXPECT_EQ(textOf(StrSplitBefore(none, ':')), "(null)");
        EXPECT_EQ(textOf(StrSplitAfter(none, ':')), "(null)");
    }
    EXPECT_EQ(textOf(before) + textOf(after), "keptkept");
    xstring own("k:v");
    EXPECT_TRUE(StrSplit(own.CastToCString(), ':', own, after)); // the text may belong to an output
    EXPECT_EQ(textOf(own) + textOf(after), "kv");
}
