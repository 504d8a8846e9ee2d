#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "monsupport.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/interrupt.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/thrown.h"

namespace {

const std::string header = Hex("00 00 00 00 00 00 00 01 54 ");

class Monitor : public testing::Test
{
protected:
    std::string Path() const { return dir.path("m"); }
    std::string Bytes() const { return dir.read("m"); }

    TempDir dir;
};

} // namespace

TEST_F(Monitor, WritesTheDocumentedBytes)
{
    const auto file = CreateMonitor(Path());
    EXPECT_EQ(Bytes(), header);

    file->Int("a");
    file->Bool("bc");
    file->Real("d");
    file->String("s", 10);
    file->String("", 0);
    // type, reserved, name, capacity of a string, value
    const std::string records = Hex("00 00 00 01 00 00 00 00 00 00 00 01 61 00 00 00 00 ") +
                                Hex("00 00 00 00 00 00 00 00 00 00 00 02 62 63 00 00 00 00 ") +
                                Hex("00 00 00 02 00 00 00 00 00 00 00 01 64 00 00 00 00 00 00 00 00 ") +
                                Hex("00 00 00 03 00 00 00 00 00 00 00 01 73 00 00 00 0A 00 00 00 00 ") +
                                std::string(10, '\0') +
                                Hex("00 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(Bytes(), header + records);

    EXPECT_EQ(file->Int("a")->setValue(7), 7);
    EXPECT_EQ(file->Bool("bc")->setValue(1), 1);
    EXPECT_EQ(file->Real("d")->setValue(1.5), 1.5);
    EXPECT_EQ(textOf(file->String("s", 10)->setValue("abcdef")), "abcdef");
    EXPECT_EQ(textOf(file->String("s", 10)->setValue("ABC")), "ABC");
    const std::string rewritten = Hex("00 00 00 01 00 00 00 00 00 00 00 01 61 00 00 00 07 ") +
                                  Hex("00 00 00 00 00 00 00 00 00 00 00 02 62 63 00 00 00 01 ") +
                                  Hex("00 00 00 02 00 00 00 00 00 00 00 01 64 3F F8 00 00 00 00 00 00 ") +
                                  Hex("00 00 00 03 00 00 00 00 00 00 00 01 73 00 00 00 0A 00 00 00 03 ") +
                                  Hex("41 42 43 64 65 66 00 00 00 00 ") +
                                  Hex("00 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(Bytes(), header + rewritten);
    EXPECT_EQ(textOf(file->String("s", 10)->getValue()), "ABC");
}

TEST_F(Monitor, FindsExistingParameters)
{
    const auto file = CreateMonitor(Path());
    monIntParam* const a = file->Int("a");
    monStringParam* const s = file->String("s", 10);
    const std::string before = Bytes();

    EXPECT_EQ(file->Int("a"), a);
    EXPECT_EQ(file->Bool("a"), nullptr);
    EXPECT_EQ(file->Real("a"), nullptr);
    EXPECT_EQ(file->String("a", 3), nullptr);
    EXPECT_EQ(file->Int("s"), nullptr);
    EXPECT_EQ(file->String("s", 3), s);
    EXPECT_EQ(file->String("s", -3), s);
    EXPECT_EQ(s->getSize(), 10);
    EXPECT_EQ(textOf(s->getName()), "s");
    EXPECT_EQ(Bytes(), before);
    EXPECT_EQ(CountOf(file->getParams()), 2);
}

TEST_F(Monitor, ShowsNewParametersAndValuesToOtherFiles)
{
    const auto writer = CreateMonitor(Path(), "Zähler");
    const auto reader = OpenMonitor(Path());
    EXPECT_EQ(textOf(reader->getTitle()), "Zähler");
    EXPECT_EQ(CountOf(reader->getParams()), 0);
    EXPECT_EQ(reader->getParams(), reader->getParams());

    for (int i = 0; i < 300; ++i) {
        const std::string name = std::to_string(i);
        writer->Int(("i" + name).c_str())->setValue(i);
        writer->Real(("r" + name).c_str())->setValue(i / 4.0);
        writer->Bool(("b" + name).c_str())->setValue(static_cast<unsigned char>(i % 2));
        writer->String(("s" + name).c_str(), i * 20)->setValue(std::string(std::size_t(i) * 7, 'x').c_str());
    }
    EXPECT_EQ(CountOf(reader->getParams()), 1200);
    const std::string before = Bytes();
    for (int i = 0; i < 300; ++i) {
        const std::string name = std::to_string(i);
        EXPECT_EQ(reader->Int(("i" + name).c_str())->getValue(), i);
        EXPECT_EQ(reader->Real(("r" + name).c_str())->getValue(), i / 4.0);
        EXPECT_EQ(reader->Bool(("b" + name).c_str())->getValue(), i % 2);
        EXPECT_EQ(textOf(reader->String(("s" + name).c_str(), 0)->getValue()),
                  std::string(std::size_t(i) * 7, 'x'));
    }
    EXPECT_EQ(Bytes(), before);

    writer->Int("i7")->setValue(-5);
    EXPECT_EQ(reader->Int("i7")->getValue(), -5);
    monRealParam* const fromReader = reader->Real("of the reader");
    writer->Real("of the reader")->setValue(9);
    EXPECT_EQ(fromReader->getValue(), 9);
}

TEST_F(Monitor, TransfersEveryValueUnchanged)
{
    const auto writer = CreateMonitor(Path());
    const auto reader = OpenMonitor(Path());
    monIntParam* const i = writer->Int("i");
    monRealParam* const r = writer->Real("r");
    monBoolParam* const b = writer->Bool("b");
    monStringParam* const s = writer->String("s", 3);
    for (const int v : {0, -1, xnullint, xuninitint, 0x7fffffff}) {
        i->setValue(v);
        EXPECT_EQ(reader->Int("i")->getValue(), v);
    }
    for (const double v : {-0.0, xnullreal, xuninitreal, 1e308, 5e-324}) {
        r->setValue(v);
        EXPECT_EQ(reader->Real("r")->getValue(), v);
    }
    for (const int v : {0, 1, 128, 129, 255}) {
        b->setValue(static_cast<unsigned char>(v));
        EXPECT_EQ(reader->Bool("b")->getValue(), v);
    }
    for (const char* const v : {"", "abc", "\x80\xff"}) {
        EXPECT_EQ(textOf(s->setValue(v)), v);
        EXPECT_EQ(textOf(reader->String("s", 0)->getValue()), v);
    }
    EXPECT_EQ(s->setValue(nullptr), nullptr);
    EXPECT_EQ(textOf(s->getValue()), "");
    s->setValue(xuninitstr);
    EXPECT_EQ(textOf(s->getValue()), "");
}

TEST_F(Monitor, KeepsParametersReplacedByALaterRecordOfTheirName)
{
    const std::string record = Hex("00 00 00 01 00 00 00 00 00 00 00 01 61 00 00 00 05 ");
    dir.write("m", header + record);
    const auto file = OpenMonitor(Path());
    monIntParam* const first = file->Int("a");

    dir.write("m", header + record + Hex("00 00 00 01 00 00 00 00 00 00 00 01 61 00 00 00 06 "));
    monIntParam* const second = file->Int("a");
    EXPECT_NE(first, second);
    EXPECT_EQ(CountOf(file->getParams()), 1);
    EXPECT_EQ(first->getValue(), 5);
    EXPECT_EQ(second->getValue(), 6);
}

TEST_F(Monitor, OpensMonitorFilesOnly)
{
    EXPECT_EQ(OpenMonitor(Path()), nullptr);
    EXPECT_EQ(monFile::Open(nullptr), nullptr);
    EXPECT_EQ(OpenMonitor(dir.path()), nullptr);
    EXPECT_EQ(CreateMonitor(dir.path()), nullptr);
    EXPECT_EQ(CreateMonitor(dir.path("missing/m")), nullptr);
    ASSERT_EQ(mkfifo(dir.path("fifo"), 0600), 0);
    EXPECT_EQ(OpenMonitor(dir.path("fifo")), nullptr);

    dir.write("m", Hex("00 00 00 01 00 00 00 01 54 "));
    EXPECT_EQ(OpenMonitor(Path()), nullptr);
    dir.write("m", Hex("FF FF FF FF 00 00 00 01 54 "));
    EXPECT_EQ(textOf(OpenMonitor(Path())->getTitle()), "T");
}

TEST_F(Monitor, CreateStartsWithNoParameters)
{
    dir.write("m", std::string(500, 'x'));
    const auto file = CreateMonitor(Path(), nullptr);
    EXPECT_EQ(Bytes(), Hex("00 00 00 00 00 00 00 00 "));
    EXPECT_EQ(textOf(file->getTitle()), "");
    monIntParam* const a = file->Int("a");
    a->setValue(3);

    const auto other = CreateMonitor(Path());
    EXPECT_EQ(Bytes(), header);
    EXPECT_EQ(MonFailureOf([&] { file->getParams(); }), "monFile has shrunk!");
    EXPECT_EQ(MonFailureOf([&] { file->Int("a"); }), "monFile has shrunk!");
    EXPECT_EQ(MonFailureOf([&] { a->getValue(); }), "monFile has shrunk!");
    a->setValue(4); // a publisher of the old file does not change the new one
    EXPECT_EQ(Bytes(), header);
}

TEST_F(Monitor, FileIsReopenedAfterItsReplacement)
{
    const auto file = CreateMonitor(Path(), "first");
    monIntParam* const a = file->Int("a");
    monIntParam* const b = file->Int("b");
    monIntParam* const c = file->Int("c");
    monStringParam* const s = file->String("s", 4);
    const auto watcher = OpenMonitor(Path());
    monIntParam* const watched = watcher->Int("a");
    EXPECT_FALSE(watcher->isReplaced());

    std::filesystem::remove(Path());
    EXPECT_TRUE(watcher->isReplaced());
    EXPECT_FALSE(watcher->Reopen());
    EXPECT_EQ(MonFailureOf([&] { watched->getValue(); }), "monFile has shrunk!");
    dir.write("m", "no monitor file");
    EXPECT_FALSE(watcher->Reopen());
    dir.write("m", "");
    EXPECT_FALSE(watcher->Reopen());

    const auto anew = CreateMonitor(Path(), "second");
    anew->Real("other");
    anew->String("s", 9)->setValue("longer");
    anew->Int("a")->setValue(7);
    anew->Real("c");
    for (monFile* const each : {watcher.get(), file.get()}) {
        ASSERT_TRUE(each->Reopen());
        EXPECT_FALSE(each->isReplaced());
        EXPECT_EQ(textOf(each->getTitle()), "second");
    }
    EXPECT_EQ(watched->getValue(), 7);
    EXPECT_EQ(CountOf(watcher->getParams()), 4);
    EXPECT_EQ(watcher->Int("a"), watched);
    EXPECT_EQ(textOf(s->getValue()), "longer");
    EXPECT_EQ(s->getSize(), 9);
    a->setValue(8);
    EXPECT_EQ(anew->Int("a")->getValue(), 8);
    for (monIntParam* const missing : {b, c}) {
        EXPECT_EQ(MonFailureOf([&] { missing->getValue(); }), "monFile: No such parameter any more");
        EXPECT_EQ(MonFailureOf([&] { missing->setValue(1); }), "monFile: No such parameter any more");
    }
    anew->Int("b")->setValue(9);
    EXPECT_EQ(b->getValue(), 9) << "it is there now";
    EXPECT_EQ(file->Int("b"), b);
}

TEST_F(Monitor, ReplacementKeepsPathAndRights)
{
    dir.makeDir("real");
    dir.link("real/m", "m");
    EXPECT_NE(CreateMonitor(Path()), nullptr);
    EXPECT_TRUE(dir.has("real/m")) << "the link leads there";
    chmod(dir.path("real/m"), 0604);
    const auto old = OpenMonitor(dir.path("real/m"));
    const auto file = CreateMonitor(Path());
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE(std::filesystem::is_symlink(Path().c_str()));
    struct stat status = {};
    EXPECT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604u);

    ASSERT_EQ(mkfifo(dir.path("fifo"), 0600), 0);
    EXPECT_EQ(CreateMonitor(dir.path("fifo")), nullptr) << "and does not wait";
    EXPECT_TRUE(std::filesystem::is_fifo(dir.path("fifo").c_str()));
    EXPECT_EQ(CreateMonitor("/dev/null"), nullptr);
    std::filesystem::remove(dir.path("fifo").c_str());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path().c_str()), {}), 2)
        << "no other file is left";
}

TEST_F(Monitor, OpensForReadingWithoutWriteAccess)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs the right to become another user";
    const auto file = CreateMonitor(Path());
    file->Int("a")->setValue(5);
    chmod(Path().c_str(), 0644);
    chmod(dir.path(), 0755);
    EXPECT_EQ(runInChild([&] {
                  if (setuid(65534) != 0)
                      return 1;
                  const auto watcher = OpenMonitor(Path());
                  if (watcher == nullptr || watcher->Int("a")->getValue() != 5)
                      return 2;
                  const char* const refused = "monFile: Opened for reading only";
                  if (MonFailureOf([&] { watcher->Int("a")->setValue(6); }) != refused ||
                      MonFailureOf([&] { watcher->Int("new"); }) != refused)
                      return 3;
                  return CreateMonitor(Path()) == nullptr ? 0 : 4;
              }),
              0);
    EXPECT_EQ(file->Int("a")->getValue(), 5);
    chmod(Path().c_str(), 0600);
    EXPECT_EQ(runInChild([&] {
                  return setuid(65534) == 0 && OpenMonitor(Path()) == nullptr
                             ? static_cast<int>(GetLastError())
                             : 0;
              }),
              static_cast<int>(ERROR_ACCESS_DENIED));
    // If the folder is not writable, the file is emptied.
    chmod(Path().c_str(), 0666);
    EXPECT_EQ(runInChild([&] { return setuid(65534) == 0 && CreateMonitor(Path(), "U") != nullptr ? 0 : 1; }),
              0);
    EXPECT_EQ(MonFailureOf([&] { file->Int("a")->getValue(); }), "monFile has shrunk!");
    EXPECT_EQ(textOf(OpenMonitor(Path())->getTitle()), "U");
}

TEST_F(Monitor, CreateKeepsTheOldFileWhicheverCallFails)
{
    const std::string old = "old content, longer than what is to take its place";
    const std::string anew = Hex("00 00 00 00 00 00 00 01 54 ");
    // Replacing a file, creating one, and emptying one in a read-only folder.
    for (const std::string place : {"old", "none", "kept"})
        for (const int error : {ENOSPC, EIO, EDQUOT, EROFS, EMFILE}) {
            const int result = runInChild([&] {
                dir.write("m");
                chmod(Path().c_str(), 0666);
                chmod(dir.path(), 0755);
                if (place == "kept" && setuid(65534) != 0)
                    return 0; // needs the right to become another user
                int refusals = 0;
                const char* struck = "";
                for (int after = 0; struck != nullptr; ++after) {
                    if (place == "none")
                        std::filesystem::remove(Path());
                    else
                        dir.write("m", old);
                    failing::FailingCall fails(after, error);
                    const auto file = CreateMonitor(Path());
                    fails.Stop();
                    struck = failing::FailingCall::Struck();
                    const std::string fault = place + ' ' + std::to_string(error) + " at call " +
                                              std::to_string(after) + ' ' + (struck == nullptr ? "" : struck);
                    const std::string& expected = file != nullptr ? anew : place == "none" ? "" : old;
                    EXPECT_EQ(Bytes(), expected) << fault;
                    const std::filesystem::directory_iterator nodes(dir.path().c_str());
                    EXPECT_EQ(std::distance(begin(nodes), end(nodes)), file != nullptr || place != "none")
                        << fault;
                    refusals += file == nullptr;
                }
                // If the file cannot be replaced, it is rewritten in place.
                EXPECT_GE(refusals, place == "old" && error == EROFS ? 0 : 5) << place << error;
                return testing::Test::HasFailure() ? 1 : 0;
            });
            EXPECT_EQ(result, 0);
        }
}

TEST_F(Monitor, RejectsArgumentsBeforeItWrites)
{
    const auto file = CreateMonitor(Path());
    const std::string longest(1023, 'n');
    monStringParam* const s = file->String(longest.c_str(), 3);
    s->setValue("abc");
    const std::string before = Bytes();

    EXPECT_EQ(MonFailureOf([&] { file->Int((longest + "n").c_str()); }),
              "monFile::WriteParamHead: Name too long");
    EXPECT_EQ(MonFailureOf([&] { file->String("t", -1); }), "monFile::String: Negative capacity");
    EXPECT_EQ(MonFailureOf([&] { file->String("t", xnullint); }), "monFile::String: Negative capacity");
    EXPECT_EQ(MonFailureOf([&] { file->String("t", 0x7fffffff); }), "monFile: File too large");
    EXPECT_EQ(MonFailureOf([&] { s->setValue("abcd"); }), "monStringParam::setValue: Value too long");
    for (const char* const none : {xnullstr, xuninitstr, static_cast<const char*>(nullptr)})
        EXPECT_EQ(thrownBy([&] { file->Int(none); }), "qellib::XNotInitialized");
    EXPECT_EQ(Bytes(), before);
    EXPECT_EQ(file->String(longest.c_str(), 0), s);
    EXPECT_EQ(textOf(OpenMonitor(Path())->String(longest.c_str(), 0)->getValue()), "abc");
}

TEST_F(Monitor, ThrowsOnceItIsClosed)
{
    const auto file = CreateMonitor(Path());
    monIntParam* const a = file->Int("a");
    monStringParam* const s = file->String("s", 5);
    file->Close();
    file->Close();

    const std::string closed = "Stream Error (iolib): stream not open";
    EXPECT_EQ(MonFailureOf([&] { a->getValue(); }), closed);
    EXPECT_EQ(MonFailureOf([&] { a->setValue(1); }), closed);
    EXPECT_EQ(MonFailureOf([&] { s->getValue(); }), closed);
    EXPECT_EQ(MonFailureOf([&] { s->setValue("x"); }), closed);
    EXPECT_EQ(MonFailureOf([&] { file->getParams(); }), closed);
    EXPECT_EQ(MonFailureOf([&] { file->Real("r"); }), closed);
    EXPECT_EQ(textOf(a->getName()), "a");
    EXPECT_EQ(textOf(file->getTitle()), "T");
}

TEST_F(Monitor, StaysUsableWhenTheDiskIsFull)
{
    const auto file = CreateMonitor(Path());
    file->Int("a")->setValue(4);
    const std::string before = Bytes();

    const int status = runInChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const auto limitTo = [](rlim_t size) {
            const rlimit limit = {size, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
        };
        const auto mine = OpenMonitor(Path());
        limitTo(1000);
        EXPECT_EQ(MonFailureOf([&] { mine->String("long", 5000); }), "Stream Error (iolib): I/O error");
        EXPECT_EQ(MonFailureOf([&] { mine->String("huge", 500000); }), "Stream Error (iolib): I/O error");
        EXPECT_EQ(mine->Int("a")->getValue(), 4);
        mine->Int("a")->setValue(5);
        limitTo(RLIM_INFINITY);
        mine->String("long", 5000)->setValue("fits");
        mine->Int("b")->setValue(6);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Bytes().size(), before.size() + 24 + 5000 + 17);
    EXPECT_EQ(file->Int("a")->getValue(), 5);
    EXPECT_EQ(textOf(file->String("long", 0)->getValue()), "fits");
    EXPECT_EQ(file->Int("b")->getValue(), 6);
}

TEST_F(Monitor, AcceptsTextsOfAnySize)
{
    const auto writer = CreateMonitor(Path());
    const auto reader = OpenMonitor(Path());
    for (const int size : {3000, 4096, 70000, 3000000}) {
        const std::string name = std::to_string(size);
        monStringParam* const s = writer->String(name.c_str(), size);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(textOf(reader->String(name.c_str(), 0)->getValue()), "");
        const std::string text(std::size_t(size), 'a');
        s->setValue(text.c_str());
        EXPECT_TRUE(textOf(reader->String(name.c_str(), 0)->getValue()) == text);
    }
    EXPECT_EQ(CountOf(OpenMonitor(Path())->getParams()), 4);
}

TEST_F(Monitor, SurvivesInterruptions)
{
    const Interrupter interrupter;
    const auto writer = CreateMonitor(Path());
    const auto reader = OpenMonitor(Path());
    int rounds = 0;
    for (; Interrupter::interrupts < 50; ++rounds) {
        const std::string name = std::to_string(rounds % 200);
        writer->String(name.c_str(), 60)->setValue(name.c_str());
        ASSERT_EQ(textOf(reader->String(name.c_str(), 0)->getValue()), name);
    }
    EXPECT_EQ(CountOf(reader->getParams()), std::min(rounds, 200));
}

TEST_F(Monitor, KnowsTheTypesOfItsParameters)
{
    const auto file = CreateMonitor(Path());
    monStringParam* const s = file->String("s", 10);
    EXPECT_EQ(monParam::softcast(s), s);
    EXPECT_EQ(monIntParam::softcast(s), nullptr);
    const Owned<monParamDict> dictionary(monParamDict::create());
    dictionary->set("x", s);
    monParam* found = nullptr;
    EXPECT_EQ(dictionary->find("x", &found), 1);
    EXPECT_EQ(found, s);
}
