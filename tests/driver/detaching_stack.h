// A module that is being detached while a call is inside it and others keep coming.
#pragma once

#include "tests/driver/driver_scenario.h"

namespace netsieve::host {

/// Keeps one send inside the driver, detaches the module meanwhile, and lets go of the send when
/// told. Between Begin and End the handler waits, sooner or later.
class DetachingStack {
  public:
    DetachingStack(Machine& machine, Stack& stack) : machine_(machine), stack_(stack) {}

    /// Returns when the first send is inside and the detach has been started. The wire's own
    /// onSend goes on being called.
    void Begin(PNET_BUFFER_LIST blocking) {
        FilterModule* const module = stack_.FindModule(machine_.FindDriver("NETSIEVE"));
        stack_.adapter().onSend = [this, blocking, onSend = stack_.adapter().onSend](
                                      PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags) {
            onSend(chain, port, flags);
            if (chain == blocking) {
                inside_ = true;
                Await(machine_, [this] { return released_.load(); });
            }
        };
        sender_ = machine_.scheduler().Start({.name = "blocked sender", .processor = 1},
                                             [=, this] { stack_.protocol().Send(blocking); });
        EXPECT_TRUE(Await(machine_, [this] { return inside_.load(); }));
        detacher_ = machine_.scheduler().Start({.name = "detacher", .processor = 2}, [=, this] {
            stack_.DetachUnderCalls(*module);
            detached_ = true;
        });
    }

    /// Lets the blocked send go, which is completed before its call returns, and waits until the
    /// module is gone. No other NBL may be on its way to the module.
    void End() {
        stack_.adapter().queue().SetMode(ReleaseMode::kInline);
        EXPECT_FALSE(detached_) << "freed while a call was inside";
        released_ = true;
        machine_.scheduler().Join(sender_);
        machine_.scheduler().Join(detacher_);
        EXPECT_TRUE(detached_);
    }

  private:
    Machine& machine_;
    Stack& stack_;
    std::atomic<bool> inside_ = false;
    std::atomic<bool> released_ = false;
    std::atomic<bool> detached_ = false;
    std::uint32_t sender_ = 0;
    std::uint32_t detacher_ = 0;
};

}  // namespace netsieve::host
