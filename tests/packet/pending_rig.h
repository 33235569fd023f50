// Frames on one stack with the driver, and what there is to see of its records.
#pragma once

#include <fmt/format.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet/nirp_pool.h"
#include "platform/list.h"
#include "tests/driver/driver_scenario.h"
#include "tests/hook/hook_rig.h"

namespace netsieve::host {

inline std::string TracesOf(const FILTER_MODULE* module) {
    std::string traces;
    const char* at = reinterpret_cast<const char*>(module->TraceBuffer);
    for (ULONG line = 0; line < module->TraceSequence; ++line) {
        traces += at;
        at += std::strlen(at) + 1;
    }
    return traces;
}

inline ULONG LengthOf(const LIST_ENTRY& head) {
    ULONG entries = 0;
    for (PLIST_ENTRY at = head.Flink; at != &head; at = at->Flink) {
        ++entries;
    }
    return entries;
}

inline ULONG FreeRecordsOf(const FILTER_MODULE* module) {
    return LengthOf(module->SmallNirpList) + LengthOf(module->LargeNirpList);
}

using Frame = std::vector<std::uint8_t>;

inline Frame MakeFrame(std::uint8_t mark, std::size_t size = 60) {
    Frame frame(size, mark);
    std::fill_n(frame.begin(), std::min<std::size_t>(6, size), std::uint8_t{0xFF});
    return frame;
}

/// A frame with the source address of the adapter whose address ends so.
inline Frame FromAdapter(std::uint8_t lastByte, std::size_t size = 60) {
    Frame frame(size, 0xEE);
    const std::uint8_t source[] = {2, 0, 0, 0, 0, lastByte};
    std::copy(std::begin(source), std::end(source), frame.begin() + 6);
    return frame;
}

inline void Inject(const Frame& frame) {
    EXPECT_EQ(ITarnHKSendPacket(nullptr, frame.data(), static_cast<ULONG>(frame.size())),
              STATUS_SUCCESS);
}

/// One stack with the driver, whose ends note every frame that reaches them.
class Scene {
  public:
    enum class Load { kMustSucceed, kMayFail };

    explicit Scene(Machine& machine, Load load = Load::kMustSucceed)
        : Scene(machine, LoadedStack(machine, load)) {}

    /// On a stack whose driver is loaded.
    Scene(Machine& machine, Stack& loaded)
        : machine_(machine),
          stack(loaded),
          sends(machine, stack.protocol().pool()),
          receives(machine, stack.adapter().pool()) {
        module = DriverModuleOf(machine, stack);
        records = module == nullptr ? 0 : FreeRecordsOf(module);
        stack.adapter().onSend = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG) {
            Note(wire, chain);
            wirePort = port;
        };
        stack.protocol().onReceive = [this](PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER, ULONG,
                                            ULONG) { Note(up, chain); };
        stack.protocol().onSendComplete = [this](PNET_BUFFER_LIST chain, ULONG) {
            Note(completed, chain);
        };
        stack.adapter().onReturned = [this](PNET_BUFFER_LIST chain, ULONG) {
            Note(returned, chain);
        };
    }

    /// Down or up, on port 7.
    void Pass(bool send, PNET_BUFFER_LIST chain) {
        if (send) {
            stack.protocol().Send(chain, 7);
        } else {
            EXPECT_TRUE(stack.adapter().Indicate(chain, 7));
        }
    }
    /// The same, in one NBL.
    void Pass(bool send,
              const std::vector<Frame>& frames,
              const FrameLayout& layout = FrameLayout()) {
        std::vector<std::span<const std::uint8_t>> spans(frames.begin(), frames.end());
        Pass(send, (send ? sends : receives).Make(spans, layout));
    }

    /// Every record is in the pool, and counted.
    void ExpectPoolWhole() const {
        EXPECT_EQ(FreeRecordsOf(module), records);
        EXPECT_EQ(module->FreeNirpCount, records);
    }

    Machine& machine_;
    Stack& stack;
    NblFactory sends;
    NblFactory receives;
    FILTER_MODULE* module = nullptr;
    ULONG records = 0;
    std::vector<Frame> wire, up, completed, returned;
    NDIS_PORT_NUMBER wirePort = 0;

  private:
    static Stack& LoadedStack(Machine& machine, Load load) {
        Stack& stack = machine.ndis().AddAdapter();
        EXPECT_TRUE(machine.LoadDriver(DriverUnderTest()) == STATUS_SUCCESS ||
                    load == Load::kMayFail);
        return stack;
    }

    static void Note(std::vector<Frame>& frames, PNET_BUFFER_LIST chain) {
        for (; chain != nullptr; chain = chain->Next) {
            for (NET_BUFFER* at = chain->FirstNetBuffer; at != nullptr; at = at->Next) {
                frames.push_back(NblFactory::BytesOf(*at));
            }
        }
    }
};

/// Runs `body` on a scene, whose driver is unloaded afterwards.
inline void OnScene(const std::function<void(Scene&)>& body, MachineOptions options = {}) {
    RunClean(options, [&](Machine& machine) {
        {
            Scene scene(machine);
            body(scene);
            scene.ExpectPoolWhole();
        }
        machine.UnloadDriver("NETSIEVE");
    });
}

}  // namespace netsieve::host
