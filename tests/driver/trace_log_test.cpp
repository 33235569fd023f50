// The trace ring's bytes: what a line looks like, and where it goes.
#include "module/trace_log.h"

#include <cstring>
#include <string_view>

#include "tests/driver/driver_scenario.h"

namespace netsieve::host {
namespace {

/// A module of which only the trace is set up, the ring filled with 0xEE.
struct TracedModule {
    FILTER_MODULE record{};

    TracedModule() {
        InitializeTraceLog(&record);
        std::memset(record.TraceBuffer, 0xEE, TRACE_BUFFER_SIZE);
    }
    ~TracedModule() { FreeTraceLog(&record); }
    std::string_view At(std::size_t offset, std::size_t size) const {
        return {reinterpret_cast<const char*>(record.TraceBuffer) + offset, size};
    }
};

using namespace std::string_view_literals;
constexpr std::string_view kLine = "[0 NSVFilterAttach->651]\n\0"sv;
constexpr ULONG kLength = 26;
static_assert(kLine.size() == kLength);

TEST(TraceLogTest, PlacesLinesInTheRing) {
    EXPECT_EQ(TRACE_BUFFER_SIZE, 512u);
    const struct {
        const char* what;
        ULONG offset;  ///< before the line
        ULONG start;   ///< where the line goes
    } cases[] = {
        {"the first line", 0, 0},
        {"in the middle", 100, 100},
        {"a line as long as the room left", TRACE_BUFFER_SIZE - kLength,
         TRACE_BUFFER_SIZE - kLength},
        {"a line one byte too long", TRACE_BUFFER_SIZE - kLength + 1, 0},
        {"far too little room", 500, 0},
        {"a ring that is exactly full", TRACE_BUFFER_SIZE, 0},
    };
    for (const auto& place : cases) {
        SCOPED_TRACE(place.what);
        RunClean({}, [&](Machine&) {
            TracedModule module;
            module.record.TraceOffset = place.offset;
            TraceLog(&module.record, "NSVFilterAttach", 651, FALSE);
            EXPECT_EQ(module.At(place.start, kLength), kLine);
            EXPECT_EQ(module.record.TraceOffset, place.start + kLength);
            EXPECT_EQ(module.record.TraceSequence, 1u);
            // Nothing but the line was written: older bytes stay, also behind a wrap.
            std::string rest(module.At(0, TRACE_BUFFER_SIZE));
            rest.erase(place.start, kLength);
            EXPECT_EQ(rest, std::string(TRACE_BUFFER_SIZE - kLength, '\xEE'));
        });
    }
}

TEST(TraceLogTest, NumbersLines) {
    RunClean({}, [](Machine& machine) {
        TracedModule module;
        TraceLog(&module.record, nullptr, 1, FALSE);
        EXPECT_EQ(module.record.TraceSequence, 0u);
        module.record.TraceSequence = 0xFFFFFFFF;
        AtIrql(machine, DISPATCH_LEVEL, [record = &module.record] {
            TraceLog(record, "a", 1, TRUE);
            TraceLog(record, "b", 22, FALSE);
        });
        EXPECT_EQ(module.At(0, 20), "[-1 a->1]\n\0[0 b->22]"sv);
    });
}

TEST(TraceLogTest, DoesNothingWithoutARing) {
    RunClean({}, [](Machine& machine) {
        FILTER_MODULE record{};
        machine.faults().Arm({.nth = 1});
        InitializeTraceLog(&record);
        machine.faults().Disarm();
        TraceLog(&record, "NSVFilterAttach", 651, FALSE);
        EXPECT_EQ(record.TraceSequence, 0u);
        EXPECT_THAT(machine.debugOutput(), testing::ElementsAre("dbglog memory allocate failed\n"));
        FreeTraceLog(&record);
    });
}

}  // namespace
}  // namespace netsieve::host
