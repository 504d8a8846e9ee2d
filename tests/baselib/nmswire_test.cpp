#include <qel/base/nmswire.h>

#include "support/test.h"

namespace {

// Feeds `bytes` as far as they are wanted. Returns the number of consumed bytes.
std::size_t Feed(nmsRecordReader& reader, const std::string& bytes)
{
    std::size_t taken = 0;
    while (reader.GetWanted() > 0 && bytes.size() - taken >= reader.GetWanted()) {
        const std::size_t wanted = reader.GetWanted();
        reader.Take(bytes.data() + taken);
        taken += wanted;
    }
    return taken;
}

std::string Ints(std::initializer_list<int> values)
{
    std::string bytes;
    for (const int value : values)
        nmsPutInt(bytes, value);
    return bytes;
}

} // namespace

TEST(NameWire, NumbersAreBigEndian)
{
    EXPECT_EQ(Ints({1, -2}), std::string("\0\0\0\1\xFF\xFF\xFF\xFE", 8));
    EXPECT_EQ(nmsGetInt("\xFF\xFF\xFF\xFE"), -2);
    EXPECT_EQ(nmsGetInt("\x80\0\0\0"), -2147483647 - 1);
}

TEST(NameWire, RecordHasTheDocumentedBytesAndIsReadBack)
{
    // owner, count, then for the name and the value: size with the terminating zero, length, bytes
    const std::string expected("\0\0\0\0\0\0\0\1"
                               "\0\0\0\2\0\0\0\1a"
                               "\0\0\0\4\0\0\0\3xyz",
                               28);
    nmsFields record;
    record.Set("a", "old");
    record.Set("a", "xyz");
    std::string bytes;
    ASSERT_TRUE(nmsPutRecord(bytes, record));
    EXPECT_EQ(bytes, expected);

    nmsRecordReader reader;
    EXPECT_EQ(Feed(reader, bytes), bytes.size());
    EXPECT_TRUE(reader.IsWhole());
    EXPECT_EQ(reader.record.fields, record.fields);
    EXPECT_FALSE(reader.Take(bytes.data())) << "nothing more belongs to it";
    EXPECT_EQ(reader.record.fields, record.fields);
    for (std::size_t shorter = 0; shorter < bytes.size(); ++shorter) {
        nmsRecordReader cut;
        Feed(cut, bytes.substr(0, shorter));
        EXPECT_FALSE(cut.IsWhole()) << shorter;
    }
}

TEST(NameWire, RefusesToWriteOversizedFields)
{
    nmsFields tooMany;
    for (int i = 0; i < 257; ++i)
        tooMany.Set(std::to_string(i), "");
    std::string bytes;
    EXPECT_FALSE(nmsPutRecord(bytes, tooMany));
    EXPECT_EQ(bytes, "");
    tooMany.fields.pop_back();
    EXPECT_TRUE(nmsPutRecord(bytes, tooMany));

    nmsFields longValue;
    longValue.Set("a", std::string(255, 'x'));
    EXPECT_TRUE(nmsPutRecord(bytes, longValue));
    longValue.Set("a", std::string(256, 'x'));
    EXPECT_FALSE(nmsPutRecord(bytes, longValue));
}

TEST(NameWire, RefusesToReadNegativeAndExcessiveLengths)
{
    const struct
    {
        std::initializer_list<int> numbers;
        std::size_t taken;
    } bad[] = {
        {{0, 300}, 8},        {{0, -1}, 8},         {{0, 1, -1, 1}, 16},       {{0, 1, 2, -1}, 16},
        {{0, 1, 2, 257}, 16}, {{0, 1, 257, 1}, 16}, {{0, 1, 1, 0, -5, 4}, 24}, {{0, 1, 1, 0, 4, -5}, 24}};
    for (const auto& [numbers, taken] : bad) {
        nmsRecordReader reader;
        EXPECT_EQ(Feed(reader, Ints(numbers) + std::string(1000, 'x')), taken);
        EXPECT_FALSE(reader.IsWhole());
        EXPECT_EQ(reader.GetWanted(), 0u);
        EXPECT_TRUE(reader.record.fields.empty());
    }

    nmsRecordReader strict({.fields = 1, .nameSize = 3, .valueSize = 2});
    EXPECT_EQ(Feed(strict, Ints({7, 1, 3, 2}) + "ab" + Ints({3, 2}) + "cd"), 26u);
    EXPECT_FALSE(strict.IsWhole());
    EXPECT_EQ(strict.record.owner, 7u);
}

TEST(NameWire, ReportsFailures)
{
    EXPECT_EQ(nmsStatusText(nmscNotFound, true, "", 0),
              "ERROR  : NameServer on client request: could not find matching record.");
    EXPECT_EQ(nmsStatusText(nmscNoConnection, false, "LOCALHOST", 1239),
              "ERROR  : NMS client: could not connect to NameServer. (LOCALHOST, port 1239)");
    EXPECT_EQ(nmsStatusText(nmscNoConnection, false, "far", 0),
              "ERROR  : NMS client: could not connect to NameServer. (far)");
    EXPECT_EQ(nmsStatusText(nmscNotRecognized, true, "", 0),
              "ERROR  : NameServer on client request: request is not recognized.");
    EXPECT_EQ(nmsStatusText(77, true, "", 0),
              "ERROR  : NameServer on client request: internal error occured.");
}
