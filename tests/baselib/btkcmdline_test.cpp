#include <gmock/gmock.h>

#include <qel/base/btkcmdline.h>

#include "support/test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> WordsOf(const char* line)
{
    std::vector<std::string> words = {"stale"};
    EXPECT_TRUE(btkSplitCommandLine(line, words)) << line;
    return words;
}

} // namespace

TEST(btkSplitCommandLine, SplitsWordsAndReadsQuotesLikeAShell)
{
    EXPECT_THAT(WordsOf(" \t\n"), IsEmpty());
    EXPECT_THAT(WordsOf("  a\tb\nc  "), ElementsAre("a", "b", "c"));
    EXPECT_THAT(WordsOf(R"('a "b' "c 'd" e' 'f""g"h i")"), ElementsAre("a \"b", "c 'd", "e fgh i"));
    EXPECT_THAT(WordsOf(R"('' "" x)"), ElementsAre("", "", "x"));
    EXPECT_THAT(WordsOf(R"(a\ b "\"\\\n" '\' \')"), ElementsAre("a b", R"("\\n)", "\\", "'"));
    EXPECT_THAT(WordsOf(R"(end\)"), ElementsAre("end\\"));
}

TEST(btkSplitCommandLine, KeepsALineForAShellInOnePiece)
{
    EXPECT_THAT(WordsOf(R"(/bin/sh -c "echo "a  b" 'c"")"),
                ElementsAre("/bin/sh", "-c", R"(echo "a  b" 'c")"));
    EXPECT_THAT(WordsOf(R"(cmd.exe /c "dir")"), ElementsAre("cmd.exe", "/c", "dir"));
    EXPECT_THAT(WordsOf(R"(sh -c "")"), ElementsAre("sh", "-c", ""));
    // Only where the quote is the last character.
    EXPECT_THAT(WordsOf(R"(sh -c "a b" c)"), ElementsAre("sh", "-c", "a b", "c"));
    EXPECT_THAT(WordsOf(R"(sh -x -c "a" "b")"), ElementsAre("sh", "-x", "-c", "a", "b"));
}

TEST(btkSplitCommandLine, RejectsAnUnterminatedQuote)
{
    for (const char* const line : {"a 'b", "a \"b", R"(a "b\")", "sh -c \"", "'"}) {
        std::vector<std::string> words = {"stale"};
        EXPECT_FALSE(btkSplitCommandLine(line, words)) << line;
        EXPECT_THAT(words, IsEmpty());
    }
}

TEST(btkQuoteWord, QuotedWordIsReadBackUnchanged)
{
    std::minstd_rand random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string word;
        for (std::size_t length = random() % 8; length > 0; --length)
            word += "'\"\\ $`ab\t"[random() % 9];
        EXPECT_THAT(WordsOf(("x " + btkQuoteWord(word) + " y").c_str()), ElementsAre("x", word, "y"));
    }
}
