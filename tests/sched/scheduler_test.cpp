// What both schedulers promise alike.

#include "host/sched/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>

#include "host/machine.h"

namespace netsieve::host {
namespace {

class BothSchedulers : public testing::TestWithParam<SchedulerKind> {
  protected:
    Machine machine_{{.scheduler = GetParam(), .seed = 7, .processors = 4}};
    Scheduler& scheduler_ = machine_.scheduler();
};

INSTANTIATE_TEST_SUITE_P(Schedulers,
                         BothSchedulers,
                         testing::Values(SchedulerKind::kSimulated, SchedulerKind::kThreaded));

TEST_P(BothSchedulers, ASpinLockExcludesThreadsAndDpcs) {
    KSPIN_LOCK lock;
    int plain = 0;
    machine_.Run([&] {
        KeInitializeSpinLock(&lock);
        for (unsigned i = 0; i < 8; ++i) {
            const ContextKind kind = i % 2 == 0 ? ContextKind::kThread : ContextKind::kDpc;
            scheduler_.Start({.name = "adder", .kind = kind, .processor = i}, [&, kind] {
                for (int n = 0; n < 50; ++n) {
                    EXPECT_EQ(KeGetCurrentIrql(),
                              kind == ContextKind::kDpc ? DISPATCH_LEVEL : PASSIVE_LEVEL);
                    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
                    const int seen = plain;
                    scheduler_.Point(PointKind::kMemory);
                    plain = seen + 1;
                    KeReleaseSpinLock(&lock, irql);
                }
            });
        }
    });
    EXPECT_EQ(plain, 8 * 50);
    EXPECT_TRUE(machine_.verifier().Silent()) << machine_.verifier().Describe();
}

TEST_P(BothSchedulers, JoinAndIdleWaitForWhatTheySay) {
    std::atomic<int> ended = 0;
    bool timerFired = false;
    machine_.Run([&] {
        const std::uint32_t joined = scheduler_.Start({.name = "slow", .processor = 1}, [&] {
            scheduler_.Sleep(5 * kTicksPerMillisecond);
            ++ended;
        });
        scheduler_.Join(joined);
        EXPECT_EQ(ended, 1);
        scheduler_.Join(joined);  // it has ended already

        scheduler_.CallAt(scheduler_.Now() + 3600 * kTicksPerSecond, 0, [&] { timerFired = true; });
        scheduler_.Start({.name = "parent", .processor = 2}, [&] {
            scheduler_.Start({.name = "child", .kind = ContextKind::kWorker, .processor = 3}, [&] {
                scheduler_.Sleep(kTicksPerMillisecond);
                ++ended;
            });
            ++ended;
        });
        scheduler_.WaitUntilIdle();
        EXPECT_EQ(ended, 3);
    });
    EXPECT_FALSE(timerFired);
}

TEST_P(BothSchedulers, ACallRunsAsADpcOrIsCancelled) {
    std::atomic<int> ran = 0;
    machine_.Run([&] {
        const Ticks due = scheduler_.Now() + 2 * kTicksPerMillisecond;
        const std::uint64_t first = scheduler_.CallAt(due, 1, [&] {
            EXPECT_EQ(CurrentContext().irql, DISPATCH_LEVEL);
            EXPECT_EQ(CurrentContext().processor, 1u);
            EXPECT_GE(scheduler_.Now(), due);
            ++ran;
        });
        const std::uint64_t second = scheduler_.CallAt(due, 1, [&] { ran += 100; });
        EXPECT_TRUE(scheduler_.CancelCall(second));
        EXPECT_FALSE(scheduler_.CancelCall(second));
        scheduler_.Sleep(20 * kTicksPerMillisecond);
        scheduler_.WaitUntilIdle();
        EXPECT_FALSE(scheduler_.CancelCall(first));
    });
    EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace netsieve::host
