#include "tools/netsieve/records/module_trace.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "driver/driver_entry.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "host/ndis/stack.h"
#include "module/trace_log.h"

namespace netsieve::tool {
namespace {

TEST(ModuleTraceTest, WholeLinesOnlyAndOldestFirst) {
    host::Machine machine;
    std::vector<std::string> fresh;
    std::vector<std::string> wrapped;
    machine.Run([&] {
        host::Stack& stack = machine.ndis().AddAdapter();
        machine.faults().Arm({.kind = host::FaultKind::kNblPool, .nth = 1});
        machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry, .image = {}});
        host::FilterModule& module = *stack.modules().front();
        fresh = ReadModuleTrace(module);
        for (ULONG site = 0; site < 100; ++site) {
            TraceLog(static_cast<FILTER_MODULE*>(module.context), "ATestOfTheRing", site, FALSE);
        }
        wrapped = ReadModuleTrace(module);
        machine.ndis().RemoveAdapter(stack);
        machine.UnloadDriver("NETSIEVE");
    });
    ASSERT_FALSE(fresh.empty());
    EXPECT_EQ(fresh.front().rfind("[0 ", 0), 0u) << fresh.front();
    // The newest 512 bytes, but for the line that the newest one has cut.
    ASSERT_GT(wrapped.size(), 10u);
    for (std::size_t i = 0; i < wrapped.size(); ++i) {
        const std::size_t site = 100 - wrapped.size() + i;
        EXPECT_EQ(wrapped[i], fmt::format("[{} ATestOfTheRing->{}]", fresh.size() + site, site));
    }
}

}  // namespace
}  // namespace netsieve::tool
