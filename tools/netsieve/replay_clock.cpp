#include "tools/netsieve/replay_clock.h"

#include "tools/netsieve/capture_writer.h"

namespace netsieve::tool {
namespace {

constexpr host::Ticks kNanosecondsPerTick = 100;

}  // namespace

void ReplayClock::Reach(const CaptureStamp& stamp) {
    if (!CaptureWriter::CanRepresent(stamp)) {
        return;
    }
    if (!follows_) {
        latest_ = stamp;
        return;
    }
    const host::Ticks captured = stamp.TotalNanoseconds() / kNanosecondsPerTick;
    const host::Ticks now = scheduler_.Now();
    if (!offset_) {
        offset_ = captured - now;
    }
    const host::Ticks due = captured - *offset_;
    if (due > now) {
        scheduler_.Sleep(due - now);
    }
    if (due >= now) {
        latest_ = stamp;
        latestAt_ = scheduler_.Now();
    }
}

CaptureStamp ReplayClock::Now() {
    // The machine's clock is the coarser one.
    if (!follows_ || scheduler_.Now() == latestAt_) {
        return latest_;
    }
    const host::Ticks ticks = scheduler_.Now() + offset_.value_or(0);
    host::Ticks seconds = ticks / host::kTicksPerSecond;
    host::Ticks rest = ticks % host::kTicksPerSecond;
    if (rest < 0) {
        rest += host::kTicksPerSecond;
        --seconds;
    }
    return {seconds, static_cast<std::uint32_t>(rest * kNanosecondsPerTick)};
}

}  // namespace netsieve::tool
