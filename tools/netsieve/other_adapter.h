// A second adapter, which comes and goes beside the one that the frames pass.
#pragma once

#include <memory>

#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/stack.h"

namespace netsieve::tool {

/// The driver and the hooks attach to it too. What it receives is addressed to nobody here, so that
/// no hook is shown it. Must outlive the machine's run.
class OtherAdapter {
  public:
    /// The adapter, or null while there is none.
    host::Stack* stack() const { return stack_; }

    /// Adds the adapter, with an address that `draw` makes up. PASSIVE_LEVEL; while it is away.
    void Come(host::Machine& machine, std::uint64_t draw);
    /// Removes it, if it is there. PASSIVE_LEVEL.
    void Go(host::Machine& machine);
    /// Receives one frame. While it is there; IRQL <= DISPATCH_LEVEL.
    void Receive();

  private:
    host::Stack* stack_ = nullptr;
    std::unique_ptr<host::NblFactory> frames_;
};

}  // namespace netsieve::tool
