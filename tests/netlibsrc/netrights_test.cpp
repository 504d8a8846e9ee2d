#include <gtest/gtest.h>

#include <chrono>

#include <qel/base/btksocket.h>
#include <qel/hmxregistry.h>
#include <qel/netrights.h>

#include "support/addresses.h"
#include "support/child.h"
#include "support/descriptors.h"
#include "support/environment.h"
#include "support/tempdir.h"

namespace {

void Allow(hmxRegistry& registry, const char* patterns)
{
    hmxRegistryKey key;
    ASSERT_TRUE(key.Create(registry.root, "Software\\VRX\\svc"));
    ASSERT_TRUE(key.SetValue("ConnectionAllowed", patterns));
}

} // namespace

TEST(SplitPatternList, TakesTheWordsBetweenBlanksTabsAndLines)
{
    const auto patterns = SplitPatternList(" 10.1.*\t192.168.0.5\n\n  ? ");
    ASSERT_EQ(patterns->getarraysize(), 3);
    EXPECT_TRUE(patterns->get(0) == "10.1.*" && patterns->get(1) == "192.168.0.5" && patterns->get(2) == "?");
    EXPECT_EQ(SplitPatternList("")->getarraysize(), 0);
    EXPECT_EQ(SplitPatternList(nullptr)->getarraysize(), 0);
}

TEST(MatchAnyPattern, AsksTheWholeAddress)
{
    const auto patterns = SplitPatternList("10.1.* 192.168.0.?");
    EXPECT_TRUE(MatchAnyPattern("10.1.2.3", patterns));
    EXPECT_TRUE(MatchAnyPattern("192.168.0.5", patterns));
    EXPECT_FALSE(MatchAnyPattern("192.168.0.55", patterns));
    EXPECT_FALSE(MatchAnyPattern("110.1.2.3", patterns));
    EXPECT_FALSE(MatchAnyPattern("", patterns));
    EXPECT_FALSE(MatchAnyPattern("10.1.2.3", nullptr));
}

TEST(MatchAnyPattern, IsNotHeldUpByManyStars)
{
    std::string stars;
    for (int i = 0; i < 1000; ++i)
        stars += "a*";
    const auto pattern = SplitPatternList((stars + "b").c_str());
    const xstring address(std::string(100000, 'a').c_str());

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(MatchAnyPattern(address, pattern));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// The peer is 10.1.2.3 throughout.
TEST(IsConnectionAllowed, AsksForAMatchOfEveryValueThatThereIs)
{
    const int result = runInChild([] {
        if (!enterOwnNetwork({"10.9.9.9", "10.1.2.3"}))
            return 77;
        const TempDir dir(TempDir::InMemory);
        const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
        btkAcceptSocket door;
        btkStreamSocket peer;
        EXPECT_TRUE(door.Listen(0, nullptr));
        const int client = connectFrom("10.1.2.3", "10.9.9.9", door.GetPortN());
        EXPECT_EQ(door.Wait(btkTimeval(10, 0), 1), 1);
        EXPECT_TRUE(door.Accept(&peer));
        EXPECT_FALSE(peer.IsPeerOnTheSameMachine());

        hmxRegistry& system = hmxRegistry::System();
        hmxRegistry& user = hmxRegistry::User();
        EXPECT_TRUE(IsConnectionAllowed(&peer, "svc"));
        Allow(system, "10.1.* 192.168.0.5");
        EXPECT_TRUE(IsConnectionAllowed(&peer, "svc"));
        Allow(user, "192.168.*");
        EXPECT_FALSE(IsConnectionAllowed(&peer, "svc"));
        {
            const DescriptorLimit none(nextDescriptor());
            EXPECT_FALSE(IsConnectionAllowed(&peer, "svc")) << "a value that cannot be read is still there";
        }
        EXPECT_TRUE(IsConnectionAllowed(&peer, "other"));
        EXPECT_TRUE(IsConnectionAllowed(&peer, nullptr));
        EXPECT_TRUE(IsConnectionAllowed(&peer, ""));
        EXPECT_TRUE(IsConnectionAllowed(&peer, "a/b"));
        Allow(user, "10.?.2.3");
        EXPECT_TRUE(IsConnectionAllowed(&peer, "svc"));
        Allow(system, "");
        EXPECT_FALSE(IsConnectionAllowed(&peer, "svc"));
        Allow(system, "*");
        EXPECT_TRUE(IsConnectionAllowed(&peer, "svc"));
        dir.write("store/User/software/vrx/svc/connectionallowed.value", "damaged");
        EXPECT_FALSE(IsConnectionAllowed(&peer, "svc")) << "there is a value, whatever it was";
        close(client);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    if (result == 77)
        GTEST_SKIP() << "this host lets nobody make networks";
    EXPECT_EQ(result, 0);
}
