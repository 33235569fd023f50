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

/// Counts what crosses a stack while it lives, and compares each frame that arrives with how it was
/// made. NBLs are made beforehand, by one context; they may then be sent and indicated from any.
/// How many frames an NBL has, and how they lie in memory, follows from the machine's seed.
class Traffic {
  public:
    Traffic(Machine& machine, Stack& stack)
        : stack_(stack),
          random_(machine.options().seed),
          sends_(machine, stack.protocol().pool()),
          receives_(machine, stack.adapter().pool()) {
        sends_.DrawLayouts(random_.Next());
        receives_.DrawLayouts(random_.Next());
        stack.adapter().onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG) {
            onWire += static_cast<int>(NblsOf(chain).size());
            Compare(chain);
        };
        stack.adapter().onReturned = [this](PNET_BUFFER_LIST chain, ULONG flags) {
            returnFlags = flags;
            returned += static_cast<int>(NblsOf(chain).size());
        };
        stack.protocol().onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG count,
                                            ULONG) {
            received += static_cast<int>(count);
            Compare(chain);
        };
        stack.protocol().onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG flags) {
            completeFlags = flags;
            for (; chain != nullptr; chain = chain->Next) {
                ++(chain->Status == NDIS_STATUS_PAUSED ? refused : completed);
                cancelled += chain->Status == NDIS_STATUS_SEND_ABORTED ? 1 : 0;
            }
        };
    }

    PNET_BUFFER_LIST MakeSends(int nbls) { return MakeChain(sends_, nbls); }
    PNET_BUFFER_LIST MakeReceives(int nbls) { return MakeChain(receives_, nbls); }
    /// Sends a chain and asks for its first NBL to be cancelled.
    void SendAndCancel(PNET_BUFFER_LIST chain) {
        PVOID const id = NET_BUFFER_LIST_INFO(chain, NetBufferListCancelId);
        stack_.protocol().Send(chain);
        stack_.protocol().CancelSend(id);
    }
    static int FramesIn(PNET_BUFFER_LIST chain) {
        int frames = 0;
        for (; chain != nullptr; chain = chain->Next) {
            for (NET_BUFFER* at = chain->FirstNetBuffer; at != nullptr; at = at->Next) {
                ++frames;
            }
        }
        return frames;
    }
    /// A frame as MakeSends and MakeReceives make it: for everybody, with its number at byte 6.
    static std::vector<std::uint8_t> FrameNumbered(std::uint8_t number, std::size_t size) {
        std::vector<std::uint8_t> frame(size, 0xFF);
        for (std::size_t i = 6; i < size; ++i) {
            frame[i] = static_cast<std::uint8_t>(number + (i - 6) * 7);
        }
        return frame;
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
    std::atomic<int> cancelled = 0;        ///< those among them that were cancelled
    std::atomic<int> refused = 0;          ///< sent NBLs that came back with NDIS_STATUS_PAUSED
    std::atomic<int> received = 0;         ///< indicated NBLs that the protocol got
    std::atomic<int> returned = 0;         ///< indicated NBLs that the adapter got back
    std::atomic<int> changed = 0;          ///< frames that arrived otherwise than they were made
    std::atomic<ULONG> completeFlags = 0;  ///< of the latest completion
    std::atomic<ULONG> returnFlags = 0;    ///< of the latest return

  private:
    PNET_BUFFER_LIST MakeChain(NblFactory& from, int nbls) {
        PNET_BUFFER_LIST chain = nullptr;
        for (; nbls > 0; --nbls) {
            const auto number = static_cast<std::uint8_t>(random_.Below(0x80));
            const auto frame = FrameNumbered(number, 20 + random_.Below(60));
            const std::span<const std::uint8_t> frames[] = {frame, frame, frame};
            PNET_BUFFER_LIST const nbl =
                from.Make(std::span(frames).first(random_.OneIn(2) ? 1 : 2 + random_.Below(2)));
            nbl->Next = chain;
            chain = nbl;
        }
        return chain;
    }

    /// Frames of a busy filter may be among them.
    void Compare(PNET_BUFFER_LIST chain) {
        for (; chain != nullptr; chain = chain->Next) {
            for (NET_BUFFER* at = chain->FirstNetBuffer; at != nullptr; at = at->Next) {
                const auto frame = NblFactory::BytesOf(*at);
                const bool whole =
                    frame.size() >= 20 && (frame == FrameNumbered(frame[6], frame.size()) ||
                                           frame == std::vector<std::uint8_t>(64, 0xB5));
                changed += whole ? 0 : 1;
            }
        }
    }

    Stack& stack_;
    Random random_;
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
