#include "monsupport.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/wire.h"

namespace {

const std::string header = Hex("00 00 00 00 00 00 00 01 54 ");
const std::string intRecord = Hex("00 00 00 01 00 00 00 00 00 00 00 01 61 00 00 00 05 ");

std::string Word(unsigned value)
{
    return Number(static_cast<int>(value));
}

std::string StringRecord(const std::string& name, unsigned capacity, unsigned length, const std::string& area)
{
    return Word(3) + Word(0) + Word(static_cast<unsigned>(name.size())) + name + Word(capacity) +
           Word(length) + area;
}

class Damaged : public testing::Test
{
protected:
    TempDir dir;
};

} // namespace

TEST_F(Damaged, HeadersAreReported)
{
    const struct
    {
        const char* what;
        std::string bytes;
        const char* failure;
    } rows[] = {
        {"nothing", "", "Stream Error (iolib): EOF reached"},
        {"half a header word", Hex("00 00 "), "Stream Error (iolib): EOF reached"},
        {"no title", Hex("00 00 00 00 "), "Stream Error (iolib): EOF reached"},
        {"a title that is too short", Hex("00 00 00 00 00 00 00 02 54 "),
         "Stream Error (iolib): EOF reached"},
        {"a title of 2 GiB", Hex("00 00 00 00 7F FF FF FF 54 "), "Stream Error (iolib): EOF reached"},
        {"a title of less than nothing", Hex("00 00 00 00 FF FF FF FF 54 "),
         "Stream Error (iolib): conversion error"},
    };
    for (const auto& row : rows) {
        dir.write("m", row.bytes);
        EXPECT_EQ(MonFailureOf([&] { OpenMonitor(dir.path("m")); }), row.failure) << row.what;
    }
}

TEST_F(Damaged, RecordsAreReportedAndOthersStayReadable)
{
    const std::string end = Word(0) + Word(0) + Word(0) + Word(0);
    const struct
    {
        const char* what;
        std::string record;
    } rows[] = {
        {"type 4", Word(4) + end},
        {"type -1", Word(0xffffffff) + end},
        {"type 2^31", Word(0x80000000) + end},
        {"a name of 1024 bytes", Word(0) + Word(0) + Word(1024) + std::string(1024, 'n') + Word(0)},
        {"a name of 2 GiB", Word(0) + Word(0) + Word(0x7fffffff) + "n" + Word(0)},
        {"a name of less than nothing", Word(1) + Word(0) + Word(0xffffffff) + end},
        {"a capacity of less than nothing", StringRecord("s", 0xffffffff, 0, "")},
        {"the lowest capacity", StringRecord("s", 0x80000000, 0, "")},
        {"positions beyond an int", StringRecord("s", 0x7fffffff, 0, "")},
        {"a text longer than its capacity", StringRecord("s", 4, 5, "abcde")},
        {"a text of less than nothing", StringRecord("s", 4, 0xfffffff0, "abcd")},
    };
    for (const auto& row : rows) {
        dir.write("m", header + intRecord + row.record + intRecord);
        const auto file = OpenMonitor(dir.path("m"));
        const std::string before = dir.read("m");

        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(MonFailureOf([&] { file->getParams(); }), "Weird parameter type") << row.what;
        EXPECT_EQ(MonFailureOf([&] { file->Real("new"); }), "Weird parameter type") << row.what;
        EXPECT_EQ(dir.read("m"), before) << row.what;
    }
}

TEST_F(Damaged, TextsAreNeverReadBeyondTheirCapacity)
{
    const auto file = CreateMonitor(dir.path("m"));
    monStringParam* const s = file->String("s", 4);
    s->setValue("abcd");
    monIntParam* const after = file->Int("after");
    for (const unsigned length : {5u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        std::string bytes = dir.read("m");
        bytes.replace(header.size() + 17, 4, Word(length));
        dir.write("m", bytes);

        EXPECT_EQ(MonFailureOf([&] { s->getValue(); }), "Weird parameter type");
        EXPECT_EQ(after->getValue(), 0);
    }
    s->setValue("efg");
    EXPECT_EQ(textOf(s->getValue()), "efg");
}

TEST_F(Damaged, NamesEndAtTheirFirstZero)
{
    dir.write("m", header + Word(1) + Word(0) + Word(3) + std::string("a\0b", 3) + Word(7) + intRecord);
    const auto file = OpenMonitor(dir.path("m"));

    EXPECT_EQ(CountOf(file->getParams()), 1);
    EXPECT_EQ(file->Int("a")->getValue(), 5);
}

TEST_F(Damaged, IncompleteRecordsAreNotVisible)
{
    const std::string records[] = {
        intRecord,
        Word(0) + Word(0) + Word(1) + "b" + Word(1),
        Word(2) + Word(0) + Word(2) + "re" + Word(0x3ff80000) + Word(0),
        StringRecord("str", 10, 2, "xy" + std::string(8, '\0')),
    };
    for (const std::string& record : records) {
        for (std::size_t there = 0; there < record.size(); ++there) {
            dir.write("m", header + intRecord + record.substr(0, there));
            const auto reader = OpenMonitor(dir.path("m"));
            const auto adder = OpenMonitor(dir.path("m"));
            EXPECT_EQ(CountOf(reader->getParams()), 1);
            EXPECT_EQ(reader->Int("a")->getValue(), 5);

            // The writer that began it completes it, ...
            dir.write("m", header + intRecord + record);
            EXPECT_EQ(CountOf(reader->getParams()), record == intRecord ? 1 : 2);

            // ... or the next writer that adds one truncates it.
            dir.write("m", header + intRecord + record.substr(0, there));
            adder->Int("new")->setValue(8);
            EXPECT_EQ(dir.read("m"), header + intRecord + Word(1) + Word(0) + Word(3) + "new" + Word(8));
        }
    }
}

TEST_F(Damaged, HugeFilesAreReadUpToTheLargestPosition)
{
    constexpr unsigned last = 0x7fffffff - 19;
    const std::string path = dir.path("m");
    dir.write("m", header + intRecord + Word(3) + Word(0) + Word(1) + "s" +
                       Word(last - unsigned(header.size() + intRecord.size()) - 21) + Word(0));
    std::filesystem::resize_file(path, last);
    const auto file = OpenMonitor(path);
    EXPECT_EQ(CountOf(file->getParams()), 2);
    EXPECT_EQ(MonFailureOf([&] { file->Int("more"); }), "monFile: File too large");
    EXPECT_EQ(std::filesystem::file_size(path), last);

    // Zeros are bools without a name. One fits.
    std::filesystem::resize_file(path, (1LL << 32) + 100);
    EXPECT_EQ(MonFailureOf([&] { file->getParams(); }), "Weird parameter type");
    const auto other = OpenMonitor(path);
    EXPECT_EQ(MonFailureOf([&] { other->getParams(); }), "Weird parameter type");
}

TEST_F(Damaged, FlippedLengthsCostNoRecords)
{
    // A flipped bit in a length makes the record exceed the end of the file, like one that is being added.
    const std::string text = StringRecord("s", 10, 2, "xy" + std::string(8, '\0'));
    const struct
    {
        const char* what;
        std::size_t at; // in the record
        std::string record;
    } rows[] = {
        {"the name", 10, intRecord},
        {"the capacity", 13, text},
    };
    for (const auto& row : rows) {
        std::string record = row.record;
        record[row.at] = static_cast<char>(record[row.at] | 3);
        const std::string before = header + intRecord + record + text + intRecord + intRecord;
        dir.write("m", before);
        const auto file = OpenMonitor(dir.path("m"));

        int offset = 0;
        EXPECT_EQ(MonFailureOf([&] { EXPECT_EQ(file->Check(offset), monFile::damaged) << row.what; }), "");
        EXPECT_EQ(offset, static_cast<int>((header + intRecord).size())) << row.what;
        EXPECT_EQ(MonFailureOf([&] { file->Real("new"); }), "Weird parameter type") << row.what;
        EXPECT_EQ(dir.read("m"), before) << row.what;
    }
    dir.write("m", header + intRecord + Word(7) + intRecord);
    int offset = 0;
    EXPECT_EQ(OpenMonitor(dir.path("m"))->Check(offset), monFile::damaged);
    EXPECT_EQ(offset, static_cast<int>((header + intRecord).size()));
    dir.write("m", header + intRecord + text.substr(0, 20));
    EXPECT_EQ(OpenMonitor(dir.path("m"))->Check(offset), monFile::unfinished);
    dir.write("m", header + intRecord + text);
    EXPECT_EQ(OpenMonitor(dir.path("m"))->Check(offset), monFile::whole);
}
