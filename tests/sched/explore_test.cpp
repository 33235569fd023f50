#include "host/explore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>

#include "host/sanitizers.h"
#include "platform/atomics.h"

namespace netsieve::host {
namespace {

/// The search's length comes from outside where it is set: each case says what is.
class Explored : public testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        unsetenv("NETSIEVE_SEED");
        unsetenv("NETSIEVE_SCHEDULES");
        unsetenv("NETSIEVE_PREEMPTIONS");
        unsetenv("NETSIEVE_CHOICES");
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

    std::atomic<int> total_ = 0;  // the race is the scenario
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
    EXPECT_THAT(find([](Machine& machine) { machine.verifier().Report(Rule::kNblLost, "x"); }),
                testing::HasSubstr("NblLost"));
    EXPECT_THAT(find([](Machine&) {
                    KEVENT event;
                    KeInitializeEvent(&event, NotificationEvent, FALSE);
                    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                }),
                testing::HasSubstr("Deadlock"));
}

constexpr ULONG kSharedTag = 0x72616853;  // "Shar"

struct Shared {
    KEVENT event;
    NDIS_TIMER timer;
    LONG users;
    LONG touched;
};

VOID NTAPI FreeFromTimer(PVOID, PVOID shared, PVOID, PVOID) {
    ExFreePoolWithTag(shared, kSharedTag);
}

// AddressSanitizer would end the process here; the verifier has to find it too.
[[gnu::no_sanitize_address]] void Touch(Shared* shared) {
    shared->touched = 1;
}

// A block that another context frees as soon as it is let go on, and that is touched behind that.
TEST_F(Explored, WhatIsTouchedBehindASignalIsFoundFreed) {
    if (kThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer stops the program at the first such use";
    }
    using Act = void (*)(Shared*);
    const auto wait = [](Shared* shared) {
        KeWaitForSingleObject(&shared->event, Executive, KernelMode, FALSE, nullptr);
        ExFreePoolWithTag(shared, kSharedTag);
    };
    const Act drop = [](Shared* shared) {
        if (InterlockedDecrement(&shared->users) == 0) {
            ExFreePoolWithTag(shared, kSharedTag);
        }
    };
    const struct {
        const char* name;
        Act other;
        Act signal;
    } kCases[] = {
        {"event", wait, [](Shared* shared) { KeSetEvent(&shared->event, 0, FALSE); }},
        {"count", drop, [](Shared* shared) { InterlockedDecrement(&shared->users); }},
        {"timer", [](Shared*) {},
         [](Shared* shared) {
             NdisInitializeTimer(&shared->timer, &FreeFromTimer, shared);
             NdisSetTimer(&shared->timer, 0);
         }},
    };
    for (const auto& act : kCases) {
        const ExploreResult result = Explore(
            {.name = act.name, .machine = {.clock = ClockMode::kEager}}, [&](Machine& machine) {
                auto* const shared = static_cast<Shared*>(
                    ExAllocatePoolWithTag(NonPagedPool, sizeof(Shared), kSharedTag));
                KeInitializeEvent(&shared->event, SynchronizationEvent, FALSE);
                shared->users = 2;
                machine.scheduler().Start({.name = "other", .processor = 1},
                                          [&, shared] { act.other(shared); });
                act.signal(shared);
                Touch(shared);
                machine.scheduler().WaitUntilIdle();
            });
        ASSERT_TRUE(result.finding) << act.name;
        EXPECT_THAT(result.finding->what, testing::HasSubstr("PoolUseAfterFree")) << act.name;
    }
}

TEST_F(Explored, TheSeedPutsRoutinesOnAnyProcessorAndATreeOnTheCallers) {
    std::set<unsigned> drawn;
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        Machine machine({.seed = seed, .processors = 4});
        machine.Run([&] { drawn.insert(machine.AnyProcessor()); });
    }
    EXPECT_EQ(drawn.size(), 4u);
    ScheduleTree tree(0);
    Machine machine({.tree = &tree, .processors = 4});
    machine.Run([&] {
        machine.scheduler().Start({.name = "caller", .processor = 3},
                                  [&] { EXPECT_EQ(machine.AnyProcessor(), 3u); });
    });
}

// Two threads of n steps: an order of the steps in i and j blocks has (i - 1) + (j - 1)
// preemptions, and C(n - 1, i - 1) * C(n - 1, j - 1) orders have these blocks; either thread can be
// first.
TEST(ScheduleTreeTest, RunsEveryScheduleOnce) {
    const auto count = [](int steps, unsigned preemptions) {
        ScheduleTree tree(preemptions);
        std::set<std::string> orders;
        int runs = 0;
        do {
            ++runs;
            int left[] = {steps, steps};
            std::string order;
            std::size_t current = Strategy::kNone;  // at first, and behind a thread's last step
            while (left[0] + left[1] > 0) {
                const std::uint32_t both[] = {0, 1};
                std::uint32_t next = left[0] > 0 ? 0 : 1;
                if (left[0] > 0 && left[1] > 0) {
                    next = both[tree.Pick(both, current)];
                }
                order += static_cast<char>('a' + next);
                current = --left[next] > 0 ? next : Strategy::kNone;
            }
            orders.insert(order);
        } while (tree.Advance());
        EXPECT_EQ(orders.size(), static_cast<std::size_t>(runs));
        return runs;
    };
    EXPECT_EQ(count(2, 0), 2);
    EXPECT_EQ(count(2, 1), 4);
    EXPECT_EQ(count(3, 1), 6);
    EXPECT_EQ(count(3, 2), 14);
    EXPECT_EQ(count(3, 4), 20);
}

// The reader must be preempted between its two readings, and the writer while the flag is up.
TEST_F(Explored, ARaceOfTwoPreemptionsIsFoundWithTwoAndReplayedByName) {
    bool seen = false;
    const auto explore = [&](unsigned preemptions) {
        return ExploreAll(
            {.name = "flag", .preemptions = preemptions},
            [&](Machine& machine, ScheduleTree&) {
                Scheduler& scheduler = machine.scheduler();
                total_ = 0;
                seen = false;
                scheduler.Start({.name = "writer", .processor = 0}, [&] {
                    total_ = 1;
                    scheduler.Point(PointKind::kMemory);
                    total_ = 0;
                    scheduler.Point(PointKind::kMemory);
                });
                scheduler.Start({.name = "reader", .processor = 1}, [&] {
                    const int before = total_;
                    scheduler.Point(PointKind::kMemory);
                    seen = before == 0 && total_ == 1;
                });
                scheduler.WaitUntilIdle();
            },
            [&](Machine&) { return seen ? "the flag went up" : ""; });
    };
    EXPECT_FALSE(explore(1).finding);
    // What the fewest preemptions leave of the budget may be nothing.
    const ExploreResult fewest = explore(0);
    setenv("NETSIEVE_SCHEDULES", std::to_string(fewest.schedules).c_str(), 1);
    const ExploreResult cut = explore(1);
    unsetenv("NETSIEVE_SCHEDULES");
    EXPECT_EQ(cut.schedules, fewest.schedules);
    EXPECT_TRUE(fewest.complete && !cut.complete);
    const ExploreResult found = explore(2);
    ASSERT_TRUE(found.finding);
    const std::string choices =
        found.finding->replay.substr(sizeof("replay: NETSIEVE_CHOICES=") - 1);
    setenv("NETSIEVE_CHOICES", choices.substr(0, choices.find(' ')).c_str(), 1);
    const ExploreResult again = explore(0);
    ASSERT_TRUE(again.finding);
    EXPECT_EQ(again.finding->replay, found.finding->replay);
    EXPECT_EQ(again.schedules, 1u);
}

}  // namespace
}  // namespace netsieve::host
