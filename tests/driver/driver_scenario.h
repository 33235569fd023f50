// What every test of the driver starts from: the driver under test, a machine that must end clean,
// and traffic over one stack that is counted at both ends.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "driver/driver_entry.h"
#include "host/accounting.h"
#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/ndis.h"
#include "host/ndis/other_filter.h"
#include "module/filter_module.h"

namespace netsieve::host {

/// The native driver, or the image in the programs that are built to test that one.
inline DriverSource DriverUnderTest() {
#if defined(NETSIEVE_TEST_IMAGE)
    return {.name = "NETSIEVE", .image = NETSIEVE_IMAGE_PATH};
#else
    return {.name = "NETSIEVE", .entry = &DriverEntry};
#endif
}

/// Runs `body` in a new machine and demands that it broke no rule and left nothing behind.
inline void RunClean(const MachineOptions& options, const std::function<void(Machine&)>& body) {
    Machine machine(options);
    const RunResult result = machine.Run([&] { body(machine); });
    machine.ndis().ReportLostNbls();
    EXPECT_TRUE(result.completed) << result.abandonReason;
    EXPECT_EQ(machine.verifier().Describe(), "");
    EXPECT_EQ(TakeStock(machine).Describe(), Accounting().Describe());
}

/// The record of the driver's module on `stack`; null when it has none there.
inline FILTER_MODULE* DriverModuleOf(Machine& machine, Stack& stack) {
    FilterModule* const module = stack.FindModule(machine.FindDriver("NETSIEVE"));
    return module == nullptr ? nullptr : static_cast<FILTER_MODULE*>(module->context);
}

/// Runs `body` to its end in a context of its own at `irql`.
inline void AtIrql(Machine& machine, KIRQL irql, const std::function<void()>& body) {
    Scheduler& scheduler = machine.scheduler();
    const ContextKind kind = irql == DISPATCH_LEVEL ? ContextKind::kDpc : ContextKind::kThread;
    scheduler.Join(scheduler.Start({.name = "caller", .kind = kind, .processor = 1}, body));
}

/// Sleeps until `condition` holds. False when it still does not after 20 seconds.
inline bool Await(Machine& machine, const std::function<bool()>& condition) {
    Scheduler& scheduler = machine.scheduler();
    const Ticks deadline = scheduler.Now() + 20 * kTicksPerSecond;
    bool holds = condition();
    while (!holds && scheduler.Now() < deadline) {
        scheduler.Sleep(kTicksPerMillisecond);
        holds = condition();
    }
    return holds;
}

inline std::vector<PNET_BUFFER_LIST> NblsOf(PNET_BUFFER_LIST chain) {
    std::vector<PNET_BUFFER_LIST> nbls;
    for (; chain != nullptr; chain = chain->Next) {
        nbls.push_back(chain);
    }
    return nbls;
}

/// How NBLs come back from both ends of `stack`.
inline void SetRelease(Stack& stack, ReleaseMode mode) {
    stack.adapter().queue().SetMode(mode);
    stack.protocol().queue().SetMode(mode);
}

/// Counts what crosses a stack while it lives. NBLs are made beforehand, by one context; they may
/// then be sent and indicated from any.
class Traffic {
  public:
    Traffic(Machine& machine, Stack& stack)
        : stack_(stack),
          sends_(machine, stack.protocol().pool()),
          receives_(machine, stack.adapter().pool()) {
        stack.adapter().onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            onWire += static_cast<int>(NblsOf(chain).size());
        };
        stack.adapter().onReturned = [this](PNET_BUFFER_LIST chain, ULONG flags) {
            returnFlags = flags;
            returned += static_cast<int>(NblsOf(chain).size());
        };
        stack.protocol().onReceive = [this](PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG count,
                                            ULONG) { received += static_cast<int>(count); };
        stack.protocol().onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG flags) {
            completeFlags = flags;
            for (; chain != nullptr; chain = chain->Next) {
                ++(chain->Status == NDIS_STATUS_PAUSED ? refused : completed);
            }
        };
    }

    PNET_BUFFER_LIST MakeSends(int nbls, const FrameLayout& layout = {}) {
        return MakeChain(sends_, nbls, layout);
    }
    PNET_BUFFER_LIST MakeReceives(int nbls, const FrameLayout& layout = {}) {
        return MakeChain(receives_, nbls, layout);
    }
    /// One of each, to see that the stack works: both must come back, through the driver or not.
    void ExpectPassing() {
        const std::array before{onWire.load(), completed.load(), received.load(), returned.load()};
        stack_.protocol().Send(MakeSends(1));
        EXPECT_TRUE(stack_.adapter().Indicate(MakeReceives(1)));
        EXPECT_THAT(std::array(before),
                    testing::ElementsAre(onWire - 1, completed - 1, received - 1, returned - 1));
    }

    std::atomic<int> onWire = 0;           ///< sent NBLs that the adapter got
    std::atomic<int> completed = 0;        ///< sent NBLs that came back
    std::atomic<int> refused = 0;          ///< those that came back with NDIS_STATUS_PAUSED
    std::atomic<int> received = 0;         ///< indicated NBLs that the protocol got
    std::atomic<int> returned = 0;         ///< indicated NBLs that the adapter got back
    std::atomic<ULONG> completeFlags = 0;  ///< of the latest completion
    std::atomic<ULONG> returnFlags = 0;    ///< of the latest return

  private:
    static PNET_BUFFER_LIST MakeChain(NblFactory& from, int nbls, const FrameLayout& layout) {
        std::array<std::uint8_t, 60> frame{};
        PNET_BUFFER_LIST chain = nullptr;
        for (; nbls > 0; --nbls) {
            frame[20] = static_cast<std::uint8_t>(nbls);
            PNET_BUFFER_LIST const nbl = from.Make(std::span<const std::uint8_t>(frame), layout);
            nbl->Next = chain;
            chain = nbl;
        }
        return chain;
    }

    Stack& stack_;
    NblFactory sends_;
    NblFactory receives_;
};

/// A test that holds under both schedulers.
class BothSchedulers : public testing::TestWithParam<SchedulerKind> {
  protected:
    MachineOptions Options() const { return {.scheduler = GetParam(), .processors = 4}; }
    bool Simulated() const { return GetParam() == SchedulerKind::kSimulated; }
};

}  // namespace netsieve::host
