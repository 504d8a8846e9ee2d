// Several processes and openings share a file, and processes are stopped and killed at any moment.
#include <bit>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

#include <qel/base/btkfilepart.h>

#include "monsupport.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/faults.h"
#include "support/longrun.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

// Values that show whether they are whole: each half of a number determines the other, each byte of a text
// the text.
int CheckedInt(unsigned n)
{
    return static_cast<int>((n & 0xffff) << 16 | (~n & 0xffff));
}

bool IsWhole(int v)
{
    const unsigned bits = static_cast<unsigned>(v);
    return v == 0 || bits >> 16 == (~bits & 0xffff);
}

double CheckedReal(unsigned n)
{
    return std::bit_cast<double>(std::uint64_t{n} << 32 | (~n & 0xffffffffu));
}

bool IsWhole(double v)
{
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(v);
    return bits == 0 || bits >> 32 == (~bits & 0xffffffffu);
}

constexpr int textSize = 1024;

std::string CheckedText(unsigned n)
{
    const unsigned kind = n % 26;
    return std::string(std::size_t(textSize) - kind, static_cast<char>('a' + kind));
}

bool IsWhole(const xstring& v)
{
    const std::string text = textOf(v);
    return text.empty() || text == CheckedText(static_cast<unsigned>(text[0] - 'a'));
}

// State shared by the processes of a test.
struct Shared
{
    std::atomic<bool> stop;
    std::atomic<int> added; // the parameters whose adding has been acknowledged
    std::atomic<long> stores;
    std::atomic<long> loads;
};

struct Unmap
{
    void operator()(Shared* shared) const { munmap(shared, sizeof *shared); }
};

std::unique_ptr<Shared, Unmap> MakeShared()
{
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return std::unique_ptr<Shared, Unmap>(new (memory) Shared{});
}

// A file whose values "int", "real" and "text" each lie across the end of a page, and "line" across the end
// of a cache line.
class SharedFile : public testing::Test
{
protected:
    void SetUp() override
    {
        const auto file = CreateMonitor(Path());
        FillUpTo(*file, 4096 - 2 - 15);
        file->Int("int");
        FillUpTo(*file, 2 * 4096 - 4 - 16);
        file->Real("real");
        FillUpTo(*file, 3 * 4096 - 500 - 20);
        file->String("text", textSize);
        FillUpTo(*file, 5 * 4096 + 64 - 5 - 16);
        file->Real("line");
        file->Bool("bool");
    }

    std::string Path() const { return dir.path("m"); }

    // Adds a text so that the file ends at `end`.
    void FillUpTo(monFile& file, std::size_t end)
    {
        const std::string name = "fill up to " + std::to_string(end);
        const std::size_t head = dir.read("m").size() + 20 + name.size();
        file.String(name.c_str(), static_cast<int>(end - head));
    }

    TempDir dir;
};

void StoreAll(monFile& file, unsigned n)
{
    file.Int("int")->setValue(CheckedInt(n));
    file.Real("real")->setValue(CheckedReal(n));
    file.String("text", 0)->setValue(CheckedText(n).c_str());
    file.Real("line")->setValue(CheckedReal(n));
    file.Bool("bool")->setValue(n % 2);
}

bool LoadAll(monFile& file)
{
    return IsWhole(file.Int("int")->getValue()) && IsWhole(file.Real("real")->getValue()) &&
           IsWhole(file.String("text", 0)->getValue()) && IsWhole(file.Real("line")->getValue()) &&
           file.Bool("bool")->getValue() <= 1;
}

std::string NameOf(int number)
{
    return "added " + std::to_string(number);
}

// Stores forever, and adds now and then.
int Write(const std::string& path, Shared& shared)
{
    const auto file = OpenMonitor(path);
    for (;;) {
        const long stores = shared.stores.fetch_add(1);
        StoreAll(*file, static_cast<unsigned>(stores));
        if (stores % 4 != 0)
            continue;
        const int number = shared.added;
        file->Int(NameOf(number).c_str())->setValue(CheckedInt(static_cast<unsigned>(number)));
        shared.added = number + 1;
    }
}

// Reads until it is stopped. The exit status identifies the fault.
int Read(const std::string& path, Shared& shared)
{
    try {
        const auto file = OpenMonitor(path);
        int known = 0;
        while (!shared.stop) {
            const int added = shared.added;
            const int count = CountOf(file->getParams());
            if (count < known || count < added)
                return 2;
            known = count;
            if (!LoadAll(*file))
                return 3;
            if (added > 0 && !IsWhole(file->Int(NameOf(added - 1).c_str())->getValue()))
                return 4;
            shared.loads.fetch_add(1);
            usleep(100);
        }
        return 0;
    } catch (xthrowable*) {
        return 5;
    }
}

} // namespace

TEST_F(SharedFile, SurvivesKilledWriters)
{
    const int kills = ofALongRun(200, 5000);
    const auto shared = MakeShared();
    std::vector<std::unique_ptr<ChildProcess>> readers;
    for (int i = 0; i < 4; ++i)
        readers.push_back(std::make_unique<ChildProcess>([&] { return Read(Path(), *shared); }));

    std::minstd_rand random(1);
    for (int i = 0; i < kills; ++i) {
        const long begun = shared->stores;
        ChildProcess writer([&] { return Write(Path(), *shared); });
        // It is killed at a random moment of its work.
        for (int waits = 0; shared->stores < begun + 2; ++waits) {
            ASSERT_LT(waits, 50000);
            usleep(200);
        }
        usleep(static_cast<useconds_t>(random() % 3000));
        writer.signal(SIGKILL);
        ASSERT_EQ(writer.wait(), -SIGKILL);
    }
    shared->stop = true;
    for (const auto& reader : readers)
        EXPECT_EQ(reader->wait(), 0);

    EXPECT_GT(shared->loads, kills);
    const auto file = OpenMonitor(Path());
    monParamDict* const params = file->getParams();
    for (int number = 0; number < shared->added; ++number)
        EXPECT_TRUE(params->find(NameOf(number).c_str(), nullptr)) << number;
    EXPECT_TRUE(LoadAll(*file));
}

TEST_F(SharedFile, StoppedReaderDoesNotBlockWriters)
{
    ChildProcess stopped([&] {
        const btkFd opened = btkOpenFile(Path().c_str(), btkOpenRead);
        btkRangeLock lock(opened.Get(), 0, 1LL << 31);
        btkRangeLock announced(opened.Get(), 2LL << 32, 1LL << 31);
        if (lock.Try(btkRangeLock::Shared) == btkRangeLock::Held &&
            announced.Try(btkRangeLock::Shared) == btkRangeLock::Held)
            raise(SIGSTOP);
        return 1;
    });
    ASSERT_TRUE(stopped.waitUntilStopped());
    const auto shared = MakeShared();
    ChildProcess reader([&] { return Read(Path(), *shared); });

    const auto writer = OpenMonitor(Path());
    std::vector<btkTimeval> times;
    const auto measure = [&](auto store) {
        const btkTimeval begin = btkTimeval::Now();
        store();
        times.push_back(btkTimeval::Now() - begin);
    };
    for (unsigned n = 0; n < ofALongRun(40u, 1000u); ++n) {
        measure([&] { writer->String("text", 0)->setValue(CheckedText(n).c_str()); });
        measure([&] { writer->Real("real")->setValue(CheckedReal(n)); });
        StoreAll(*writer, n);
    }
    // The median; on an idle machine nearly all.
    std::sort(times.begin(), times.end());
    EXPECT_LE(times[times.size() * ofALongRun<std::size_t>(50, 95) / 100], btkTimeval(0, 5000));
    EXPECT_TRUE(IsWhole(writer->Real("real")->getValue()));
    shared->stop = true;
    EXPECT_EQ(reader.wait(), 0); // other readers saw whole values
    EXPECT_GT(shared->loads, 10);
}

TEST_F(SharedFile, StoppedWriterDoesNotBlockReaders)
{
    const auto file = OpenMonitor(Path());
    StoreAll(*file, 77);
    ChildProcess stopped([&] {
        const btkFd opened = btkOpenFile(Path().c_str(), btkOpenRead | btkOpenWrite);
        btkRangeLock lock(opened.Get(), 1, 1LL << 31);
        if (lock.Try(btkRangeLock::Exclusive) == btkRangeLock::Held)
            raise(SIGSTOP);
        return 1;
    });
    ASSERT_TRUE(stopped.waitUntilStopped());

    const btkTimeval begin = btkTimeval::Now();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(file->Int("int")->getValue(), CheckedInt(77));
    // 0.1 s for the first one, which waits for the writer, and 0.01 s for each of the others.
    EXPECT_LT((btkTimeval::Now() - begin).ToSeconds(), ofALongRun(2.0, 0.5));
    EXPECT_EQ(textOf(file->String("text", 0)->getValue()), CheckedText(77));
}

TEST_F(SharedFile, SeveralProcessesAddParameters)
{
    constexpr int each = 300;
    const auto add = [&](const char* prefix) {
        const auto file = OpenMonitor(Path());
        for (int i = 0; i < each; ++i) {
            file->Int((prefix + std::to_string(i)).c_str())->setValue(i);
            file->String(NameOf(i).c_str(), 40)->setValue("shared");
        }
        return 0;
    };
    ChildProcess first([&] { return add("first "); });
    ChildProcess second([&] { return add("second "); });
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);

    const auto file = OpenMonitor(Path());
    EXPECT_EQ(CountOf(file->getParams()), 9 + 3 * each);
    EXPECT_EQ(file->Int("first 299")->getValue(), 299);
    EXPECT_EQ(file->Int("second 299")->getValue(), 299);
}

TEST_F(SharedFile, AddFailsWhileAnotherAddNeverEnds)
{
    const auto file = OpenMonitor(Path());
    const btkFd other = btkOpenFile(Path().c_str(), btkOpenRead | btkOpenWrite);
    btkRangeLock adding(other.Get(), 0, 1);
    ASSERT_EQ(adding.Try(btkRangeLock::Exclusive), btkRangeLock::Held);

    EXPECT_EQ(MonFailureOf([&] { file->Int("new"); }), "monFile: Another process is adding parameters");
    EXPECT_NE(file->Int("int"), nullptr);
    adding.Release();
    EXPECT_NE(file->Int("new"), nullptr);
}

TEST_F(SharedFile, ForkedChildHasSeparateLocks)
{
    const auto file = OpenMonitor(Path());
    monStringParam* const text = file->String("text", 0);
    text->setValue("from the parent");
    const auto child = std::make_unique<ChildProcess>([&]() -> int {
        if (textOf(text->getValue()) != "from the parent")
            return 1;
        for (unsigned n = 0;; ++n)
            text->setValue(CheckedText(n).c_str());
    });
    const btkTimeval begin = btkTimeval::Now();
    for (int seen = 0; seen < 500;) {
        const xstring now = text->getValue();
        if (textOf(now) == "from the parent")
            continue;
        ++seen;
        ASSERT_TRUE(IsWhole(now)) << "torn";
    }
    // A writer that stores without a pause does not starve readers.
    EXPECT_LT(btkTimeval::Now() - begin, btkTimeval(5, 0));
}

TEST_F(SharedFile, ContinuouslyStoredNumberCanBeRead)
{
    const auto file = OpenMonitor(Path());
    monRealParam* const real = file->Real("real");
    const auto writer = std::make_unique<ChildProcess>([&]() -> int {
        for (unsigned n = 0;; ++n)
            real->setValue(CheckedReal(n));
    });
    const btkTimeval begin = btkTimeval::Now();
    double last = 0;
    for (int seen = 0; seen < 20;) {
        const double now = real->getValue();
        ASSERT_TRUE(IsWhole(now)) << "torn";
        seen += std::bit_cast<std::uint64_t>(now) != std::bit_cast<std::uint64_t>(std::exchange(last, now));
    }
    EXPECT_LT(btkTimeval::Now() - begin, btkTimeval(5, 0));
}

/// The test below runs this one under strace.
TEST(CallsProgram, StoresNumbersAcrossPages)
{
    const char* const path = std::getenv("QEL_TEST_MONITOR");
    if (path == nullptr)
        GTEST_SKIP() << "run by another test";
    const auto file = OpenMonitor(path);
    monIntParam* const number = file->Int("int");
    for (int i = 0; i < 4000; ++i)
        number->setValue(i);
}

TEST_F(SharedFile, StoresANumberAcrossPagesByThreeSystemCalls)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    const EnvSetting setting("QEL_TEST_MONITOR", Path().c_str());
    ASSERT_EQ(runTraced("-c -o " + dir.path("calls"), "--gtest_filter=CallsProgram.StoresNumbersAcrossPages"),
              0);
    EXPECT_EQ(OpenMonitor(Path())->Int("int")->getValue(), 3999);
    const auto calls = callsIn(dir.path("calls"));
    EXPECT_GE(calls.at("fcntl"), 2 * 4000);
    EXPECT_LT(calls.at("total"), 3 * 4000 + 2000); // and the program's start
}
