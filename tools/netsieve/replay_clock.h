// The machine's time and the capture's.
#pragma once

#include <optional>

#include "host/sched/scheduler.h"
#include "tools/netsieve/capture_reader.h"

namespace netsieve::tool {

/// Lets a machine's clock follow the times in a capture.
class ReplayClock {
  public:
    /// With `follows` unset the machine has a real clock, which is not waited for.
    ReplayClock(host::Scheduler& scheduler, bool follows)
        : scheduler_(scheduler), follows_(follows) {}

    /// Lets the machine's clock reach the time of a frame. It never goes back: frames whose stamps
    /// do follow at once. A time that no output can hold is passed over.
    void Reach(const CaptureStamp& stamp);
    /// The capture's time now.
    CaptureStamp Now();

  private:
    host::Scheduler& scheduler_;
    bool follows_;
    std::optional<host::Ticks> offset_;    ///< from the machine's time to the capture's
    CaptureStamp latest_;                  ///< reached
    std::optional<host::Ticks> latestAt_;  ///< when that was, by the machine's clock
};

}  // namespace netsieve::tool
