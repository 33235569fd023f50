#include <gtest/gtest.h>

#include <atomic>

#include "host/machine.h"

namespace netsieve::host {
namespace {

NTSTATUS WaitFor(KEVENT& event, Ticks timeout) {
    LARGE_INTEGER due;
    due.QuadPart = timeout;
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE,
                                 timeout == kForever ? nullptr : &due);
}

class Events : public testing::TestWithParam<SchedulerKind> {
  protected:
    /// Starts three contexts that wait for `event` and returns when all of them do.
    void StartWaiters(KEVENT& event, std::atomic<int>& released) {
        for (unsigned i = 0; i < 3; ++i) {
            scheduler_.Start({.name = "waiter", .processor = i}, [&] {
                WaitFor(event, kForever);
                ++released;
            });
        }
        while (machine_.events().waiters() != 3) {
            scheduler_.Sleep(kTicksPerMillisecond);
        }
    }
    void Settle() { scheduler_.Sleep(20 * kTicksPerMillisecond); }

    Machine machine_{{.scheduler = GetParam(), .seed = 3}};
    Scheduler& scheduler_ = machine_.scheduler();
    KEVENT event_;
    std::atomic<int> released_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Schedulers,
                         Events,
                         testing::Values(SchedulerKind::kSimulated, SchedulerKind::kThreaded));

TEST_P(Events, ANotificationReleasesAllWhoWaitEvenIfItIsClearedAtOnce) {
    machine_.Run([&] {
        KeInitializeEvent(&event_, NotificationEvent, FALSE);
        StartWaiters(event_, released_);
        EXPECT_EQ(KeSetEvent(&event_, 0, FALSE), 0);
        KeClearEvent(&event_);
        scheduler_.WaitUntilIdle();
        EXPECT_EQ(released_, 3);
        EXPECT_EQ(WaitFor(event_, 0), STATUS_TIMEOUT);
        EXPECT_EQ(KeSetEvent(&event_, 0, FALSE), 0);
        EXPECT_EQ(KeSetEvent(&event_, 0, FALSE), 1);
        EXPECT_EQ(WaitFor(event_, 0), STATUS_SUCCESS);
        EXPECT_EQ(WaitFor(event_, 0), STATUS_SUCCESS);
    });
}

TEST_P(Events, ASynchronizationReleasesOneForEachSet) {
    machine_.Run([&] {
        KeInitializeEvent(&event_, SynchronizationEvent, FALSE);
        StartWaiters(event_, released_);
        for (int set = 1; set <= 3; ++set) {
            KeSetEvent(&event_, 0, FALSE);
            Settle();
            EXPECT_EQ(released_, set);
        }
        KeSetEvent(&event_, 0, FALSE);
        EXPECT_EQ(WaitFor(event_, 0), STATUS_SUCCESS);
        EXPECT_EQ(WaitFor(event_, 0), STATUS_TIMEOUT);
    });
}

TEST_P(Events, TimeoutsAreRelativeAbsoluteOrNone) {
    machine_.Run([&] {
        KeInitializeEvent(&event_, NotificationEvent, FALSE);
        const auto elapsed = [&](Ticks timeout) {
            const Ticks start = scheduler_.Now();
            EXPECT_EQ(WaitFor(event_, timeout), STATUS_TIMEOUT);
            return scheduler_.Now() - start;
        };
        EXPECT_GE(elapsed(-2 * kTicksPerMillisecond), 2 * kTicksPerMillisecond);
        EXPECT_GE(elapsed(scheduler_.Now() + kTicksPerMillisecond), kTicksPerMillisecond * 9 / 10);
        NDIS_EVENT ndisEvent;
        NdisInitializeEvent(&ndisEvent);
        EXPECT_FALSE(NdisWaitEvent(&ndisEvent, 1));
        NdisSetEvent(&ndisEvent);
        EXPECT_TRUE(NdisWaitEvent(&ndisEvent, 0));
        NdisResetEvent(&ndisEvent);
        EXPECT_FALSE(NdisWaitEvent(&ndisEvent, 1));
    });
    EXPECT_TRUE(machine_.verifier().Silent()) << machine_.verifier().Describe();
}

// Looking is not waiting, and a wait that ended well is progress.
TEST(HangDetection, CountsOnlyWaitsInARowThatTimedOut) {
    Machine machine;
    const RunResult result = machine.Run([&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(WaitFor(event, 0), STATUS_TIMEOUT);
        }
        for (int i = 0; i < 100; ++i) {
            if (i % 10 == 0) {
                KeSetEvent(&event, 0, FALSE);
            }
            WaitFor(event, -3 * kTicksPerSecond);
        }
    });
    EXPECT_TRUE(result.completed) << result.abandonReason;
    EXPECT_TRUE(machine.verifier().Silent()) << machine.verifier().Describe();
}

}  // namespace
}  // namespace netsieve::host
