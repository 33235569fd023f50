// A hook driver that is loaded into the machine.
#pragma once

#include <optional>
#include <string>

#include "host/machine.h"
#include "tools/netsieve/hook_option.h"

namespace netsieve::tool {

/// One hook driver: a shared object beside the native driver, a .sys beside an image. Its code
/// stays in the process as long as this object, which must outlive the machine's run.
class HookDriver {
  public:
    /// `number` makes its service name unique.
    HookDriver(HookOption spec, unsigned number);
    ~HookDriver();
    HookDriver(const HookDriver&) = delete;
    HookDriver& operator=(const HookDriver&) = delete;

    /// Binds it to `driver` and to the platform, and calls its entry routine. Returns what went
    /// wrong, or nothing. Inside Run, at PASSIVE_LEVEL.
    std::optional<std::string> Load(host::Machine& machine, const host::LoadedDriver& driver);
    /// Calls its unload routine, if it is loaded and has one.
    void Unload(host::Machine& machine);

    const HookOption& spec() const { return spec_; }

  private:
    std::optional<std::string> FindEntry(host::DriverSource& source);
    std::optional<std::string> Start(host::Machine& machine, const host::DriverSource& source);

    HookOption spec_;
    std::string name_;
    void* object_ = nullptr;  ///< of the dynamic loader
    bool loaded_ = false;
};

}  // namespace netsieve::tool
