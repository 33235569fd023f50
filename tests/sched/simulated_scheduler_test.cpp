#include "host/sched/simulated_scheduler.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "host/machine.h"

namespace netsieve::host {
namespace {

using testing::HasSubstr;

KSPIN_LOCK g_lock;

TEST(SimulatedScheduler, TimeJumpsToTheNextDeadline) {
    Machine machine;
    Scheduler& scheduler = machine.scheduler();
    Ticks fired = 0;
    machine.Run([&] {
        scheduler.CallAt(20 * kTicksPerSecond, 0, [&] { fired = scheduler.Now(); });
        scheduler.Sleep(3600 * kTicksPerSecond);
        EXPECT_EQ(scheduler.Now(), 3600 * kTicksPerSecond);
    });
    EXPECT_EQ(fired, 20 * kTicksPerSecond);
}

// A thread of the same processor must not run meanwhile; one of another processor must be able to.
TEST(SimulatedScheduler, DispatchLevelKeepsTheProcessor) {
    bool seen[2] = {};
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        Machine machine({.seed = seed});
        Scheduler& scheduler = machine.scheduler();
        std::atomic<bool> inside = false;
        machine.Run([&] {
            for (const unsigned processor : {0u, 1u}) {
                scheduler.Start({.name = "observer", .processor = processor}, [&, processor] {
                    for (int i = 0; i < 20; ++i) {
                        seen[processor] = seen[processor] || inside;
                        scheduler.Point(PointKind::kMemory);
                    }
                });
            }
            scheduler.Start({.name = "dpc", .kind = ContextKind::kDpc, .processor = 0}, [&] {
                inside = true;
                for (int i = 0; i < 5; ++i) {
                    scheduler.Point(PointKind::kMemory);
                }
                inside = false;
            });
        });
    }
    EXPECT_FALSE(seen[0]);
    EXPECT_TRUE(seen[1]);
}

TEST(SimulatedScheduler, OneProcessorExposesAWaitThatNeverEnds) {
    std::string reason[2];
    for (const unsigned processors : {1u, 2u}) {
        Machine machine({.processors = processors});
        Scheduler& scheduler = machine.scheduler();
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        reason[processors - 1] =
            machine
                .Run([&] {
                    scheduler.SetIrql(DISPATCH_LEVEL);
                    scheduler.Start({.name = "setter", .processor = 1},
                                    [&] { KeSetEvent(&event, 0, FALSE); });
                    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                    scheduler.SetIrql(PASSIVE_LEVEL);
                })
                .abandonReason;
    }
    EXPECT_EQ(reason[1], "");
    EXPECT_THAT(reason[0], HasSubstr("thread 1 (main) on processor 0 at IRQL 2: waits for an "
                                     "event without a timeout"));
    EXPECT_THAT(reason[0], HasSubstr("thread 2 (setter) on processor 0 at IRQL 0: cannot run: "
                                     "processor 0 is kept at DISPATCH_LEVEL by thread 1 (main)"));
}

TEST(SimulatedScheduler, ADeadlockNamesWhoHoldsWhat) {
    Machine machine;
    Scheduler& scheduler = machine.scheduler();
    PKSPIN_LOCK locks[] = {&g_lock, nullptr};
    const auto takeBoth = [&](int first) {
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(locks[first]);
        scheduler.Sleep(1);  // until the other has its first one too
        KeAcquireSpinLockAtDpcLevel(locks[1 - first]);
        KeReleaseSpinLockFromDpcLevel(locks[1 - first]);
        KeReleaseSpinLock(locks[first], irql);
    };
    const RunResult result = machine.Run([&] {
        auto* const block = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPool, 64, 0x6B636F4C));
        locks[1] = reinterpret_cast<PKSPIN_LOCK>(block + 16);
        KeInitializeSpinLock(locks[0]);
        KeInitializeSpinLock(locks[1]);
        scheduler.Start({.name = "up", .processor = 1}, [&] { takeBoth(0); });
        takeBoth(1);
    });
    EXPECT_FALSE(result.completed);
    constexpr const char* kBlock = "block 'Lock' of 64 bytes, offset 16";
    constexpr const char* kVariable = "sched_test!netsieve::host::(anonymous namespace)::g_lock";
    EXPECT_THAT(
        result.abandonReason,
        HasSubstr(fmt::format("thread 1 (main) on processor 0 at IRQL 2: spins on the lock in "
                              "{} held by thread 2 (up) on processor 1; holds the lock in {}",
                              kVariable, kBlock)));
    EXPECT_THAT(result.abandonReason,
                HasSubstr(fmt::format("spins on the lock in {} held by thread 1 (main)", kBlock)));
}

TEST(SimulatedScheduler, AnEagerClockLetsTimeoutsRaceWithRunningCode) {
    for (const StrategyKind strategy : {StrategyKind::kUniform, StrategyKind::kPct}) {
        for (const ClockMode clock : {ClockMode::kIdle, ClockMode::kEager}) {
            int timeouts = 0;
            for (std::uint64_t seed = 1; seed <= 100; ++seed) {
                Machine machine({.strategy = strategy, .seed = seed, .clock = clock});
                NDIS_EVENT event;
                NdisInitializeEvent(&event);
                const RunResult result = machine.Run([&] {
                    machine.scheduler().Start({.name = "setter", .processor = 1},
                                              [&] { NdisSetEvent(&event); });
                    while (NdisWaitEvent(&event, 1000) == FALSE) {
                        ++timeouts;
                    }
                });
                // However eager, time alone must not keep the setter from running.
                EXPECT_TRUE(result.completed) << "seed " << seed;
            }
            EXPECT_EQ(timeouts > 0, clock == ClockMode::kEager) << timeouts;
        }
    }
}

}  // namespace
}  // namespace netsieve::host
