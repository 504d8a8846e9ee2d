#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/base/btktrace.h>

#include "support/tempdir.h"
#include "support/test.h"

namespace {

// The library reads the environment when it is loaded: the cases run this program anew, with this argument.
constexpr const char* asTracer = "--trace";

std::string contentOf(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Returns the text that the tracer writes to its standard error output.
std::string traced(const TempDir& folder, const std::string& settings,
                   const std::string& program = std::filesystem::read_symlink("/proc/self/exe").string())
{
    const std::string output = folder.path("output");
    const std::string line = "env " + settings + " '" + program + "' " + asTracer + " 2>'" + output + "'";
    EXPECT_EQ(std::system(line.c_str()), 0);
    return contentOf(output);
}

int trace()
{
    errno = ENOENT;
    if (btkTraces(btkTraceArea::names, btkLevel::error))
        btkTrace(btkTraceArea::names, btkLevel::error, "odd \n\x1b[31m %d: ", 7);
    const bool isKept = errno == ENOENT;
    btkOpenFile("/nonexistent/file", btkOpenRead);
    btkAcceptSocket door;
    const bool listens = door.Listen(0, "127.0.0.1");
    btkLog(btkLevel::warning, "limit\treached");
    return isKept && listens ? 0 : 1;
}

TEST(btkTrace, WritesWhatTheEnvironmentWants)
{
    const TempDir folder;

    const std::string nothing = traced(folder, "-u QELSTD_TRACE");
    const std::string names = traced(folder, "QELSTD_TRACE=names:error,files");
    const std::string warnings = traced(folder, "QELSTD_TRACE=net,files:warning");
    const std::string all = traced(folder, "QELSTD_TRACE=all");

    EXPECT_EQ(nothing, "limit\\x09reached\n");
    EXPECT_NE(names.find("Z "), std::string::npos) << names;
    EXPECT_NE(names.find(" names error: odd \\x0a\\x1b[31m 7: "), std::string::npos) << names;
    EXPECT_NE(names.find(" files info: cannot open /nonexistent/file: "), std::string::npos) << names;
    EXPECT_EQ(names.find(" net "), std::string::npos) << names;
    EXPECT_EQ(warnings, nothing);
    EXPECT_NE(all.find(" net info: listens on 127.0.0.1, port "), std::string::npos) << all;
}

TEST(btkTrace, ReportsUnknownWords)
{
    const TempDir folder;

    const std::string output = traced(folder, "QELSTD_TRACE=nets,names:loud");

    EXPECT_NE(output.find("QELSTD_TRACE: \"nets\" is no area"), std::string::npos) << output;
    EXPECT_NE(output.find("QELSTD_TRACE: \"names:loud\" ends in no level"), std::string::npos) << output;
    EXPECT_NE(output.find(" names error: "), std::string::npos) << output;
}

TEST(btkTrace, PutsItsLevelBeforeLinesForTheJournal)
{
    const TempDir folder;
    const std::string output = folder.path("output");
    std::ofstream(output).close();
    struct stat status;
    ASSERT_EQ(stat(output.c_str(), &status), 0);
    const std::string own = std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);

    const std::string journal = traced(folder, "QELSTD_TRACE=files JOURNAL_STREAM=" + own);
    const std::string other = traced(folder, "QELSTD_TRACE=files JOURNAL_STREAM=1:" + own);

    EXPECT_EQ(journal.rfind("<6>20", 0), 0u) << journal;
    EXPECT_NE(journal.find("\n<4>limit"), std::string::npos) << journal;
    EXPECT_EQ(other.find('<'), std::string::npos) << other;
}

TEST(btkTrace, WritesOnlyAFileOfThisUserAndThroughNoLink)
{
    const TempDir folder;
    const std::string file = folder.path("trace");
    const std::string link = folder.path("link");
    const std::string target = folder.path("target");
    const std::string pipe = folder.path("pipe");
    std::filesystem::create_symlink(target, link);
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    umask(0);

    const std::string output = traced(folder, "QELSTD_TRACE=files QELSTD_TRACE_FILE='" + file + "'");
    traced(folder, "QELSTD_TRACE=files QELSTD_TRACE_FILE='" + file + "'");

    EXPECT_EQ(output, "limit\\x09reached\n");
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    const std::string lines = contentOf(file);
    EXPECT_NE(lines.find("cannot open"), lines.rfind("cannot open")); // of both runs
    for (const std::string& refused : {link, pipe}) {
        const std::string reason = traced(folder, "QELSTD_TRACE=files QELSTD_TRACE_FILE='" + refused + "'");
        EXPECT_NE(reason.find(refused + " is not written: "), std::string::npos) << reason;
        EXPECT_EQ(reason.find("cannot open"), std::string::npos) << reason;
    }
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST(btkTrace, WritesNothingWithMoreRightsThanItsCaller)
{
    const TempDir folder;
    const std::string program = folder.path("program");
    struct statvfs place;
    ASSERT_EQ(statvfs(folder.path("").c_str(), &place), 0);
    if (geteuid() != 0 || (place.f_flag & ST_NOSUID) != 0)
        GTEST_SKIP() << "cannot give a program the rights of another group";
    std::filesystem::copy_file("/proc/self/exe", program);
    constexpr gid_t otherGroup = 65534;
    ASSERT_EQ(chown(program.c_str(), 0, otherGroup), 0);
    ASSERT_EQ(chmod(program.c_str(), 02755), 0);

    EXPECT_EQ(traced(folder, "QELSTD_TRACE=all QELSTD_TRACE_FILE='" + folder.path("trace") + "'", program),
              "limit\\x09reached\n");
    EXPECT_FALSE(std::filesystem::exists(folder.path("trace")));
}

TEST(btkWithoutControls, KeepsWhatIsText)
{
    EXPECT_EQ(btkWithoutControls("a \xC3\xA4 \xC2\xA0"), "a \xC3\xA4 \xC2\xA0");
    EXPECT_EQ(btkWithoutControls(std::string_view("\0\\\x7f\xC2\x9b\r", 6)),
              "\\x00\\x5c\\x7f\\xc2\\x9b\\x0d");
}

} // namespace

int main(int count, char** words)
{
    if (count == 2 && std::string(words[1]) == asTracer)
        return trace();
    testing::InitGoogleTest(&count, words);
    return RUN_ALL_TESTS();
}
