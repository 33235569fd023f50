#include "host/explore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace netsieve::host {
namespace {

/// The search's length comes from outside where it is set: each case says what is.
class Explored : public testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        unsetenv("NETSIEVE_SEED");
        unsetenv("NETSIEVE_SCHEDULES");
    }

    ExploreResult Search(bool racy) {
        const auto body = [&](Machine& machine) {
            total_ = 0;
            for (unsigned i = 0; i < 2; ++i) {
                machine.scheduler().Start({.name = "adder", .processor = i}, [&, racy] {
                    const int seen = total_;
                    if (racy) {
                        machine.scheduler().Point(PointKind::kMemory);
                    }
                    total_ = seen + 1;
                });
            }
        };
        return Explore({.name = "adders", .schedules = 300, .firstSeed = 11}, body,
                       [&](Machine&) { return total_ == 2 ? "" : "an addition was lost"; });
    }

    int total_ = 0;
};

TEST_F(Explored, AFindingCanBeReplayedBySeedAlone) {
    const ExploreResult found = Search(true);
    ASSERT_TRUE(found.finding);
    EXPECT_EQ(found.finding->what, "an addition was lost");
    const std::string seed = std::to_string(found.finding->seed);
    EXPECT_EQ(found.finding->replay,
              "replay: NETSIEVE_SEED=" + seed + " with the scenario 'adders'");
    EXPECT_EQ(found.schedules, found.finding->seed - 10);

    setenv("NETSIEVE_SEED", seed.c_str(), 1);
    const ExploreResult again = Search(true);
    ASSERT_TRUE(again.finding);
    EXPECT_EQ(again.finding->seed, found.finding->seed);
    EXPECT_EQ(again.schedules, 1u);
}

TEST_F(Explored, WithoutAFindingTheWholeBudgetIsSpent) {
    EXPECT_EQ(Search(false).schedules, 300u);
    setenv("NETSIEVE_SCHEDULES", "20", 1);
    const ExploreResult result = Search(false);
    EXPECT_EQ(result.schedules, 20u);
    EXPECT_FALSE(result.finding);
    setenv("NETSIEVE_SCHEDULES", "20x", 1);
    EXPECT_EQ(Search(false).schedules, 300u);
}

TEST_F(Explored, ABrokenRuleAndARunThatDoesNotEndAreFindings) {
    const auto find = [](const std::function<void(Machine&)>& body) {
        return Explore({.name = "broken", .schedules = 1}, body).finding->what;
    };
    EXPECT_THAT(find([](Machine& machine) { machine.verifier().Report(Rule::kListLost, "x"); }),
                testing::HasSubstr("ListLost"));
    EXPECT_THAT(find([](Machine&) {
                    KEVENT event;
                    KeInitializeEvent(&event, NotificationEvent, FALSE);
                    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                }),
                testing::HasSubstr("Deadlock"));
}

}  // namespace
}  // namespace netsieve::host
