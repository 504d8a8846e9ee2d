#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "support/environment.h"
#include "support/qelprogram.h"
#include "support/resident.h"
#include "support/tempdir.h"

using testing::HasSubstr;

TEST(QelSelftest, PassesQuicklyAndLeavesNothingBehind)
{
    const TempDir dir;
    const EnvSetting temporary("TMPDIR", dir.path("").c_str());
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = Qel("selftest --json");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    EXPECT_EQ(outcome.status, 0) << outcome.output;
    const auto results = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(results.size(), 6u);
    for (const auto& result : results)
        EXPECT_EQ(result["passed"], true) << result;
    EXPECT_TRUE(std::filesystem::is_empty(std::string(dir.path(""))));
}

TEST(QelSelftest, ReportsFailure)
{
    const EnvSetting nowhere("TMPDIR", "/nonexistent");
    const Outcome outcome = Qel("selftest");
    EXPECT_EQ(outcome.status, 3) << outcome.output;
    EXPECT_THAT(outcome.output, HasSubstr("qel selftest: "));
}

TEST(QelSelftest, EndsWithAnAnswerHoweverFewDescriptorsThereAre)
{
    if (!freedMemoryIsGone)
        GTEST_SKIP() << "a sanitizer needs descriptors itself";
    for (const char* const most : {"4", "5", "7", "8"}) {
        const Outcome outcome = Line(std::string("exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit -n ") +
                                     most + " && exec timeout 60 " QEL_PROGRAM " selftest");
        EXPECT_EQ(outcome.status, 1) << most << "\n" << outcome.output;
        EXPECT_THAT(outcome.output, HasSubstr("names ")) << most;
    }
}

TEST(QelInfo, PrintsSettingsInUse)
{
    const EnvSetting port("VRXNMSPORT", "4321");
    const Outcome outcome = Qel("info --json");
    ASSERT_EQ(outcome.status, 0);
    const auto info = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(info["name server"]["port"], 4321);
    EXPECT_EQ(info["environment"]["VRXNMSPORT"], "4321");
    EXPECT_THAT(Qel("--version").output, HasSubstr(info["version"].get<std::string>()));
    EXPECT_THAT(Qel("info").output, HasSubstr("  VRXNMSPORT: 4321\n"));
}
