// Two clients that change the boot filter list at the same moment.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "driver/driver_entry.h"
#include "host/explore.h"
#include "tests/config/config_rig.h"

namespace netsieve::host {
namespace {

RegistryKey ServiceKey(Machine& machine) {
    RegistryKey key = 0;
    CreateRegistryPath(machine.registry().memory(), u"Machine\\" + std::u16string(BOOT_LIST_KEY),
                       &key);
    return key;
}

// Starts from `net, keep`; when all is over `keep` and what was added are there and `net` is not.
void ChangeFromThreeThreads(Machine& machine) {
    machine.LoadDriver({.name = "NETSIEVE", .entry = &DriverEntry});
    RegistryStore& store = machine.registry().memory();
    store.WriteValue(ServiceKey(machine),
                     {BOOT_LIST_VALUE, REG_MULTI_SZ, MultiSz({u"net", u"keep"})});
    const auto start = [&](unsigned processor, LONG change, std::u16string name) {
        return machine.scheduler().Start(
            {.name = "client", .processor = processor}, [change, name]() mutable {
                ITarnHKSystemInformationEx(nullptr, change, name.data(), nullptr);
            });
    };
    const std::uint32_t threads[] = {
        start(0, SYSINFO_CLASS_ADD_BOOT_FILTER, u"alpha"),
        start(1, SYSINFO_CLASS_REMOVE_BOOT_FILTER, u"net"),
        start(1, SYSINFO_CLASS_ADD_BOOT_FILTER, u"beta"),
    };
    machine.scheduler().JoinAll(threads);
    machine.UnloadDriver("NETSIEVE");
}

std::string CheckList(Machine& machine) {
    RegistryValue value;
    machine.registry().memory().ReadValue(ServiceKey(machine), BOOT_LIST_VALUE, &value);
    const bool whole = value.data == MultiSz({u"keep", u"alpha", u"beta"}) ||
                       value.data == MultiSz({u"keep", u"beta", u"alpha"});
    return whole ? "" : fmt::format("a change was lost: {} bytes are left", value.data.size());
}

ExploreResult Search(StrategyKind strategy) {
    return Explore(
        {.name = "boot filter list", .machine = {}, .strategy = strategy, .schedules = 4000},
        ChangeFromThreeThreads, CheckList);
}

#ifdef NETSIEVE_UNSERIALISED
TEST(BootFilterListSchedules, FindAMissingWait) {
    const ExploreResult result = Search(StrategyKind::kPct);
    ASSERT_TRUE(result.finding);
    EXPECT_TRUE(result.finding->what.starts_with("a change was lost")) << result.finding->what;
}
#else
TEST(BootFilterListSchedules, LoseNoChange) {
    for (const StrategyKind strategy : {StrategyKind::kUniform, StrategyKind::kPct}) {
        const ExploreResult result = Search(strategy);
        EXPECT_FALSE(result.finding) << result.finding->what << "\n" << result.finding->replay;
    }
}

TEST(BootFilterListSchedules, LoseNoChangeOnRealThreads) {
    for (int round = 0; round < 50; ++round) {
        Machine machine({.scheduler = SchedulerKind::kThreaded});
        machine.Run([&] { ChangeFromThreeThreads(machine); });
        EXPECT_EQ(CheckList(machine), "");
        EXPECT_TRUE(machine.verifier().Silent()) << machine.verifier().Describe();
    }
}
#endif

}  // namespace
}  // namespace netsieve::host
