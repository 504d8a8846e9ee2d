#include <ctime>

#include <qel/base/btkstring.h>
#include <qel/base/btkutf.h>

#include "support/test.h"
#include "support/widetext.h"

// ---- UTF

namespace {

std::u16string toWide(std::string_view text)
{
    std::vector<unsigned short> units(btkMBToWCLength(text.data(), text.size()));
    btkMBToWC(text.data(), text.size(), units.data());
    return std::u16string(units.begin(), units.end());
}

std::string toMb(const std::u16string& text)
{
    const std::size_t size = btkWCToMBLength(WideText(text), text.size());
    if (size == btkNoLength)
        return "(none)";
    std::string mb(size, '?');
    btkWCToMB(WideText(text), text.size(), mb.data());
    return mb;
}

} // namespace

TEST(Utf, ConvertsTheFirstAndLastCharacterOfEachSizeBothWays)
{
    const struct
    {
        const char* mb;
        const char16_t* wide;
    } rows[] = {
        {"", u""},
        {"\x01\x7F", u"\x01\x7F"},
        {"\xC2\x80\xDF\xBF", u"\x80\x7FF"},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\x800\xD7FF\xE000\xFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\xD800\xDC00\xDBFF\xDFFF"},
        {"sixteen ascii char\xC3\xA9s and more than sixteen",
         u"sixteen ascii char\u00E9s and more than sixteen"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(toWide(row.mb), row.wide);
        EXPECT_EQ(toMb(row.wide), row.mb);
    }
}

TEST(Utf, CountsEachInvalidByteAsOneCharacter)
{
    const struct
    {
        const char* mb;
        const char16_t* wide;
    } rows[] = {
        {"a\x80z", u"a\xFFFDz"},                           // a continuation alone
        {"\xC3", u"\xFFFD"},                               // cut short at the end
        {"\xE2\x82z", u"\xFFFD\xFFFDz"},                   // and before another character
        {"\xF0\x9F\x98", u"\xFFFD\xFFFD\xFFFD"},           // of four
        {"\xC0\x80\xC1\xBF", u"\xFFFD\xFFFD\xFFFD\xFFFD"}, // overlong
        {"\xE0\x9F\xBF", u"\xFFFD\xFFFD\xFFFD"},           // overlong
        {"\xF0\x8F\xBF\xBF", u"\xFFFD\xFFFD\xFFFD\xFFFD"}, // overlong
        {"\xED\xA0\x80", u"\xFFFD\xFFFD\xFFFD"},           // a surrogate
        {"\xF4\x90\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD"}, // beyond U+10FFFF
        {"\xF5\xFF\xFE", u"\xFFFD\xFFFD\xFFFD"},           // never in UTF-8
        {"long enough for eight\xFF at once", u"long enough for eight\xFFFD at once"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(toWide(row.mb), row.wide);
        // Stepping agrees with converting.
        std::size_t characters = 0;
        for (const char* at = row.mb; *at != 0; at += btkMBCharSize(at))
            ++characters;
        EXPECT_EQ(characters, std::u16string_view(row.wide).size());
    }
}

TEST(Utf, DoesNotConvertUnpairedSurrogates)
{
    for (const char16_t* text : {u"\xD800", u"\xDC00", u"a\xDBFFz", u"\xDC00\xD800", u"\xD800\xD800\xDC00"})
        EXPECT_EQ(toMb(text), "(none)");
}

TEST(Utf, StepsOverCharactersWithoutReadingBeyondThem)
{
    EXPECT_EQ(btkMBByteCount("a\xC3\xA9\xE2\x82\xACz", 3), 6u);
    EXPECT_EQ(btkMBByteCount("ab", 3), 2u);
    EXPECT_EQ(btkMBByteCount("ab", static_cast<std::size_t>(-1)), 2u);
    EXPECT_EQ(btkMBByteCount("", 1), 0u);
    EXPECT_EQ(btkMBPart("a\xC3\xA9\xE2\x82\xACz", 1, 3), "\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(btkMBPart("\xE2\x82", 1, 9), "\x82"); // cut off within a character: its first byte is one
    EXPECT_EQ(btkMBPart("abc", 2, 1), "");
    EXPECT_EQ(btkMBPart("abc", 4, 9), "");
    EXPECT_EQ(btkMBCharCount("a\xC3\xA9\xE2\x82\xACz", 6), 3u);
    EXPECT_EQ(btkMBCharCount("a\xC3\xA9\xE2\x82\xACz", 5), 2u); // cut in a character
    EXPECT_EQ(btkMBCharCount("\xC3\xFF", 2), 2u);

    const std::unique_ptr<char[]> bytes(new char[19]); // no terminator: the sanitizer's run watches
    std::fill_n(bytes.get(), 19, 'x');
    EXPECT_EQ(btkMBByteCount(bytes.get(), 19), 19u);
}

// ---- texts of both widths: each case runs narrow and wide

namespace {

/// The results of one function for both widths of its ASCII arguments; they must agree.
template<typename Call>
auto both(Call call, const std::u16string& a, const std::u16string& b = u"")
{
    const auto narrow = call(toMb(a).c_str(), toMb(b).c_str());
    const WideText wideA(a), wideB(b);
    const auto wide =
        call(static_cast<const unsigned short*>(wideA), static_cast<const unsigned short*>(wideB));
    EXPECT_EQ(narrow, wide) << toMb(a) << " | " << toMb(b);
    return narrow;
}

bool match(const std::u16string& text, const std::u16string& pattern)
{
    return both([](auto* t, auto* p) { return btkStringMatch(t, p); }, text, pattern);
}

std::string number(const std::u16string& text)
{
    return both(
        [](auto* t, auto*) {
            int i = 77;
            double d = 77;
            const bool isInt = btkStringToInt(t, &i);
            const bool isDouble = btkStringToDouble(t, &d);
            EXPECT_TRUE(isInt || i == 77);
            EXPECT_TRUE(isDouble || d == 77);
            return (isInt ? std::to_string(i) : "-") + " " + (isDouble ? std::to_string(d) : "-");
        },
        text);
}

} // namespace

TEST(btkString, ReadsNumbersThatFillTheWholeText)
{
    EXPECT_EQ(number(u"42"), "42 42.000000");
    EXPECT_EQ(number(u" \t+42"), "42 42.000000");
    EXPECT_EQ(number(u"-2147483648"), "-2147483648 -2147483648.000000");
    EXPECT_EQ(number(u"2147483648"), "- 2147483648.000000");
    EXPECT_EQ(number(u"-1.5e2"), "- -150.000000");
    EXPECT_EQ(number(u"0." + std::u16string(400, u'0') + u"1e401"), "- 1.000000");
    EXPECT_EQ(number(u"1e999"), "- -");
    for (const char16_t* text :
         {u"", u" ", u"+", u"-", u"+-1", u"++1", u"42 ", u"42x", u"x42", u"- 1", u"1,5"})
        EXPECT_EQ(number(text), "- -");
    int out = 77;
    EXPECT_FALSE(btkStringToInt<unsigned short>(WideText(u"1\x0131"), &out))
        << "not the digit 1 cut to a byte";
}

TEST(btkString, MapsTheLettersOfTheAlphabetOnly)
{
    std::string mb = "azAZ @[`{ \xC3\xA9\xC3\x89";
    btkStringToUpper(mb.data());
    EXPECT_EQ(mb, "AZAZ @[`{ \xC3\xA9\xC3\x89");
    btkStringToLower(mb.data());
    EXPECT_EQ(mb, "azaz @[`{ \xC3\xA9\xC3\x89");

    WideText wide(u"aZ\u0161\u0141\u0131");
    btkStringToUpper(wide.writable());
    EXPECT_EQ(wideString(wide), u"AZ\u0161\u0141\u0131");
}

TEST(btkString, FindsWordsBetweenDelimiters)
{
    const auto words = [](const std::u16string& text, const std::u16string& delimiters) {
        return both(
            [](auto* t, auto* d) {
                std::string list;
                const int n = btkStringGetNWords(t, d);
                int start = -1;
                int end = -1;
                for (int i = 0; btkStringGetWord(t, i, d, &start, &end); ++i)
                    list += std::to_string(start) + "-" + std::to_string(end) + " ";
                EXPECT_FALSE(btkStringGetWord(t, -1, d, &start, &end));
                return list + std::to_string(n);
            },
            text, delimiters);
    };
    EXPECT_EQ(words(u"one, two", u", "), "0-3 5-8 2");
    EXPECT_EQ(words(u",,a,b;;", u",;"), "2-3 4-5 2");
    EXPECT_EQ(words(u"", u","), "0");
    EXPECT_EQ(words(u",,", u","), "0");
    EXPECT_EQ(words(u"whole text", u""), "0-10 1");

    int start, end;
    EXPECT_EQ(btkStringGetNWords("a\xC3\xA9"
                                 "b\xC3\xA8z",
                                 "\xC3\xA9"),
              2)
        << "a delimiter is a character, not its bytes";
    EXPECT_TRUE(btkStringGetWord("a\xC3\xA9"
                                 "b",
                                 1, "-\xC3\xA9", &start, &end));
    EXPECT_EQ(start, 3);
    EXPECT_EQ(btkStringGetNWords<unsigned short>(WideText(u"a\u20ACb"), WideText(u"\u20AC")), 2);
}

TEST(btkString, MatchesPatterns)
{
    const char16_t* const matching[][2] = {
        {u"", u""},           {u"", u"***"},        {u"abc", u"abc"},  {u"abc", u"a?c"},
        {u"abc", u"*"},       {u"abc", u"*c"},      {u"abc", u"a*"},   {u"abc", u"a*c"},
        {u"abc", u"*b*"},     {u"abc", u"***a***"}, {u"abab", u"*ab"}, {u"mississippi", u"m*iss*i*i"},
        {u"aXbXc", u"a*X?"},  {u"a*c", u"a*c"},     {u"a?c", u"a??"},  {u"xxab?b", u"*b?b"},
        {u"abcabd", u"*ab?"},
    };
    for (const auto& [text, pattern] : matching)
        EXPECT_TRUE(match(text, pattern)) << toMb(text) << " " << toMb(pattern);
    const char16_t* const different[][2] = {
        {u"", u"?"},       {u"a", u""},      {u"abc", u"ab"},     {u"abc", u"ABC"},  {u"abc", u"abcd"},
        {u"abc", u"*d"},   {u"abc", u"?bd"}, {u"aba", u"ab*ba"},  {u"ab", u"*?b?*"}, {u"abc", u"*c*c"},
        {u"abc", u"????"}, {u"abc", u"b*"},  {u"abc", u"*abc?*"},
    };
    for (const auto& [text, pattern] : different)
        EXPECT_FALSE(match(text, pattern)) << toMb(text) << " " << toMb(pattern);
}

TEST(btkString, MatchesWholeCharacters)
{
    EXPECT_TRUE(btkStringMatch("x\xC3\xA9y", "x?y"));
    EXPECT_FALSE(btkStringMatch("\xC3\xA9", "??"));
    EXPECT_TRUE(btkStringMatch("\xC3\xA9\xE2\x82\xAC", "*?"));
    EXPECT_TRUE(btkStringMatch("a\xFFz", "a?z")) << "an invalid byte is a character";
    for (const char* half : {"*\xC3*", "*\xA9*", "*\xA9", "\xC3*", "*?\xA9*"})
        EXPECT_FALSE(btkStringMatch("\xC3\xA9", half)) << "half a character is none of the text's";
    EXPECT_TRUE(btkStringMatch("z\xA9\xC3", "*\xA9*\xC3*"));
}

TEST(btkString, FindsAndReplacesInOrderWithoutOverlap)
{
    const auto replace = [](const std::u16string& text, int start, int count) {
        return both(
            [=](auto* t, auto*) {
                using C = std::remove_cvref_t<decltype(*t)>;
                const C aa[] = {'a', 'a', 0};
                const C b[] = {'-', 0};
                int first = -1;
                const int n = btkStringFind(t, aa, start, count, &first);
                std::vector<C> out(Strlen(t) + 1);
                if (n > 0)
                    btkStringSubstitute(out.data(), t + first, aa, b, n);
                return std::to_string(n) + "@" + std::to_string(first) + " " +
                       std::string(out.begin(), out.begin() + static_cast<long>(Strlen(out.data())));
            },
            text);
    };
    EXPECT_EQ(replace(u"aaaaa", 0, -1), "2@0 --a");
    EXPECT_EQ(replace(u"aaaaa", 2, -1), "1@2 -a");
    EXPECT_EQ(replace(u"xaayaaz", 0, 1), "1@1 -yaaz");
    EXPECT_EQ(replace(u"xaayaaz", 2, 5), "1@4 -z");
    EXPECT_EQ(replace(u"xyz", 0, -1), "0@-1 ");
    EXPECT_EQ(replace(u"aa", 7, -1), "0@-1 ");
    EXPECT_EQ(replace(u"aa", -7, -1), "1@0 -");
    EXPECT_EQ(both([](auto* t, auto* s) { return btkStringFindSubstring(t, s); }, u"ababac", u"abac"), 2);
    EXPECT_EQ(both([](auto* t, auto* s) { return btkStringFindSubstring(t, s); }, u"abab", u"abac"), -1);
    EXPECT_EQ(both([](auto* t, auto* s) { return btkStringFindSubstring(t, s); }, u"abab", u""), 0);

    int first;
    EXPECT_EQ(btkStringFind("\xC3\xA9\xC3\xA9x\xC3\xA9x", "x", 3, -1, &first), 1) << "starts at a character";
    EXPECT_EQ(first, 7);
}

TEST(btkString, SearchesLongTextsInLinearTime)
{
    const std::u16string text(1 << 20, u'a');
    const std::u16string nearly = std::u16string(1 << 19, u'a') + u'b';
    std::u16string stars;
    for (int i = 0; i < 1000; ++i)
        stars += u"*" + std::u16string(100, u'a') + u"?";
    const std::clock_t start = std::clock();

    EXPECT_EQ(both([](auto* t, auto* s) { return btkStringFindSubstring(t, s); }, text, nearly), -1);
    EXPECT_FALSE(match(text, u"*" + nearly + u"*"));
    EXPECT_TRUE(match(text, stars + u"*"));
    EXPECT_FALSE(match(text, stars + u"b"));
    EXPECT_FALSE(match(text, u"*" + std::u16string(1000, u'a') + u"?b*"));

    // Of the processor's time; a search that is not linear takes minutes.
    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 10);
}

TEST(StrneW, CopiesTextsThatHaveAMultibyteForm)
{
    const std::unique_ptr<char[]> copy(StrneW(WideText(u"h\u00E9")));
    EXPECT_STREQ(copy.get(), "h\xC3\xA9");
    EXPECT_EQ(StrneW(WideText(u"\xD800")), nullptr);
}
