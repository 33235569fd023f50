// Runs the driver for one query.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/machine.h"
#include "tools/netsieve/exit_status.h"

namespace netsieve::tool {

/// Loads and unloads the driver on a machine of its own. One at a time in a process.
class DriverSession {
  public:
    /// `driver` is native, or the path of an image.
    explicit DriverSession(std::string driver) : driver_(std::move(driver)) {}

    /// The machine's registry, to be filled before the driver starts.
    host::Registry& registry() { return machine_.registry(); }

    /// Starts the driver, calls `body` on the machine, and stops the driver. Reports failures
    /// and broken rules on standard error and returns the exit status.
    ExitStatus Run(const std::function<void()>& body);

    /// Calls the driver's export ITarnHKSystemInformationEx. Inside Run.
    NTSTATUS Ask(LONG informationClass, PVOID buffer, PULONG size);

  private:
    using Export = NTSTATUS(NTAPI*)(PVOID, LONG, PVOID, PULONG);

    bool Start();
    void Fail(const std::string& why);

    std::string driver_;
    host::Machine machine_;
    Export export_ = nullptr;
    std::optional<std::string> failure_;
};

}  // namespace netsieve::tool
