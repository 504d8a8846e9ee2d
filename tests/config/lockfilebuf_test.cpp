#include <chrono>
#include <csignal>
#include <fstream>
#include <latch>
#include <memory>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <qel/base/lockfilebuf.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "configsupport.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/faults.h"
#include "support/interrupt.h"
#include "support/longrun.h"
#include "support/resident.h"

// The lock and the safe updates of a configuration file.

namespace {

/// The tests below run this program under strace: before its own main it changes the file named by the
/// environment. It exits with 0 when its change was kept, 3 when the library reports that it was not.
[[maybe_unused]] const bool hasUpdated = [] {
    const char* const path = std::getenv("QEL_TEST_CONFIG");
    if (path == nullptr)
        return false;
    hmxConfigFile file;
    const bool opened = file.Open(path, hmxConfigFile::ReadWrite) && file.SetValue("b", "new");
    _exit(!opened ? 1 : file.CloseChecked() ? 0 : 3);
}();

struct Faulty
{
    bool struck;
    int status; // of the program; 128 and the signal when it was killed
};

/// Runs the program above with a fault at the calls `call` that `when` counts. `onlyOn`: strace's options
/// that select the files.
Faulty updateWithFault(const std::string& path, const std::string& call, const std::string& fault,
                       const std::string& when, const std::string& onlyOn = "")
{
    const TempDir dir(TempDir::InMemory);
    EnvSetting variable("QEL_TEST_CONFIG", path.c_str());
    const int status = runTraced("-o " + dir.path("trace") + " -f -e trace=" + call + " -e inject=" + call +
                                 ":" + fault + ":when=" + when + onlyOn);
    const bool killed = WIFSIGNALED(status) || WEXITSTATUS(status) > 128;
    const int code = killed ? 128 + SIGKILL : WEXITSTATUS(status);
    return {killed || dir.read("trace").find("INJECTED") != std::string::npos, code};
}

/// The content as read by an opening for reading.
std::string asRead(const std::string& path)
{
    lockFileBuf file;
    std::string text;
    if (file.Open(path.c_str(), std::ios_base::in, 0))
        return "(not opened)";
    for (int c; (c = file.sbumpc()) != EOF;)
        text += static_cast<char>(c);
    return text;
}

// The change makes the file longer and moves its other lines.
const std::string oldContent = "a:1\nc:" + std::string(6000, 'c') + "\n";
const std::string newContent = "a:1\nb:new\nc:" + std::string(6000, 'c') + "\n";

class ConfigFaults : public Config, public testing::WithParamInterface<bool>
{
protected:
    /// Writes the old content: to a file with two names, which is overwritten in place, or with one.
    void prepare()
    {
        dir.write("config", oldContent);
        if (GetParam() && !dir.has("other"))
            std::filesystem::create_hard_link(path(), dir.path("other"));
    }
    int expectedNodes() const { return GetParam() ? 2 : 1; }
};

INSTANTIATE_TEST_SUITE_P(Replaced, ConfigFaults, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(InPlace, ConfigFaults, testing::Values(true));

} // namespace

TEST_P(ConfigFaults, IsOldOrNewWhenItsWriterIsKilledAtAnyCall)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    int kept = 0, replaced = 0;
    for (const char* call : {"write", "pwrite64", "fsync", "renameat,renameat2", "unlinkat", "fchmod",
                             "ftruncate", "fallocate", "flock", "getrandom"})
        for (int when = 1;; ++when) {
            prepare();
            const Faulty run = updateWithFault(path(), call, "signal=KILL", std::to_string(when));
            const std::string now = asRead(path());
            EXPECT_TRUE(now == oldContent || now == newContent) << call << when << now.substr(0, 20);
            if (!run.struck) {
                EXPECT_EQ(run.status, 0);
                break;
            }
            kept += now == oldContent;
            replaced += now == newContent;
            // Leftovers do not disturb the next update.
            EXPECT_TRUE(update("b", "next")) << call << when;
            EXPECT_EQ(content().find("b:next\nc:"), 4u) << call << when << content().substr(0, 20);
            EXPECT_EQ(content().size(), newContent.size() + 1);
            EXPECT_EQ(nodes(), expectedNodes()) << call << when;
        }
    EXPECT_GE(kept, 5);
    EXPECT_GE(replaced, 2);
}

TEST_P(ConfigFaults, ContentMatchesTheReportedResultWhenACallFails)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    int failed = 0;
    std::vector<const char*> errors = {"ENOSPC", "EIO", "EDQUOT", "EROFS"};
    errors.resize(ofALongRun<std::size_t>(2, 4));
    for (const char* error : errors)
        for (const char* call :
             {"write", "pwrite64", "fsync", "renameat,renameat2", "ftruncate", "fallocate"})
            for (const char* when : {"1", "2", "1+"}) {
                if (!freedMemoryIsGone && call == std::string("write"))
                    continue; // sanitizers write themselves
                prepare();
                const Faulty run = updateWithFault(path(), call, std::string("error=") + error, when);
                if (!run.struck)
                    continue;
                const std::string fault = std::string(call) + ' ' + error + ' ' + when;
                EXPECT_TRUE(run.status == 0 || run.status == 3) << fault << run.status;
                EXPECT_TRUE(asRead(path()) == (run.status == 0 ? newContent : oldContent)) << fault;
                if (run.status == 3) {
                    EXPECT_TRUE(content() == oldContent) << fault;
                    EXPECT_EQ(nodes(), expectedNodes()) << fault;
                }
                failed += run.status == 3;
                update("b", "next"); // removes the file that keeps the new content
            }
    EXPECT_GE(failed, GetParam() ? 4 : 6);
}

TEST_F(Config, InPlaceUpdateOnAFullDiskKeepsItWhole)
{
    dir.makeDir("small");
    const std::string file = dir.path("small/config");
    expectSuccessInChild("needs the right to mount", [&] {
        if (!enterOwnMounts() || mount("none", dir.path("small"), "tmpfs", 0, "size=64k") != 0)
            return notAllowed;
        dir.write("small/config", oldContent);
        std::filesystem::create_hard_link(file, dir.path("small/other"));
        dir.write("small/filler", std::string(48 * 1024, 'f')); // 2 of 16 pages are left
        hmxConfigFile config;
        if (!config.Open(file.c_str(), hmxConfigFile::ReadWrite) ||
            !config.SetValue("b", std::string(20000, 'n').c_str()))
            return 1;
        if (config.CloseChecked() || GetLastError() != ERROR_DISK_FULL)
            return 2;
        return dir.read("small/config") == oldContent && !dir.has("small/.qelupdate") ? 0 : 3;
    });
}

TEST_F(Config, MayBeAMountPoint)
{
    dir.write("config", "a:1\n");
    dir.write("outside", "a:1\n");
    expectSuccessInChild("needs the right to mount", [&] {
        if (!enterOwnMounts() || mount(dir.path("outside"), path(), nullptr, MS_BIND, nullptr) != 0)
            return notAllowed;
        hmxConfigFile file;
        file.Open(path(), hmxConfigFile::ReadWrite);
        file.SetValue("b", "2");
        return file.CloseChecked() ? 0 : static_cast<int>(GetLastError());
    });
    if (IsSkipped())
        return;
    EXPECT_EQ(dir.read("outside"), "a:1\nb:2\n");
    EXPECT_EQ(nodes(), 2);
}

TEST_F(Config, ForeignOrBrokenRecoveryFileIsIgnored)
{
    // Every user may create files in a sticky folder. The header: 4 bytes of old content, 5 of new.
    struct stat status = {};
    dir.write("config", "a:1\n");
    ASSERT_EQ(stat(path(), &status), 0);
    char journal[40];
    std::snprintf(journal, sizeof journal, ".qelupdate-%016lx", status.st_ino);
    dir.write(journal, "qelstd update 1 00000000000000000004 00000000000000000005\na:1\na:22\n");
    EXPECT_EQ(asRead(path()), "a:22\n") << "the form is not the one that is tried here";
    if (chown(dir.path(journal), 65534, 65534) != 0)
        GTEST_SKIP() << "needs the right to give files away";
    chmod(dir.path(), 01777);
    EXPECT_EQ(asRead(path()), "a:1\n");

    chown(dir.path(journal), 0, 0);
    for (const char* broken :
         {"", "qelstd update 1 ", "qelstd update 1 99999999999999999999 00000000000000000005\n",
          "qelstd update 1 00000000000000000004 00000000000000000009\na:1\na:22\n"}) {
        dir.write(journal, broken);
        EXPECT_EQ(asRead(path()), "a:1\n") << broken;
    }
    dir.write(journal, "qelstd update 1 00000000000000000004 00000000000000000005\nb:7\na:22\n");
    EXPECT_EQ(asRead(path()), "a:1\n") << "others have written since";
    EXPECT_TRUE(update("a", "3"));
    EXPECT_EQ(nodes(), 1) << "it is of no use";
}

TEST_F(Config, IsOldOrNewWhenItsWriterIsKilledAtAnyMoment)
{
    // A writer in a sanitizer build takes longer.
    const int kills = freedMemoryIsGone ? ofALongRun(1000, 10000) : 100;
    const unsigned longest = freedMemoryIsGone ? 3000 : 100000; // microseconds
    const std::string filler(20000, 'f');
    dir.write("config", "count:0\nfiller:" + filler + "\n");
    std::minstd_rand random(1);
    int updated = 0;
    std::string before = content();
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    for (int i = 0; i < kills; ++i) {
        ChildProcess writer([this, i, &started]() -> int {
            if (write(started[1], "", 1) != 1)
                return 1;
            for (int n = 0;; ++n)
                update("count", (std::to_string(i) + '.' + std::to_string(n)).c_str());
        });
        char begun;
        ASSERT_EQ(read(started[0], &begun, 1), 1);
        usleep(static_cast<useconds_t>(random() % longest));
        writer.signal(SIGKILL);
        writer.wait();
        const std::string now = content();
        const std::size_t end = now.find('\n');
        ASSERT_TRUE(now.starts_with("count:") && now.find_first_not_of("0123456789.", 6) == end)
            << now.substr(0, 50);
        ASSERT_EQ(now.substr(end), "\nfiller:" + filler + "\n");
        updated += now != before ? 1 : 0;
        before = now;
    }
    close(started[0]);
    close(started[1]);
    EXPECT_GT(updated, kills / 100) << "the writers have hardly been at work";
    EXPECT_TRUE(update("count", "end"));
    EXPECT_EQ(nodes(), 1);
}

// ---- the lock

namespace {

/// Waits until a process waits for the lock of a file. False when none does.
bool isWaitedFor(const char* path)
{
    constexpr auto patience = std::chrono::seconds(20);
    struct stat status;
    if (stat(path, &status) != 0)
        return false;
    const std::string node = ":" + std::to_string(status.st_ino) + " ";
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < patience) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);)
            if (line.find("-> FLOCK") != std::string::npos && line.find(node) != std::string::npos)
                return true;
        usleep(1000);
    }
    return false;
}

} // namespace

TEST_F(Config, LosesNoUpdateOfSeveralProcesses)
{
    constexpr int processes = 4;
    const int updates = ofALongRun(500, 5000);
    dir.write("config", "count:0\n");
    const ChildProcess waiting([&]() -> int { // a reader that is killed while it waits for its turn
        for (;;)
            hmxConfigFile().Open(path(), hmxConfigFile::ReadOnly);
    });
    expectSuccessInChildren(processes, [&](int number) {
        for (int n = 0; n < updates; ++n) {
            hmxConfigFile file;
            int count;
            if (!file.Open(path(), hmxConfigFile::ReadWrite) || !file.GetValue("count").ToInt(&count))
                return 1;
            file.SetValue("count", std::to_string(count + 1).c_str());
            if (n == updates / 2 && number == 0)
                waiting.signal(SIGKILL);
        }
        return 0;
    });
    EXPECT_EQ(content(), "count:" + std::to_string(processes * updates) + "\n");
}

TEST_F(Config, LockWaitHasALimitAndNeverBlocksOnItsOwnProcess)
{
    constexpr auto updating = hmxConfigFile::ReadWrite, reading = hmxConfigFile::ReadOnly;
    constexpr unsigned sharing = ERROR_SHARING_VIOLATION, locked = ERROR_LOCK_VIOLATION;
    dir.write("config", "a:1\n");
    hmxConfigFile first, second;
    for (const auto& [held, wanted] :
         {std::pair{updating, updating}, {updating, reading}, {reading, updating}}) {
        ASSERT_TRUE(first.Open(path(), held));
        EXPECT_FALSE(second.Open(path(), wanted));
        EXPECT_EQ(GetLastError(), sharing);
        std::thread other([&, wanted = wanted] {
            hmxConfigFile file;
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_FALSE(file.Open(path(), wanted, 0));
            EXPECT_EQ(GetLastError(), locked);
            EXPECT_FALSE(file.Open(path(), wanted, 0.05));
            EXPECT_EQ(GetLastError(), locked);
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            EXPECT_GE(taken.count(), 0.05);
            EXPECT_LT(taken.count(), 1);
        });
        other.join();
        EXPECT_EQ(hmxConfigFile::GetHolders(path())->getarraysize(), 1);
        EXPECT_EQ(hmxConfigFile::GetHolders(path())->get(0), getpid());
        first.Close();
        EXPECT_TRUE(second.Open(path(), wanted, 0)) << "nobody has it";
        second.Close();
    }
    EXPECT_EQ(hmxConfigFile::GetHolders(path())->getarraysize(), 0);
}

TEST_F(Config, ReadersDoNotStarveAWriter)
{
    dir.write("config", "a:1\n");
    hmxConfigFile first, own;
    ASSERT_TRUE(first.Open(path(), hmxConfigFile::ReadOnly));
    std::thread writer([&] { EXPECT_TRUE(update("a", "2")); });
    EXPECT_TRUE(isWaitedFor(path()));
    EXPECT_TRUE(own.Open(path(), hmxConfigFile::ReadOnly)) << "the writer waits for this thread";
    std::latch refused(1);
    std::thread reader([&] {
        hmxConfigFile file;
        EXPECT_FALSE(file.Open(path(), hmxConfigFile::ReadOnly, 0)) << "got in before the writer";
        refused.count_down();
        EXPECT_TRUE(file.Open(path(), hmxConfigFile::ReadOnly, 20));
        EXPECT_EQ(textOf(file.GetValue("a")), "2");
    });
    refused.wait();
    usleep(20000); // the reader waits as well
    first.Close();
    own.Close();
    writer.join();
    reader.join();
}

TEST_F(Config, LockIsFreeOnceClosedThoughAForkedChildLives)
{
    dir.write("config", "a:1\n");
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    const ChildProcess idle([]() -> int {
        pause();
        return 0;
    });
    EXPECT_EQ(runInChild([&] {
                  file.~hmxConfigFile(); // unlocks nothing
                  return hmxConfigFile().Open(path(), hmxConfigFile::ReadWrite, 0) ? 1 : 0;
              }),
              0);
    file.Close();
    EXPECT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite, 0));
}

TEST_F(Config, WorksWhileInterruptedBySignals)
{
    const Interrupter interrupter;
    const int before = Interrupter::interrupts;
    int updates = 0;
    for (; Interrupter::interrupts < before + 100; ++updates) {
        hmxConfigFile file;
        ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
        EXPECT_EQ(textOf(file.GetValue("n")), updates == 0 ? "(null)" : std::to_string(updates - 1));
        EXPECT_TRUE(file.SetValue("n", std::to_string(updates).c_str()));
        ASSERT_TRUE(file.CloseChecked());
    }
    EXPECT_EQ(content(), "n:" + std::to_string(updates - 1) + "\n");

    hmxConfigFile reader; // also while it waits for its turn
    ASSERT_TRUE(reader.Open(path(), hmxConfigFile::ReadOnly));
    std::thread writer([&] { EXPECT_TRUE(update("n", "end")); });
    EXPECT_TRUE(isWaitedFor(path()));
    for (const int seen = Interrupter::interrupts; Interrupter::interrupts < seen + 20;)
        usleep(1000);
    reader.Close();
    writer.join();
    EXPECT_EQ(content(), "n:end\n");
}

TEST_F(Config, CloseReleasesTheLock)
{
    dir.write("config", "a:1\n");
    lockFileBuf locked, next;
    ASSERT_FALSE(locked.Open(dir.path("config").c_str(), std::ios_base::in | std::ios_base::out, 0600));
    EXPECT_FALSE(locked.Close());
    ASSERT_FALSE(next.Open(dir.path("config").c_str(), std::ios_base::in | std::ios_base::out, 0600))
        << "nobody holds it";
    EXPECT_TRUE(locked.Close()) << "it is closed";
    EXPECT_EQ(errno, EBADF);
}
