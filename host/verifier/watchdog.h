// Notices driver code that never comes back.
#pragma once

#include <chrono>
#include <ctime>

namespace netsieve::host {

/// While it exists, the calling thread is looked at several times within `limit`. When it was in
/// the same routine of a driver all that time and passed no scheduling point, a crash report with
/// its stack is written and the process ends. Time that a debugger holds the process hardly counts.
/// A limit of zero watches nothing.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::milliseconds limit);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    bool armed_ = false;
    timer_t timer_{};
};

}  // namespace netsieve::host
