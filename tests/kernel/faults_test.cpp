#include "host/kernel/faults.h"

#include <gtest/gtest.h>

#include "host/machine.h"

namespace netsieve::host {
namespace {

constexpr std::uint32_t kTag = 0x31676174;

/// Ten allocations, tags alternating, each followed by a work item: which of the allocations fail
/// under the plan, as "x" and ".".
std::string Pattern(const FaultPlan& plan) {
    Machine machine;
    std::string pattern;
    machine.Run([&] {
        machine.faults().Arm(plan);
        for (std::uint32_t i = 0; i < 10; ++i) {
            PVOID block = nullptr;
            const NDIS_STATUS status = NdisAllocateMemoryWithTag(&block, 8, kTag + i % 2);
            pattern += status == NDIS_STATUS_SUCCESS ? "." : "x";
            if (status == NDIS_STATUS_SUCCESS) {
                NdisFreeMemory(block, 0, 0);
            }
            machine.faults().Fails(FaultKind::kWorkItem);
        }
        machine.faults().Disarm();
        EXPECT_FALSE(machine.faults().Fails(FaultKind::kPool, kTag));
    });
    EXPECT_TRUE(machine.verifier().Silent()) << machine.verifier().Describe();
    return pattern;
}

TEST(Faults, APlanSaysWhichCallsFail) {
    const struct {
        FaultPlan plan;
        const char* pattern;
    } cases[] = {
        {{}, ".........."},
        {{.nth = 5}, "..x......."},  // counted with the work items between
        {{.kind = FaultKind::kPool, .nth = 3}, "..x......."},
        {{.kind = FaultKind::kPool, .nth = 3, .persistent = true}, "..xxxxxxxx"},
        {{.tag = kTag + 1, .nth = 2}, "...x......"},
        {{.kind = FaultKind::kPool, .tag = kTag, .nth = 1, .persistent = true}, "x.x.x.x.x."},
        {{.kind = FaultKind::kMdl, .nth = 1, .persistent = true}, ".........."},
        {{.kind = FaultKind::kPool, .probability = 1}, "xxxxxxxxxx"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(Pattern(one.plan), one.pattern);
    }
}

}  // namespace
}  // namespace netsieve::host
