// What goes wrong beyond repair ends the process with a report that names who did it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/sanitizers.h"
#include "host/verifier/crash_report.h"
#include "host/verifier/run_notes.h"
#include "tests/verifier/breakers.h"

namespace netsieve::host {
namespace {

using Routine = void (*)();

struct Crash {
    const char* name;
    Routine act;
    const char* report;           ///< a regular expression
    bool sanitizerFirst = false;  ///< a sanitizer looks before the processor does
};

/// The byte at an address that the compiler does not know.
volatile UCHAR& At(std::uintptr_t address) {
    asm("" : "+r"(address));
    return *reinterpret_cast<volatile UCHAR*>(address);
}

volatile int g_zero = 0;
volatile int g_result = 0;

// NOLINTNEXTLINE(misc-no-recursion)
[[gnu::noinline]] int Recurse(volatile int* outer) {
    volatile int inner[64] = {*outer};
    return *outer != 0 ? 0 : Recurse(inner) + inner[1];
}

void ReadThroughFreedMdl() {
    UCHAR byte = 0;
    PMDL const mdl = NdisAllocateMdl(nullptr, &byte, sizeof(byte));
    NdisFreeMdl(mdl);
    g_result = *static_cast<UCHAR*>(mdl->MappedSystemVa);
}

void SpinForEver() {
    while (g_zero == 0) {
    }
}

const Crash kCrashes[] = {
    {"Read", [] { g_result = At(0x18); }, "SMALL read from address 0x18\n"},
    {"Write", [] { At(0x1234560) = 1; }, "SMALL wrote to address 0x1234560\n"},
    {"Jump", [] { reinterpret_cast<Routine>(0x4560)(); }, "SMALL jumped to address 0x4560\n", true},
    {"NoAddress", [] { g_result = At(0xCDCDCDCDCDCDCDCD); }, "used a pointer that is no address"},
    {"FreedMdl", &ReadThroughFreedMdl, "SMALL used a pointer that is no address", true},
    {"Division", [] { g_result = 7 / g_zero; }, "divided by zero", true},
    {"NoInstruction", [] { asm volatile("ud2"); }, "executed what is no instruction"},
    {"Stack", [] { g_result = Recurse(&g_zero); }, "used up its kernel stack of 24 KiB\n"},
    {"Stuck", &SpinForEver, "SMALL has not come back for 200 ms, nor passed a scheduling point"},
};

class CrashedRun : public testing::TestWithParam<Crash> {
  protected:
    /// Sends an NBL to a filter that crashes over it, at DISPATCH_LEVEL with a lock held.
    static void Run(const Crash& crash) {
        Machine machine({.seed = 7, .stuckAfter = std::chrono::milliseconds(200)});
        Scene scene(machine);
        KSPIN_LOCK lock;
        NoteReplay("run it again");
        NoteStep("frame", 17);
        scene.filter.send = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) {
            KeInitializeSpinLock(&lock);
            KeAcquireSpinLockRaiseToDpc(&lock);
            crash.act();
        };
        machine.Run([&] {
            scene.Start();
            scene.Send();
        });
    }
    static bool EndedSo(int status) {
#if defined(NETSIEVE_ASAN) || defined(NETSIEVE_TSAN)
        return status != 0;
#else
        return testing::ExitedWithCode(kCrashStatus)(status);
#endif
    }
};

TEST_P(CrashedRun, EndsWithAReport) {
#ifdef NETSIEVE_TSAN
    if (GetParam().act == &SpinForEver) {
        GTEST_SKIP() << "ThreadSanitizer delivers no signal to a loop without calls";
    }
#endif
    if (kSanitized && GetParam().sanitizerFirst) {
        GTEST_SKIP() << "a sanitizer stops the program before the processor does";
    }
    const std::string report = std::string(GetParam().report) +
                               ".*    code:   .*    by:     thread 1 .main. on processor 0 at IRQL "
                               "2, in FilterSendNetBufferLists of SMALL\n"
                               "    holds:  the lock in .*"
                               "    step:   frame 17\n    replay: run it again\n    seed:   7\n"
                               "    stack:  .*verifier_test.0x";
    EXPECT_EXIT(Run(GetParam()), EndedSo, report);
}

INSTANTIATE_TEST_SUITE_P(, CrashedRun, testing::ValuesIn(kCrashes), [](const auto& crash) {
    return crash.param.name;
});

/// What runs drivers alone has a kernel's stack; what runs a test has more.
TEST(CrashedDpc, HasUsedUpAKernelsStackSooner) {
    const auto run = [] {
        Machine machine;
        Scene scene(machine);
        machine.Run([&] {
            machine.scheduler().Start({.name = "deep", .kind = ContextKind::kDpc}, [] {
                UCHAR room[100 * 1024];
                room[0] = 1;
                KeepAll(room);
                g_result = room[0];
            });
            machine.scheduler().WaitUntilIdle();
        });
    };
    if (!kSanitized) {
        EXPECT_EXIT(run(), testing::ExitedWithCode(kCrashStatus),
                    "no driver used up its kernel stack of 24 KiB\n.*by:     dpc [0-9]+ .deep.");
    }
}

// On real threads each has a watch and a stack for signals of its own.
TEST(CrashedThread, ReportsAsAFiberDoes) {
#ifdef NETSIEVE_TSAN
    GTEST_SKIP() << "ThreadSanitizer delivers no signal to a loop without calls";
#endif
    const auto run = [](Routine act) {
        Machine machine(
            {.scheduler = SchedulerKind::kThreaded, .stuckAfter = std::chrono::milliseconds(200)});
        Scene scene(machine);
        scene.filter.send = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) { act(); };
        machine.Run([&] {
            scene.Start();
            machine.scheduler().Join(machine.scheduler().Start({.name = "sender", .processor = 1},
                                                               [&] { scene.Send(); }));
        });
    };
    const char* const place = ".*thread [0-9]+ .sender. on processor 1 at IRQL 0, in FilterSend";
    EXPECT_EXIT(run(&SpinForEver), testing::ExitedWithCode(kCrashStatus),
                std::string("SMALL has not come back") + place);
    EXPECT_DEATH(run([] { g_result = At(0x18); }), std::string("SMALL read from") + place);
}

// A context at its own work is no hang however long it takes, only one that goes round and round.
TEST(Progress, IsMissedWhenPointsArePassedAndNothingBeginsOrEnds) {
    Machine machine({.pointsWithoutProgress = 1000});
    Scene scene(machine);
    const RunResult result = machine.Run([&] {
        scene.filter.send = [&](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG) {
            for (;;) {
                KeStallExecutionProcessor(1);
            }
        };
        scene.Start();
        scene.Send();
    });
    EXPECT_FALSE(result.completed);
    ASSERT_EQ(machine.verifier().violations().size(), 1u) << machine.verifier().Describe();
    EXPECT_EQ(machine.verifier().violations()[0].rule, Rule::kHang);
    EXPECT_THAT(result.abandonReason, testing::HasSubstr(", in FilterSendNetBufferLists"));
    EXPECT_THAT(result.abandonReason, testing::HasSubstr("verifier_test+0x"));
}

}  // namespace
}  // namespace netsieve::host
