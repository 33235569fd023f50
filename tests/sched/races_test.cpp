// Under ThreadSanitizer, contexts of a simulated run are ordered by what orders them on a real
// kernel and by nothing else.

#include <gtest/gtest.h>

#include <cstdlib>

#include "host/machine.h"
#include "host/sanitizers.h"

namespace netsieve::host {
namespace {

struct Shared {
    KSPIN_LOCK locks[2];
    KEVENT event;
    NDIS_TIMER timer;
    int field;
};

using Act = void (*)(Shared& shared);

struct Pair {
    const char* name;
    bool race;
    Act first, second;  ///< on a processor each
};

template <int kLock>
void AddLocked(Shared& shared) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&shared.locks[kLock]);
    ++shared.field;
    KeReleaseSpinLock(&shared.locks[kLock], irql);
}

void AddAmongHostCalls(Shared& shared) {
    const auto call = [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, 1), 1); };
    call();
    ++shared.field;
    call();
}

void Signal(Shared& shared) {
    ++shared.field;
    KeSetEvent(&shared.event, 0, FALSE);
}

void Await(Shared& shared) {
    KeWaitForSingleObject(&shared.event, Executive, KernelMode, FALSE, nullptr);
    ++shared.field;
}

VOID NTAPI AddInTimer(PVOID, PVOID context, PVOID, PVOID) {
    ++static_cast<Shared*>(context)->field;
}

void AddAndSetTimer(Shared& shared) {
    ++shared.field;
    NdisInitializeTimer(&shared.timer, &AddInTimer, &shared);
    NdisSetTimer(&shared.timer, 1);
}

void SetTimerAndAdd(Shared& shared) {
    NdisInitializeTimer(&shared.timer, &AddInTimer, &shared);
    NdisSetTimer(&shared.timer, 1);
    ++shared.field;
}

const Pair kPairs[] = {
    {"NoLock", true, [](Shared& shared) { ++shared.field; },
     [](Shared& shared) { ++shared.field; }},
    {"OneLock", false, &AddLocked<0>, &AddLocked<0>},
    {"TwoLocks", true, &AddLocked<0>, &AddLocked<1>},
    {"HostCalls", true, &AddAmongHostCalls, &AddAmongHostCalls},
    {"Event", false, &Signal, &Await},
    {"TouchedBehindEvent", true,
     [](Shared& shared) {
         Signal(shared);
         ++shared.field;
     },
     &Await},
    {"Timer", false, &AddAndSetTimer, [](Shared&) {}},
    {"TouchedBehindTimer", true, &SetTimerAndAdd, [](Shared&) {}},
};

void RunPair(const Pair& pair) {
    Machine machine;
    Shared shared{};
    machine.Run([&] {
        KeInitializeSpinLock(&shared.locks[0]);
        KeInitializeSpinLock(&shared.locks[1]);
        KeInitializeEvent(&shared.event, NotificationEvent, FALSE);
        Scheduler& scheduler = machine.scheduler();
        scheduler.Start({.name = "first", .processor = 0}, [&] { pair.first(shared); });
        scheduler.Start({.name = "second", .processor = 1}, [&] { pair.second(shared); });
        scheduler.Sleep(2 * kTicksPerMillisecond);  // until the timer has expired
        scheduler.WaitUntilIdle();
        ++shared.field;
    });
    std::exit(shared.field == 0 ? 1 : 0);
}

class TwoContexts : public testing::TestWithParam<Pair> {};

TEST_P(TwoContexts, RaceWhereNothingOrdersThem) {
    if (!kThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer finds races";
    }
    constexpr int kFound = 66;  // ThreadSanitizer's exit status
    EXPECT_EXIT(RunPair(GetParam()), testing::ExitedWithCode(GetParam().race ? kFound : 0), "");
}

INSTANTIATE_TEST_SUITE_P(, TwoContexts, testing::ValuesIn(kPairs), [](const auto& pair) {
    return pair.param.name;
});

}  // namespace
}  // namespace netsieve::host
