#include <qel/hmxregistry.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/reglib.h>

#include "support/environment.h"
#include "support/faults.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"
#include "support/thrown.h"

namespace {

std::string textOf(const xrchandle<xstringsequence>& names)
{
    if (!names)
        return "(none)";
    std::string text;
    for (int i = 0; i < names->getarraysize(); ++i)
        text += textOf(names->get(i)) + "|";
    return text;
}

class RegistryKeys : public testing::Test
{
protected:
    /// The offending name of the exception that `action` throws, and its type.
    template<typename Action>
    static std::string refusal(Action action)
    {
        return describeThrown(action, [](xthrowable* thrown) {
            std::string text = thrown->getQelTypeName().CastToCString();
            if (regXNameInvalid* const invalid = regXNameInvalid::softcast(thrown))
                text += " " + textOf(invalid->getName());
            return text;
        });
    }

    TempDir dir{TempDir::InMemory};
    EnvSetting store{"QELSTD_REGISTRY", dir.path("store").c_str()};
    hmxRegistryKey& user = hmxRegistry::User().root;
};

} // namespace

TEST_F(RegistryKeys, KeepStringValues)
{
    hmxRegistryKey key, again;
    ASSERT_TRUE(key.Create(user, "Software\\VRX\\Server"));
    EXPECT_TRUE(key.SetValue("ConnectionAllowed", "10.0.0.1"));
    EXPECT_TRUE(key.SetValue("itself", nullptr));
    EXPECT_TRUE(key.SetValue("", ""));

    ASSERT_TRUE(again.Open(user, "software\\vrx\\SERVER"));
    EXPECT_EQ(textOf(again.GetValue("connectionallowed")), "10.0.0.1");
    EXPECT_EQ(textOf(again.GetValue("itself")), "itself");
    EXPECT_EQ(textOf(again.GetValue("")), "");
    EXPECT_TRUE(again.DeleteValue("itself"));
    EXPECT_FALSE(again.DeleteValue("itself"));
    EXPECT_EQ(textOf(key.GetValue("itself")), "(null)");
    hmxRegistryKey system;
    EXPECT_FALSE(system.Open(hmxRegistry::System().root, "Software\\VRX"));
    const std::string longText(100000, 't');
    EXPECT_TRUE(key.SetValue("long", longText.c_str()));
    EXPECT_EQ(textOf(again.GetValue("long")), longText);
}

TEST_F(RegistryKeys, ListTheirSubkeysAndValues)
{
    hmxRegistryKey key, below, closed;
    EXPECT_EQ(textOf(user.ListSubkeys()), "");
    ASSERT_TRUE(key.Create(user, "Software\\VRX"));
    const std::string longName(1000, 'L');
    for (const char* name : {"beta", "Alpha", longName.c_str()}) {
        ASSERT_TRUE(below.Create(key, name));
        ASSERT_TRUE(key.SetValue(name, "x"));
    }
    EXPECT_EQ(textOf(key.ListSubkeys()), "Alpha|beta|" + longName + "|");
    EXPECT_EQ(textOf(key.ListValues()), "Alpha|beta|" + longName + "|");
    EXPECT_EQ(textOf(user.ListSubkeys()), "Software|");

    EXPECT_EQ(textOf(closed.ListValues()), "(none)");
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(key.DeleteSubkey(longName.c_str()));
    EXPECT_EQ(textOf(below.ListSubkeys()), "(none)");
    EXPECT_EQ(GetLastError(), ERROR_KEY_DELETED);
    regKey object(key);
    EXPECT_EQ(textOf(object.ListSubkeys()), "Alpha|beta|");
    EXPECT_EQ(textOf(object.ListValues()), "Alpha|beta|" + longName + "|");
    regKey deleted(below);
    EXPECT_EQ(refusal([&] { deleted.ListValues(); }), "reglib::XAccess");
    object.Close();
    EXPECT_EQ(refusal([&] { object.ListSubkeys(); }), "reglib::XKeyClosed");
}

TEST_F(RegistryKeys, ReportWhyTheyFail)
{
    hmxRegistryKey key;
    const auto errorOf = [](bool worked) { return worked ? 0u : GetLastError(); };
    EXPECT_EQ(errorOf(key.Open(user, "none")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(errorOf(key.Open(user, "a/b")), ERROR_INVALID_NAME);
    EXPECT_EQ(errorOf(key.Open(user, "\\a")), ERROR_BAD_PATHNAME);
    EXPECT_EQ(errorOf(key.SetValue("v", "x")), ERROR_INVALID_HANDLE); // closed
    ASSERT_TRUE(key.Create(user, "a\\b"));
    EXPECT_EQ(errorOf(user.DeleteSubkey("a")), ERROR_ACCESS_DENIED); // has subkeys
    EXPECT_FALSE(user.DeleteSubkey("a\\b"));                         // is no direct one
    EXPECT_EQ(errorOf(user.DeleteValue("a\\b")), ERROR_INVALID_NAME);
    EXPECT_TRUE(key.GetValue("v") == nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryKeys, RecognizeValidPathsAndNames)
{
    for (const char* path : {"a", "a\\b", "", "\xC3\xA9"})
        EXPECT_TRUE(user.IsKeyValid(path)) << path;
    for (const char* path :
         {"a.b", "a:b", "a/b", "a*", "a?", "..\\x", static_cast<const char*>(nullptr), xnullstr})
        EXPECT_FALSE(user.IsKeyValid(path));
    EXPECT_TRUE(user.IsNameValid("a b"));
    EXPECT_FALSE(user.IsNameValid("a\\b"));
    EXPECT_FALSE(user.SetValue("a.b", "x"));
    EXPECT_EQ(textOf(user.GetValue("a\\b")), "(null)");
}

TEST_F(RegistryKeys, AreSharedByTheirCopies)
{
    hmxRegistryKey key;
    ASSERT_TRUE(key.Create(user, "a"));
    hmxRegistryKey copy(key), assigned;
    assigned = copy;
    assigned = *&assigned;
    key.Close();
    key.Close();
    EXPECT_FALSE(key.SetValue("v", "1"));
    EXPECT_TRUE(copy.SetValue("v", "1"));
    copy = key; // of a closed one
    EXPECT_FALSE(copy.IsOpened());
    EXPECT_EQ(textOf(assigned.GetValue("v")), "1");
    EXPECT_TRUE(assigned.Create(assigned, "b")); // below itself
    EXPECT_TRUE(assigned.SetValue("v", "2"));
    ASSERT_TRUE(copy.Open(user, "a\\b"));
    EXPECT_EQ(textOf(copy.GetValue("v")), "2");
}

TEST_F(RegistryKeys, AreClosedOnlyByAFailureToOpenAValidPath)
{
    hmxRegistryKey key, closed;
    ASSERT_TRUE(key.Create(user, "a"));
    EXPECT_FALSE(key.Open(user, "no/such"));
    EXPECT_TRUE(key.IsOpened());
    EXPECT_FALSE(key.Open(closed, "x"));
    EXPECT_TRUE(key.IsOpened());
    for (const char* path : {"none", "", "\\a", "a\\\\b"}) {
        ASSERT_TRUE(key.Create(user, "a"));
        EXPECT_FALSE(key.Open(user, path)) << path;
        EXPECT_FALSE(key.IsOpened()) << path;
    }
    EXPECT_FALSE(closed.IsKeyValid("a"));
    EXPECT_FALSE(closed.DeleteSubkey("a"));
    EXPECT_EQ(textOf(closed.GetValue("a")), "(null)");
    EXPECT_FALSE(hmxRegistry(static_cast<hmxRegistry::Type>(7), '\\', "").root.IsOpened());
}

TEST_F(RegistryKeys, StoreTypedValuesAsTexts)
{
    regRegistry* const root = regRegistry::User();
    EXPECT_EQ(root->Open(), 1);
    regKey* const key = root->CreateSubkey("typed");
    ASSERT_NE(key, nullptr);
    key->SetValue("int", -5);
    key->SetValue("bool", static_cast<unsigned char>(7));
    key->SetValue("true", true);
    key->SetValue("no", static_cast<unsigned char>(0));
    key->SetValue("real", 1234567.0);
    key->SetValue("text", "True");

    EXPECT_EQ(key->GetIntValue("int"), -5);
    EXPECT_EQ(textOf(key->GetStringValue("int")), "-5");
    EXPECT_EQ(textOf(key->GetStringValue("bool")), "true");
    EXPECT_EQ(key->GetBoolValue("true"), 1);
    EXPECT_EQ(key->GetBoolValue("no"), 0);
    EXPECT_EQ(textOf(key->GetStringValue("real")), "1.23457e+06");
    EXPECT_EQ(key->GetRealValue("real"), 1234570.0);
    EXPECT_EQ(key->GetBoolValue("text"), xnullbool);
    EXPECT_EQ(key->GetIntValue("text"), xnullint);
    EXPECT_EQ(key->GetIntValue("missing"), xnullint);
    EXPECT_EQ(key->GetRealValue("missing"), xnullreal);
    EXPECT_EQ(key->DeleteValue("int"), 1);
    EXPECT_EQ(key->DeleteValue("int"), 0);
    EXPECT_EQ(root->OpenSubkey("none"), nullptr);
    EXPECT_EQ(root->DeleteSubkey("typed"), 1);
    root->Close();
    EXPECT_EQ(root->OpenSubkey("still\\open"), nullptr);
    xdelete(key);
    xdelete(root);
}

TEST_F(RegistryKeys, CloseWithSuccess)
{
    hmxRegistryKey key;
    EXPECT_TRUE(key.Close()) << "closed already";
    ASSERT_TRUE(key.Create(user, "a"));
    hmxRegistryKey copy(key);
    EXPECT_TRUE(key.Close());
    EXPECT_TRUE(copy.IsOpened() && copy.Close());
    EXPECT_FALSE(copy.IsOpened());
}

/// The test below runs this one under strace, in the registry that the environment names.
TEST(RegistryProgram, ChangesInABatch)
{
    if (std::getenv("QEL_TEST_BATCH") == nullptr)
        GTEST_SKIP() << "run by another test";
    regBatch batch;
    hmxRegistryKey key, below;
    ASSERT_TRUE(key.Create(hmxRegistry::User().root, "Many"));
    {
        regBatch inner;
        for (int i = 0; i < 20; ++i)
            ASSERT_TRUE(key.SetValue(("Value " + std::to_string(i)).c_str(), "x"));
    }
    EXPECT_TRUE(below.Create(key, "Sub") && key.DeleteSubkey("sub") && key.DeleteValue("value 0"));
    EXPECT_EQ(key.ListValues()->getarraysize(), 19) << "seen at once";
    EXPECT_TRUE(batch.Commit());
    EXPECT_TRUE(batch.Commit()) << "with nothing to do";
}

TEST_F(RegistryKeys, AreSyncedOncePerBatch)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    const EnvSetting variable("QEL_TEST_BATCH", "1");
    EXPECT_EQ(runTraced("-f -e signal=none -e trace=fsync,fdatasync,syncfs -o " + dir.path("calls"),
                        "--gtest_filter=RegistryProgram.ChangesInABatch"),
              0);
    const std::string calls = dir.read("calls");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 1) << calls;
    EXPECT_NE(calls.find("syncfs("), std::string::npos) << calls;
}

TEST_F(RegistryKeys, ThrowForMisuse)
{
    regRegistry* const root = regRegistry::System();
    regKey* const key = root->CreateSubkey("a");
    EXPECT_EQ(refusal([&] { key->CreateSubkey("x/y"); }), "reglib::XNameInvalid x/y");
    EXPECT_EQ(refusal([&] { key->GetStringValue("x\\y"); }), "reglib::XNameInvalid x\\y");
    EXPECT_EQ(refusal([&] { key->SetValue(std::string(4000, '$').c_str(), 1); }), "reglib::XAccess");
    key->Close();
    key->Close();
    EXPECT_EQ(refusal([&] { key->GetStringValue("x/y"); }), "reglib::XKeyClosed");
    EXPECT_EQ(refusal([&] { key->SetValue("x", 1.0); }), "reglib::XKeyClosed");
    EXPECT_EQ(refusal([&] { key->OpenSubkey("x"); }), "reglib::XKeyClosed");
    EXPECT_TRUE(root->isKindOf(regKey::getClassRtti()));
    xdelete(key);
    xdelete(root);
}
