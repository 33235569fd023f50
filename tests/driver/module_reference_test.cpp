// What a reference says of a module that is no module any more, or never was.
#include "module/module_reference.h"

#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

TEST(ModuleReferenceTest, RefusesWhatIsOnNeitherList) {
    RunClean({}, [](Machine& machine) {
        ASSERT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
        FILTER_MODULE unknown{};
        const std::pair<FILTER_MODULE*, NDIS_STATUS> cases[] = {
            {nullptr, NDIS_STATUS_INVALID_PARAMETER}, {&unknown, NDIS_STATUS_CLOSING}};
        for (const auto& [module, status] : cases) {
            bool heldClosing = true;
            EXPECT_EQ(ReferenceFilterModule(module, &heldClosing), status);
            EXPECT_FALSE(heldClosing);
        }
        DereferenceFilterModule(nullptr);
        machine.UnloadDriver("NETSIEVE");
    });
}

}  // namespace
}  // namespace netsieve::host
