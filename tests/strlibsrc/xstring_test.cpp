#include <qel/qelexception.h>
#include <qel/xstring.h>

#include "support/test.h"
#include "support/thrown.h"
#include "support/widetext.h"

namespace {

const char* const noText[] = {nullptr, xnullstr, xuninitstr};

const unsigned short* asWide(const char* marker)
{
    return reinterpret_cast<const unsigned short*>(marker);
}

/// The C structure without a reference of its own, for inspection.
__xstring_c look(const xstring& s)
{
    const __xstring_c c = s.getxstring_c();
    if (c.buffer != nullptr)
        c.buffer->Unlock();
    return c;
}

bool isNull(const xstring& s)
{
    const __xstring_c c = look(s);
    return c.buffer == nullptr && c.mb == xnullstr && c.wide == asWide(xnullstr);
}

std::string narrow(const xstring& s)
{
    const char* const text = s.CastToCString();
    return text == nullptr ? "(null)" : text;
}

std::u16string wide(const xstring& s)
{
    return wideString(s.CastToCWString());
}

/// Runs `call` and returns the text of the framework exception that it must throw.
template<typename Call>
std::string thrown(Call call)
{
    return describeThrown<qelXNativeException>(
        call, [](qelXNativeException* native) { return narrow(native->getStringRep()); }, "nothing");
}

} // namespace

TEST(xstring, IsNullForNullAndMarkers)
{
    EXPECT_TRUE(isNull(xstring()));
    EXPECT_TRUE(isNull(xstring(nullptr)));
    for (const char* marker : noText) {
        EXPECT_TRUE(isNull(xstring(marker)));
        EXPECT_TRUE(isNull(xstring(asWide(marker))));
        EXPECT_TRUE(isNull(xstring(marker, 3)));
        EXPECT_TRUE(isNull(xstring(asWide(marker), 1, 2)));
        EXPECT_TRUE(isNull(xstring(marker, xuninitstr)));
        xstring narrowText("text"), wideText(WideText(u"text"));
        EXPECT_TRUE(isNull(narrowText = marker));
        EXPECT_TRUE(isNull(wideText = asWide(marker)));
    }
    xstring assigned("text");
    EXPECT_TRUE(isNull(assigned = nullptr));
}

TEST(xstring, QueriesOfNullStringDoNotReadMarkers)
{
    const xstring null;
    int i;
    double d;

    EXPECT_EQ(null.GetMBSize(), 0u);
    EXPECT_EQ(null.GetLength(), 0);
    EXPECT_EQ(null.CastToCString(), nullptr);
    EXPECT_EQ(null.CastToCWString(), nullptr);
    EXPECT_FALSE(null.ToInt(&i) || null.ToDouble(&d));
    EXPECT_TRUE(isNull(null.ToUpper()) && isNull(null.ToLower()) && isNull(null.Substring(0, 1)));
    EXPECT_EQ(null.GetNWords(" "), 0);
    EXPECT_EQ(null.GetWord(0, " "), "");
    EXPECT_EQ(null.GetWord(0, WideText(u" ")), "");
    EXPECT_EQ(null.Pos("x"), -1);
    EXPECT_FALSE(null.Match("*") || null.Match(WideText(u"*")));
    xstring same;
    same.Substitute("a", "b", 0, -1);
    EXPECT_TRUE(isNull(same));
}

TEST(xstring, AcceptsMarkersAsArguments)
{
    for (const char* marker : noText) {
        xstring s("a b");
        s += marker;
        s += asWide(marker);
        s.Substitute(marker, "x", 0, -1);
        EXPECT_EQ(s, "a b");
        EXPECT_EQ(s.Pos(marker), -1);
        EXPECT_FALSE(s.Match(asWide(marker)));
        EXPECT_EQ(s.GetNWords(marker), 1);
        s.Substitute(" ", marker, 0, -1);
        EXPECT_EQ(s, "ab");
    }
}

TEST(xstring, StaysNullWhenNothingIsAppended)
{
    xstring nothing;
    nothing += "";
    nothing += '\0';
    nothing += static_cast<unsigned short>(0);
    nothing += WideText(u"");
    EXPECT_TRUE(isNull(nothing));
}

TEST(xstring, EmptyStringsShareOneBuffer)
{
    char* mb;
    unsigned short* units;
    btkStrBuf* const shared = xstringAttachEmptyStrBuf(&mb, &units);
    const xstring text("text");
    const xstring empties[] = {
        "",
        xstring(WideText(u"")),
        xstring("", ""),
        xstring(xnullstr, ""),
        xstring("", 4),
        xstring("abc", 0),
        xstring("abc", -1),
        xstring("abc", 3, 9),
        text.Substring(1, 1),
        text.Substring(4, -1),
        text.GetWord(1, " "),
        xstring("") = WideText(u""),
        xstring::Printf("%s", ""),
    };
    for (const xstring& empty : empties) {
        EXPECT_EQ(look(empty).buffer, shared);
        EXPECT_EQ(look(empty).mb, mb);
        EXPECT_EQ(look(empty).wide, units);
        EXPECT_EQ(empty.GetMBSize(), 1u);
    }

    xstring appended(empties[0]);
    appended += 'x';
    appended += "yz";
    EXPECT_EQ(appended, "xyz");
    EXPECT_EQ(empties[0], "");
    EXPECT_STREQ(mb, "");
    shared->Unlock();
}

TEST(xstring, ConstructsFromTextsAndParts)
{
    EXPECT_EQ(xstring("abc", "def"), "abcdef");
    EXPECT_EQ(xstring("abc", xuninitstr), "abc");
    EXPECT_EQ(xstring(WideText(u"abc"), WideText(u"d\u00E9f")), WideText(u"abcd\u00E9f"));
    EXPECT_EQ(xstring("abc", 5), "abc");
    EXPECT_EQ(xstring("abcdef", 1, 3), "bc");
    EXPECT_EQ(xstring("abcdef", 4, -1), "ef");
    EXPECT_EQ(xstring("abcdef", -4, 2), "ab");
    EXPECT_EQ(xstring("abcdef", 3, 2), "");
    EXPECT_EQ(xstring("abc", std::numeric_limits<int>::max()), "abc");
    EXPECT_EQ(xstring("\xC3\xA9\xE2\x82\xAC!", 2), "\xC3\xA9\xE2\x82\xAC") << "characters, not bytes";
    EXPECT_EQ(xstring("\xC3\xA9\xE2\x82\xAC!", 1, 2), "\xE2\x82\xAC");
    EXPECT_EQ(xstring(WideText(u"abcdef"), 2), WideText(u"ab"));
    EXPECT_EQ(xstring(WideText(u"abcdef"), 4, 99), WideText(u"ef"));
    const char unterminated[] = {'a', 'b', 'c'}; // the sanitizer detects a read beyond it
    EXPECT_EQ(xstring(unterminated, 3), "abc");
}

TEST(xstring, CopiesShareBufferUntilWritten)
{
    const xstring original("shared text");
    xstring copy(original);
    xstring assigned;
    assigned = original;
    EXPECT_EQ(look(copy).buffer, look(original).buffer);
    EXPECT_EQ(look(assigned).buffer, look(original).buffer);

    copy += '!';
    assigned = "other";

    EXPECT_EQ(original, "shared text");
    EXPECT_EQ(copy, "shared text!");
    EXPECT_EQ(assigned, "other");
}

TEST(xstring, WritesToUnsharedBufferInPlace)
{
    xstring s("a text that is long enough");
    const btkStrBuf* const buffer = look(s).buffer;

    s = "shorter";
    s += " text";
    s += '.';
    s.Substitute("t", "T", 0, 2);

    EXPECT_EQ(look(s).buffer, buffer);
    EXPECT_EQ(s, "shorTer Text.");
}

TEST(xstring, PassesReferenceThroughCStructure)
{
    const __xstring_c c = xstring("text").getxstring_c();
    xstring s(c);
    xstring assigned("other");
    assigned = c;
    c.buffer->Unlock();
    EXPECT_EQ(s, "text");
    EXPECT_EQ(look(assigned).buffer, look(s).buffer);

    xstring moved(std::move(s));
    EXPECT_EQ(moved, "text");
    EXPECT_TRUE(isNull(s)); // NOLINT(bugprone-use-after-move): moved-from strings are null
    EXPECT_TRUE(isNull(xstring(look(s))));
    moved = std::move(assigned);
    EXPECT_EQ(moved, "text");
    xstring& alias = moved;
    moved = alias;
    EXPECT_EQ(moved, "text");
}

TEST(xstring, ProducesOtherFormOnDemandAndDropsItWhenStale)
{
    xstring s(WideText(u"h\u00E9llo"));
    EXPECT_EQ(look(s).mb, nullptr);
    EXPECT_EQ(s.GetMBSize(), 8u) << "one more than it will take";
    EXPECT_EQ(s.GetLength(), 5);

    EXPECT_EQ(narrow(s), "h\xC3\xA9llo");
    EXPECT_EQ(s.GetMBSize(), 7u);
    EXPECT_EQ(s.GetLength(), 6);

    s += WideText(u"!");
    EXPECT_EQ(look(s).mb, nullptr);
    EXPECT_EQ(narrow(s), "h\xC3\xA9llo!");
    s += "?";
    EXPECT_EQ(look(s).wide, nullptr);
    EXPECT_EQ(wide(s), u"h\u00E9llo!?");
    s += 'x';
    EXPECT_EQ(wide(s), u"h\u00E9llo!?x");
}

TEST(xstring, TextsStayValidWhileCopyHoldsBuffer)
{
    xstring copy;
    const char* text;
    {
        const xstring s(WideText(u"kept"));
        copy = s;
        text = s.CastToCString();
    }
    EXPECT_STREQ(text, "kept");
    // The text that the other string produced may also be assigned to this one.
    copy = text;
    EXPECT_EQ(copy, "kept");
}

TEST(xstring, AppendsAndAssignsPartsOfItself)
{
    xstring s("abc");
    s += s.CastToCString() + 1;
    EXPECT_EQ(s, "abcbc");
    for (int i = 0; i < 8; ++i)
        s += s.CastToCString();
    EXPECT_EQ(s.GetLength(), 5 << 8);
    s += s.CastToCWString();
    EXPECT_EQ(s.GetLength(), 5 << 9);
    s = s.CastToCString() + s.GetLength() - 2;
    EXPECT_EQ(s, "bc");
    s = s.CastToCWString() + 1;
    EXPECT_EQ(s, "c");

    xstring dots("a.b");
    dots.Substitute(dots.CastToCString() + 2, dots.CastToCString(), 0, -1); // "b" by "a.b"
    EXPECT_EQ(dots, "a.a.b");
    dots.Substitute(dots.CastToCString(), dots.CastToCString() + 4, 0, -1); // all of it by "b"
    EXPECT_EQ(dots, "b");
}

TEST(xstring, SubstringCountsCharactersOfProducedForm)
{
    const xstring s("abcdef");
    EXPECT_EQ(s.Substring(2, -1), "cdef");
    EXPECT_EQ(s.Substring(6, 8), "");
    EXPECT_EQ(s.Substring(-3, 100), "abcdef");
    EXPECT_EQ(s.Substring(4, 2), "");

    const xstring smile(WideText(u"\xD83D\xDE00!"));
    EXPECT_EQ(smile.Substring(2, -1), "!") << "units while there is only the wide form";
    EXPECT_EQ(narrow(smile), "\xF0\x9F\x98\x80!");
    EXPECT_EQ(smile.Substring(1, -1), "!") << "UTF-8 characters afterwards";
}

TEST(xstring, PosReturnsIndexForSubstring)
{
    const xstring size("Gr\xC3\xB6\xC3\x9F\x65: 5");
    EXPECT_EQ(size.Substring(size.Pos(":") + 1, -1), " 5");
    EXPECT_EQ(size.CastToCString() + size.BytePos("5"), std::string("5"));
    xstring changed = size;
    changed.Substitute("5", "6", changed.Pos("5"), -1);
    EXPECT_EQ(changed, "Gr\xC3\xB6\xC3\x9F\x65: 6");
    EXPECT_EQ(size.Pos("none"), -1);
    EXPECT_EQ(size.Pos(""), 0);
    EXPECT_EQ(xstring("\xFF\xC3x").Pos("x"), 2) << "bytes that are no UTF-8 are characters";
}

TEST(xstring, QueriesUseMatchingForm)
{
    for (const xstring& s : {xstring(" 12 \xC3\xA9"), xstring(WideText(u" 12 \u00E9"))}) {
        EXPECT_EQ(s.GetNWords(" "), 2);
        EXPECT_EQ(s.GetNWords(WideText(u"\u00E9")), 1);
        EXPECT_EQ(s.GetWord(0, WideText(u" ")), "12");
        EXPECT_EQ(s.GetWord(1, " "), "\xC3\xA9");
        EXPECT_EQ(s.Pos("\xC3"), 4);
        EXPECT_EQ(s.Pos("\xA9"), 4);
        EXPECT_EQ(s.BytePos("\xA9"), 5);
        EXPECT_EQ(s.Pos(WideText(u"\u00E9")), 4);
        EXPECT_TRUE(s.Match(" 1? *?"));
        EXPECT_TRUE(s.Match(WideText(u"*\u00E9")));
        EXPECT_FALSE(s.Match("1?"));
        int i;
        EXPECT_FALSE(s.ToInt(&i));
    }
    for (const xstring& s : {xstring("17"), xstring(WideText(u"17"))}) {
        int i = 0;
        double d = 0;
        EXPECT_TRUE(s.ToInt(&i) && s.ToDouble(&d));
        EXPECT_EQ(i + d, 34);
    }
    const xstring original(WideText(u"aBc")), mb("aBc");
    EXPECT_EQ(original.ToUpper(), "ABC");
    EXPECT_EQ(mb.ToLower(), "abc");
    EXPECT_EQ(original, "aBc");
    EXPECT_EQ(mb, "aBc");
}

TEST(xstring, SubstitutesInPlaceOrInNewBuffer)
{
    const auto substituted = [](xstring s, const char* from, const char* to, int start, int count) {
        const xstring copy(s);
        xstring alone(narrow(s).c_str());
        s.Substitute(from, to, start, count);
        alone.Substitute(from, to, start, count);
        EXPECT_EQ(s, alone);
        EXPECT_EQ(copy, "one two one") << "a copy does not change";
        return s;
    };
    EXPECT_EQ(substituted("one two one", "one", "three", 0, -1), "three two three");
    EXPECT_EQ(substituted("one two one", "one", "1", 0, -1), "1 two 1");
    EXPECT_EQ(substituted("one two one", "one", "1", 0, 1), "1 two one");
    EXPECT_EQ(substituted("one two one", "one", "1", 1, -1), "one two 1");
    EXPECT_EQ(substituted("one two one", "one", "", 0, 9), " two ");
    EXPECT_EQ(substituted("one two one", "o", "O", 0, 0), "one two one");
    EXPECT_EQ(substituted("one two one", "", "x", 0, -1), "one two one");
    EXPECT_EQ(substituted("one two one", "x", "y", 0, -1), "one two one");
    EXPECT_EQ(substituted(xstring(WideText(u"one two one")), "one", "\xE2\x82\xAC", 0, -1),
              "\xE2\x82\xAC two \xE2\x82\xAC");

    xstring s("\xC3\xA9,\xC3\xA9");
    s.Substitute(WideText(u"\u00E9"), WideText(u"<>"), 1, -1);
    EXPECT_EQ(s, WideText(u"\u00E9,<>"));
    EXPECT_EQ(s, "\xC3\xA9,<>");
}

TEST(xstring, ComparesNullsTextsAndForms)
{
    const xstring null, empty(""), mb("h\xC3\xA9"), units(WideText(u"h\u00E9"));
    for (const char* marker : noText) {
        EXPECT_TRUE(null == marker);
        EXPECT_TRUE(null == asWide(marker));
        EXPECT_FALSE(empty == marker);
        EXPECT_FALSE(mb == asWide(marker));
    }
    EXPECT_TRUE(null == nullptr && null == xstring());
    EXPECT_TRUE(empty != nullptr && empty != null);
    EXPECT_FALSE(null == "");

    EXPECT_TRUE(mb == units && units == mb);
    EXPECT_TRUE(units == xstring(WideText(u"h\u00E9")));
    EXPECT_TRUE("h\xC3\xA9" == units && WideText(u"h\u00E9") == mb);
    EXPECT_TRUE(mb != "h" && mb != "h\xC3\xA9!" && mb != xstring("H\xC3\xA9") && units != WideText(u"h"));
}

TEST(xstring, ThrowsForWideTextWithoutMultibyteForm)
{
    const std::string message = "xstring::GetMBSize: invalid wide string";
    xstring s(WideText(u"a\xD800z"));
    std::ostringstream out;

    EXPECT_EQ(s.GetMBSize(), 0u);
    EXPECT_EQ(thrown([&] { s.CastToCString(); }), message);
    EXPECT_EQ(thrown([&] { s += "x"; }), message);
    EXPECT_EQ(thrown([&] { s.Substitute("a", "b", 0, -1); }), message);
    EXPECT_EQ(thrown([&] { (void)s.Match("*"); }), message);
    EXPECT_EQ(thrown([&] { out << s; }), message);

    EXPECT_FALSE(s == "a" || s == xstring("a")) << "equality has an answer";
    EXPECT_TRUE(s == xstring(WideText(u"a\xD800z")));
    EXPECT_TRUE(s.Match(WideText(u"a?z")));
    EXPECT_EQ(s.GetLength(), 3);
    s += WideText(u"!");
    EXPECT_EQ(wide(s), u"a\xD800z!");
    s = "narrow again";
    EXPECT_EQ(s, "narrow again");
}

TEST(xstring, PrintfFormatsUpToWorkingArea)
{
    EXPECT_EQ(xstring::Printf("%d %s", 12, "x"), "12 x");
    const xstring units = xstring::Printf(WideText(u"%s\u20AC"), "\xC3\xA9");
    EXPECT_EQ(wide(units), u"\u00E9\u20AC");
    EXPECT_EQ(xstring::Printf("%2055s", "x").GetLength(), 2055);
    EXPECT_TRUE(isNull(xstring::Printf("%ls", L"\xD800"))) << "the format fails";
    EXPECT_TRUE(isNull(xstring::Printf(asWide(xnullstr))));
    EXPECT_DEATH(xstring::Printf("%2056s", "x"), "String too long");
}

TEST(xstring, WritesToStream)
{
    std::ostringstream out;
    const xstring units(WideText(u"s\u00EDn"));
    out << xstring() << ' ' << xstring("") << xstring("text") << ' ' << units;

    EXPECT_EQ(out.str(), "nil text s\xC3\xADn");
    EXPECT_EQ(look(units).mb, nullptr) << "written from a temporary copy";
}

TEST(xstring, TwoThreadsReadTwoCopies)
{
    for (int round = 0; round < 300; ++round) {
        xstring mine(WideText(u"s\u00EDn"));
        std::string seen;
        std::thread reader([&seen, theirs = mine] {
            for (int i = 0; i < 20; ++i) {
                const xstring copy(theirs);
                seen = narrow(copy) + (copy.Match("s*") ? "" : "?");
            }
        });
        EXPECT_EQ(mine, "s\xC3\xADn");
        mine += "r";
        mine.Substitute("s", "S", 0, 1);
        reader.join();

        EXPECT_EQ(seen, "s\xC3\xADn");
        EXPECT_EQ(mine, "S\xC3\xADnr");
    }
}
