#include <qel/base/nmswire.h>
#include <qel/hmxregistry.h>
#include <qel/recnms.h>
#include <qel/xiolib.h>

#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

using Stream = std::unique_ptr<ioStringStream, qelDelete>;
using Record = xrchandle<nmsRecord>;

Stream NewStream()
{
    return Stream(ioStringStream::Create(xnullstr));
}

std::string Rest(ioStream& stream)
{
    std::string bytes(100000, 0);
    bytes.resize(stream.ReadBytes(bytes.data(), static_cast<unsigned>(bytes.size())));
    return bytes;
}

Stream StreamOf(const std::string& bytes)
{
    Stream stream = NewStream();
    stream->WriteBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
    return stream;
}

} // namespace

TEST(nmsRecord, NumbersAreSentOverStreams)
{
    const Stream stream = NewStream();
    PutIndependentInt(stream.get(), 1);
    PutIndependentInt(stream.get(), -2);
    EXPECT_EQ(GetIndependentInt(stream.get()), 1);
    EXPECT_EQ(GetIndependentInt(stream.get()), -2);
    EXPECT_EQ(GetIndependentInt(StreamOf("abc").get()), 0);
}

TEST(nmsRecord, IsReadBackFromAStream)
{
    const Record sent(nmsRecord::Create(0));
    sent->Add("a", "xyz");
    const Stream stream = NewStream();
    ASSERT_TRUE(sent->Send(stream.get()));
    const std::string bytes = Rest(*stream);
    EXPECT_EQ(bytes.size(), 28u);

    const Record got(nmsRecord::Create(1));
    got->Add("old", "1");
    EXPECT_TRUE(got->Receive(StreamOf(bytes).get(), nullptr));
    EXPECT_FALSE(got->HasField("old"));
    EXPECT_EQ(got->GetFieldValueByName("a"), "xyz");
    EXPECT_FALSE(got->IsAssociated());
    EXPECT_FALSE(got->Receive(StreamOf(bytes.substr(0, 27)).get(), nullptr));
    EXPECT_FALSE(got->Receive(nullptr, nullptr));
    EXPECT_FALSE(sent->Send(nullptr));
    stream->Close();
    EXPECT_FALSE(sent->Send(stream.get()));
}

TEST(nmsRecord, KeepsWithinItsLimits)
{
    const Record record(nmsRecord::Create(0));
    for (int i = 0; i < 257; ++i)
        record->Add(std::to_string(i).c_str(), "");
    const Stream stream = NewStream();
    EXPECT_FALSE(record->Send(stream.get()));
    EXPECT_EQ(stream->PeekNBytes(), 0u);

    std::string many;
    nmsPutInt(many, 0);
    nmsPutInt(many, 300);
    EXPECT_FALSE(record->Receive(StreamOf(many + std::string(5000, 0)).get(), nullptr));
    EXPECT_EQ(record->getFields()->getarraysize(), 0);
}

TEST(nmsRecord, RegistryLowersLimitsAndNeverRaisesThem)
{
    const TempDir store;
    const EnvSetting registry("QELSTD_REGISTRY", store.path());
    hmxRegistryKey key;
    ASSERT_TRUE(key.Create(hmxRegistry::System().root, "Software\\Names"));
    const struct
    {
        const char* text;
        int limit;
    } cases[] = {{"10", 10}, {"255", 255}, {"0", 256}, {"1000", 256}, {"-4", 256}, {"ten", 256}};
    for (const auto& [text, limit] : cases) {
        key.SetValue("MaxNumFields", text);
        EXPECT_EQ(nmsRecordLimits::GetNumberOfFields("Software\\Names"), limit) << text;
    }
    EXPECT_EQ(nmsRecordLimits::GetNumberOfFields(nullptr), 256);
    EXPECT_EQ(nmsRecordLimits::GetNumberOfFields("Software\\Other"), 256);

    key.SetValue("FieldValueMaxLength", "4");
    const Record record(nmsRecord::Create(0));
    record->Add("a", "1234");
    const Stream stream = NewStream();
    ASSERT_TRUE(record->Send(stream.get()));
    const std::string bytes = Rest(*stream);
    EXPECT_TRUE(record->Receive(StreamOf(bytes).get(), "Software\\Other"));
    EXPECT_FALSE(record->Receive(StreamOf(bytes).get(), "Software\\Names"));
}

TEST(nmsRecord, MatchesWholeValues)
{
    const Record record(nmsRecord::Create(0));
    record->Add("a", "1");
    record->Add("b", "2");
    const auto matches = [&](const char* name, const char* value) {
        const Record pattern(nmsRecord::Create(0));
        pattern->Add(name, value);
        return record->Match(pattern.get()) != 0;
    };

    EXPECT_TRUE(matches("a", "1"));
    EXPECT_FALSE(matches("a", "2"));
    EXPECT_FALSE(matches("a", "*"));
    EXPECT_FALSE(matches("c", "1"));
    EXPECT_TRUE(record->Match(Record(nmsRecord::Create(0)).get()));
    EXPECT_FALSE(record->Match(nullptr));
}

TEST(nmsRecord, ReportsWhetherItsProcessRuns)
{
    EXPECT_TRUE(Record(nmsRecord::Create(1))->IsAlive());
    EXPECT_TRUE(Record(nmsRecord::Create(1))->IsAssociated());
    EXPECT_FALSE(Record(nmsRecord::Create(0))->IsAlive());
    EXPECT_FALSE(Record(nmsRecord::Create(0x7FFFFFFF))->IsAlive());
}
