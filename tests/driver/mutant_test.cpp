// A search that finds nothing says little until it has found something: this program is linked with
// a driver that has one fault in it, and the search must find that.
#include <cstdlib>

#include "tests/driver/schedule_scenarios.h"

namespace netsieve::host {
namespace {

TEST(MutantTest, IsFound) {
    unsetenv("NETSIEVE_SCHEDULES");  // a smaller budget for other searches is none for this one
    NETSIEVE_MUTANT_SCENARIO scenario;
    const ExploreResult result = SearchSchedules(
        {.name = "mutant", .make = {}, .schedules = NETSIEVE_MUTANT_SCHEDULES}, scenario);
    ASSERT_TRUE(result.finding) << "not found in " << result.schedules << " schedules";
    fmt::print("seed {}: {}\n", result.finding->seed, result.finding->what);
}

}  // namespace
}  // namespace netsieve::host
