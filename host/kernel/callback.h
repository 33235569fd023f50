// Calling into a driver.
#pragma once

#include <utility>

#include "host/sched/context.h"

namespace netsieve::host {

class LoadedDriver;

/// Surrounds one call of the host into a driver. Reports and accounting use it to name the driver
/// and the routine; when the callback returns, its IRQL and its spin locks are checked.
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
    const void* caller_;  ///< of the context when the callback was made
};

/// The filter module in whose callback the current context runs; null when it is in none, or in a
/// hook that a module's handler calls.
void* CallingModule();

}  // namespace netsieve::host
