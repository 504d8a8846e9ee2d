#include <map>
#include <unordered_set>

#include <qel/xstring.h>

#include "support/test.h"
#include "support/thrown.h"

// Strings as a C++20 program uses them. tests/strlibsrc/xstring_test.cpp has the operations by C strings.

namespace {

using namespace std::literals;

bool isWhole(const xstring& s, std::string_view text)
{
    return !s.isNull() && s.view() == text;
}

} // namespace

TEST(Texts, OfEveryKindMakeAString)
{
    const xstring strings[] = {"Zoë",     "Zoë"s, "Zoë"sv, u8"Zoë",  u8"Zoë"s,
                               u8"Zoë"sv, u"Zoë", u"Zoë"s, u"Zoë"sv, xstring(u"Zoë").CastToCWString()};
    for (const xstring& s : strings)
        EXPECT_TRUE(isWhole(s, "Zoë"));

    EXPECT_TRUE(isWhole("ab\0cd"sv, "ab") && isWhole(u"ab\0cd"sv, "ab") && isWhole(u8"ab\0cd"s, "ab"));
    EXPECT_TRUE(isWhole(std::string_view(), "") && isWhole(std::u16string_view(), "") && isWhole(u""s, ""));
    EXPECT_TRUE(xstring(static_cast<const char8_t*>(nullptr)).isNull());
    EXPECT_TRUE(xstring(static_cast<const char16_t*>(nullptr)).isNull());
    EXPECT_TRUE(xstring(reinterpret_cast<const char16_t*>(xuninitstr)).isNull());
}

TEST(Texts, OfEveryKindAreAssignedAppendedAndAdded)
{
    xstring s = "old";
    s = {};
    EXPECT_TRUE(s.isNull() && s.empty() && s.view().empty());
    s = "a"s;
    s += "b"sv;
    s += u"ü";
    s += u8"ö"s;
    s += xstring("c");
    s += s;
    EXPECT_TRUE(isWhole(s, "abüöcabüöc"));

    const xstring null, x("x");
    EXPECT_TRUE(isWhole("<" + x + ">"s + '!' + u"ß" + x, "<x>!ßx"));
    EXPECT_TRUE(isWhole('c' + x, "cx") && isWhole("s"s + x, "sx") && isWhole(null + "a", "a"));
    EXPECT_TRUE((null + null).isNull() && isWhole(null + x, "x") && isWhole(x + null, "x"));
    s = null;
    s += x;
    s += null;
    EXPECT_TRUE(isWhole(s, "x"));
    EXPECT_TRUE(isWhole(x, "x"));
}

TEST(Texts, CompareInOneOrder)
{
    const xstring null, empty(""), a("a"), b(u"b"), umlaut(u8"ü");

    EXPECT_TRUE(null < empty && empty < a && a < b && b < umlaut && (a <=> "a"sv) == 0 && null <= null);
    EXPECT_TRUE(a < "b" && "b"s > a && u"b" == b && b == "b"s && "b"sv == b && b != u8"c" && a >= "a"s);
    const std::map<xstring, int> sorted = {{"b", 2}, {"a"s, 1}, {null, 0}};
    EXPECT_TRUE(sorted.begin()->first == nullptr && sorted.at("b") == 2);
}

TEST(Texts, WithTheSameCharactersHaveTheSameHash)
{
    const xstring lone(reinterpret_cast<const unsigned short*>(u"\xd800"));
    std::unordered_set<xstring> known = {"a", u"b", nullptr, "", lone};
    known.insert({xstring(u"a"), xstring("b"), xstring()});
    EXPECT_EQ(known.size(), 5u);
    EXPECT_TRUE(known.contains("a"s) && known.contains(lone) && !known.contains("c"));

    EXPECT_EQ(thrownBy([&] { lone.view(); }), "qellib::XNativeException");
    EXPECT_FALSE(lone.empty());
}

TEST(Texts, BecomeTextsOfTheStandardLibrary)
{
    const xstring s(u"grün"), null;

    EXPECT_EQ(std::string(s), "grün");
    EXPECT_EQ(static_cast<std::string>(null), "");
    EXPECT_EQ(s.view().substr(0, 2), "gr");
    std::ostringstream out;
    out << s << null;
    EXPECT_EQ(out.str(), "grünnil");
}
