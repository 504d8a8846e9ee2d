#include "progress.h"
#include "support/tempdir.h"
#include "support/terminal.h"
#include "support/test.h"

TEST(Progress, IsOneLineThatFits)
{
    EXPECT_EQ(ProgressLine::Text("file", 5e8, 2e9, 2), " 25%  500 MB of 2.00 GB  250 MB/s  0:06 left  file");
    EXPECT_EQ(ProgressLine::Text("-", 999, 0, 0), "999 bytes  0 bytes/s  -");
    EXPECT_EQ(ProgressLine::Text("grown", 200, 100, 1), "100%  200 bytes of 200 bytes  200 bytes/s  grown");
    EXPECT_EQ(ProgressLine::Text("x", 1, 1e15, 4000).substr(0, 48),
              "  0%  1 bytes of 1.00 PB  0 bytes/s  99:59:59 le"); // hours have two digits at most
    EXPECT_EQ(ProgressLine::Text(std::string(100, 'a') + "\x1b[2J.log", 1e6, 2e6, 1),
              " 50%  1.00 MB of 2.00 MB  1.00 MB/s  0:01 left  ..." + std::string(21, 'a') + "[2J.log");
    std::string umlauts;
    for (int i = 0; i < 100; ++i)
        umlauts += "\xC3\xA4";
    EXPECT_EQ(ProgressLine::Text(umlauts, 1e6, 2e6, 1).size(), 48 + 3 + 28 * 2u);
    EXPECT_EQ(SizeText(999.4), "999 bytes");
    EXPECT_EQ(SizeText(999.6), "1.00 kB");
    EXPECT_EQ(SizeText(99960), "100 kB");
    EXPECT_EQ(SizeText(12340000), "12.3 MB");
}

TEST(QelFs, ShowsProgressOnATerminal)
{
    const TempDir dir;
    // Holes take no space and no time to copy; summing them takes a while.
    dir.write("holes", "");
    std::filesystem::resize_file(dir.path("holes"), 4000000000);
    AtTerminal program({"qel", "fs", "sum", dir.path("holes")});
    const std::string shown = program.readUntil("left  holes");
    EXPECT_NE(shown.find("% "), std::string::npos) << shown;
    EXPECT_NE(shown.find(" of 4.00 GB  "), std::string::npos) << shown;
    program.type('\x03');
    EXPECT_EQ(program.wait(), -1) << "ended by the interrupt";
}
