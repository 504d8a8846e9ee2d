#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <qel/platform/directories.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>

#include "support/child.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

HANDLE openFile(const char* path, DWORD access, DWORD disposition, DWORD share = FILE_SHARE_READ)
{
    return CreateFileA(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

LARGE_INTEGER at(long long position)
{
    return {position};
}

} // namespace

TEST(Files, ReadWriteAndSeekBeyond32Bits)
{
    TempDir dir;
    const HANDLE file = openFile(dir.path("big"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    const long long far = 5LL << 30;
    LARGE_INTEGER position;
    DWORD done = 99;
    char read[8] = {};

    ASSERT_TRUE(SetFilePointerEx(file, at(far), &position, FILE_BEGIN));
    EXPECT_EQ(position.QuadPart, far);
    ASSERT_TRUE(WriteFile(file, "end", 3, &done, nullptr));
    EXPECT_EQ(done, 3u);
    ASSERT_TRUE(SetFilePointerEx(file, at(-2), nullptr, FILE_END));
    ASSERT_TRUE(ReadFile(file, read, sizeof read, &done, nullptr));
    EXPECT_EQ(std::string(read, done), "nd");
    ASSERT_TRUE(ReadFile(file, read, sizeof read, &done, nullptr));
    EXPECT_EQ(done, 0u);

    WIN32_FILE_ATTRIBUTE_DATA status;
    ASSERT_TRUE(GetFileAttributesExA(dir.path("big"), GetFileExInfoStandard, &status));
    EXPECT_EQ((static_cast<long long>(status.nFileSizeHigh) << 32) + status.nFileSizeLow, far + 3);

    ASSERT_TRUE(SetFilePointerEx(file, at(1), nullptr, FILE_BEGIN));
    ASSERT_TRUE(SetEndOfFile(file));
    EXPECT_EQ(std::filesystem::file_size(dir.path("big")), 1u);
    EXPECT_FALSE(SetFilePointerEx(file, at(-5), nullptr, FILE_BEGIN));
    EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
    EXPECT_TRUE(CloseHandle(file));
}

TEST(Files, ReportWindowsErrorNumbers)
{
    TempDir dir;
    dir.write("file", "x");
    dir.makeDir("full/sub");
    const auto errorOf = [](bool done) { return done ? 0u : GetLastError(); };
    const auto opened = [&](const char* name) {
        return errorOf(openFile(dir.path(name), GENERIC_READ, OPEN_EXISTING) != INVALID_HANDLE_VALUE);
    };

    EXPECT_EQ(opened("missing"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(opened("missing/x"), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(opened("file/x"), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(opened("full"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(opened(std::string(300, 'n').c_str()), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(errorOf(CreateDirectoryA(dir.path("full"), nullptr)), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(errorOf(CreateDirectoryA(dir.path("missing/sub"), nullptr)), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(errorOf(SetCurrentDirectoryA(dir.path("missing"))), ERROR_FILE_NOT_FOUND);
    dir.link("loop", "loop");
    EXPECT_EQ(opened("loop"), ERROR_CANT_RESOLVE_FILENAME);
    for (const HANDLE none : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
        EXPECT_EQ(errorOf(CloseHandle(none)), ERROR_INVALID_HANDLE);
        EXPECT_EQ(errorOf(SetEndOfFile(none)), ERROR_INVALID_HANDLE);
    }
}

TEST(Files, KeepTheLastErrorOfEachThread)
{
    SetLastError(7);
    std::thread([] {
        EXPECT_EQ(GetLastError(), 0u);
        SetCurrentDirectoryA("/nowhere/at/all");
    }).join();
    EXPECT_EQ(GetLastError(), 7u);
}

TEST(Files, KeepASecondWriterOutAndKeepTheirContents)
{
    TempDir dir;
    dir.write("file", "kept");
    const HANDLE first = openFile(dir.path("file"), GENERIC_WRITE, OPEN_ALWAYS, 0);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);

    EXPECT_EQ(openFile(dir.path("file"), GENERIC_WRITE, CREATE_ALWAYS, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(dir.read("file"), "kept");

    const ChildProcess idle([]() -> int { // has a copy of the descriptor
        pause();
        return 0;
    });
    EXPECT_EQ(runInChild([&] {
                  CloseHandle(first); // unlocks nothing
                  return openFile(dir.path("file"), GENERIC_WRITE, OPEN_ALWAYS, 0) == INVALID_HANDLE_VALUE
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(CloseHandle(first));
    const HANDLE second = openFile(dir.path("file"), GENERIC_WRITE, CREATE_ALWAYS, 0);
    EXPECT_NE(second, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_EQ(dir.read("file"), "");
}

TEST(Files, RejectOtherNodesWithoutWaiting)
{
    TempDir dir;
    ASSERT_EQ(mkfifo(dir.path("pipe"), 0600), 0);
    sockaddr_un address = {AF_UNIX, ""};
    std::string(dir.path("socket")).copy(address.sun_path, sizeof address.sun_path - 1);
    const int server = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    for (const char* name : {"pipe", "socket"})
        for (const DWORD access : {GENERIC_READ, GENERIC_WRITE}) {
            EXPECT_EQ(openFile(dir.path(name), access, OPEN_EXISTING), INVALID_HANDLE_VALUE) << name;
            EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED) << name;
        }
    close(server);
}

TEST(Files, AreNotInheritedByPrograms)
{
    TempDir dir;
    const HANDLE file = openFile(dir.path("file"), GENERIC_WRITE, CREATE_NEW);
    EXPECT_EQ(
        std::system(
            ("ls -l /proc/self/fd | grep -q " + std::string(dir.path("file")) + "; test $? = 1").c_str()),
        0);
    CloseHandle(file);
}

TEST(Files, ReportWhenWritingRunsOutOfSpace)
{
    TempDir dir;
    const int result = runInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const HANDLE file = openFile(dir.path("file"), GENERIC_WRITE, CREATE_NEW);
        const std::string data(1500, 'x');
        DWORD done = 0;
        if (WriteFile(file, data.data(), 1500, &done, nullptr))
            return 0;
        return done == 1000 && GetLastError() == ERROR_FILE_TOO_LARGE ? 1 : 2;
    });
    EXPECT_EQ(result, 1);
}

TEST(Files, MoveNeverReplaces)
{
    TempDir dir;
    dir.write("from", "source");
    dir.write("to", "target");
    dir.link("nowhere", "dangling");
    dir.makeDir("tree/sub");
    dir.makeDir("empty");

    for (const char* target : {"to", "dangling", "empty", "from"}) {
        EXPECT_FALSE(MoveFileExA(dir.path("from"), dir.path(target), 1)) << target;
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS) << target;
    }
    EXPECT_FALSE(MoveFileExA(dir.path("tree"), dir.path("empty"), 0));
    EXPECT_FALSE(MoveFileExA(dir.path("tree"), dir.path("tree/sub/in"), 0));
    EXPECT_FALSE(MoveFileExA(dir.path("missing"), dir.path("new"), 0));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(dir.read("to"), "target");

    EXPECT_TRUE(MoveFileExA(dir.path("from"), dir.path("new"), 0));
    EXPECT_EQ(dir.read("new"), "source");
    EXPECT_TRUE(MoveFileExA(dir.path("tree"), dir.path("tree2"), 0));
    EXPECT_TRUE(dir.has("tree2/sub"));
    EXPECT_TRUE(MoveFileExA(dir.path("dangling"), dir.path("link2"), 0));
    EXPECT_TRUE(std::filesystem::is_symlink(dir.path("link2")));
}

TEST(Files, MoveDoesNotCrossVolumes)
{
    TempDir dir;
    dir.write("file", "x");
    struct stat here, there;
    const std::string target = "/dev/shm/qel" + std::to_string(getpid());
    if (stat("/dev/shm", &there) != 0 || stat(dir.path(), &here) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "needs a second volume";

    EXPECT_FALSE(MoveFileExA(dir.path("file"), target.c_str(), 2));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SAME_DEVICE);
    EXPECT_TRUE(dir.has("file"));
}

TEST(Directories, AreEnumeratedWithEveryNameWithoutDotEntries)
{
    TempDir dir;
    const std::string longest(85 * 3, 'n');
    dir.write("a\\b");
    dir.write("\xFF\xFE");
    dir.write("*");
    dir.write(longest);
    dir.makeDir("sub");
    std::string backslashes(255, '\\');
    dir.write(backslashes);
    WIN32_FIND_DATAA data;
    std::set<std::string> names, directories;

    const HANDLE search = FindFirstFileA((std::string(dir.path()) + "\\*").c_str(), &data);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, ".");
    while (FindNextFileA(search, &data)) {
        names.insert(data.cFileName);
        if (data.dwFileAttributes == FILE_ATTRIBUTE_DIRECTORY)
            directories.insert(data.cFileName);
    }
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_TRUE(FindClose(search));

    std::string shown;
    for (int i = 0; i < 255; ++i)
        shown += "\xEF\x81\x9C";
    EXPECT_EQ(names, (std::set<std::string>{"a\xEF\x81\x9C"
                                            "b",
                                            "\xFF\xFE", "*", longest, "sub", shown}));
    EXPECT_EQ(directories, std::set<std::string>{"sub"});
    const std::string renamed = std::string(dir.path()) + "\\a\xEF\x81\x9C"
                                                          "b";
    EXPECT_TRUE(MoveFileExA(renamed.c_str(), dir.path("moved"), 0));
    EXPECT_FALSE(dir.has("a\\b"));
}

TEST(Directories, ReportWhyTheyCannotBeEnumerated)
{
    TempDir dir;
    dir.write("file");
    WIN32_FIND_DATAA data;
    const auto errorOf = [&](const std::string& pattern) {
        return FindFirstFileA(pattern.c_str(), &data) == INVALID_HANDLE_VALUE ? GetLastError() : 0;
    };

    EXPECT_EQ(errorOf(std::string(dir.path("missing")) + "\\*"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(errorOf(std::string(dir.path("file")) + "\\*"), ERROR_DIRECTORY);
    EXPECT_EQ(errorOf(std::string(dir.path()) + "\\*.txt"), ERROR_INVALID_NAME);
    EXPECT_FALSE(FindNextFileA(INVALID_HANDLE_VALUE, &data));
    EXPECT_FALSE(FindClose(INVALID_HANDLE_VALUE));
}

// ---- errors

TEST(Errors, OfTheOperatingSystemHaveANumberWithAText)
{
    constexpr int highestOfHost = 133;
    constexpr unsigned system = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    char text[100];
    for (int host = 1; host <= highestOfHost; ++host) {
        const unsigned length =
            FormatMessageA(system, nullptr, platErrorOf(host), 0, text, sizeof text, nullptr);
        EXPECT_GT(length, 0u) << host;
        EXPECT_EQ(length, std::strlen(text)) << host;
    }
    EXPECT_EQ(FormatMessageA(system, nullptr, ERROR_ACCESS_DENIED, 0, text, 14, nullptr), 13u);
    EXPECT_STREQ(text, "access denied");
    EXPECT_EQ(FormatMessageA(system, nullptr, ERROR_ACCESS_DENIED, 0, text, 13, nullptr), 0u);
    EXPECT_EQ(FormatMessageA(system, nullptr, 424242, 0, text, sizeof text, nullptr), 0u);
    EXPECT_EQ(FormatMessageA(0, nullptr, ERROR_ACCESS_DENIED, 0, text, sizeof text, nullptr), 0u);
}
