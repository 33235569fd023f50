// Calling into a driver.
#pragma once

#include <utility>

#include "host/sched/context.h"

namespace netsieve::host {

class LoadedDriver;

/// Surrounds one call of the host into a driver: reports and accounting learn who is inside, and
/// the callback's manners are checked when it returns (same IRQL, no spin lock held, and so on).
class CallbackScope {
  public:
    /// `routine` is the handler's published name. `module` may be null.
    CallbackScope(const char* routine, LoadedDriver* driver, void* module);
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    CallFrame& frame() { return frame_; }

  private:
    CallFrame frame_;
};

}  // namespace netsieve::host
