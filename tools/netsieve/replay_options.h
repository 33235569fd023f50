// What the user asked `netsieve replay` to do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/netsieve/hook_option.h"
#include "tools/netsieve/mac_address.h"

namespace netsieve::tool {

enum class DirectionChoice { kAuto, kSend, kReceive };

struct ReplayOptions {
    std::string capture;            ///< "-" is standard input
    std::string output;             ///< "-" is standard output; empty: frames are not written
    std::string driver = "native";  ///< or the path of a driver image
    std::optional<MacAddress> mac;  ///< nothing: found by a vote of the frames
    DirectionChoice direction = DirectionChoice::kAuto;
    std::vector<HookOption> hooks;
    std::string inject;                    ///< a second capture, to be injected; empty: none
    std::optional<std::uint64_t> pauseAt;  ///< pause the adapter after so many frames
    std::uint32_t framesPerNbl = 1;
    std::optional<std::uint32_t> nblsPerCall;  ///< nothing: as many as suit the machine
    bool resourcesFlag = false;  ///< NBLs are indicated with NDIS_RECEIVE_FLAGS_RESOURCES
    bool offload = false;  ///< checksums and tags are left to the adapter, or taken over by it
    std::optional<std::uint64_t> seed;  ///< nothing: 1, and the replay is not varied
    bool faults = false;                ///< allocations are made to fail
    bool verify = true;
    bool json = false;
};

}  // namespace netsieve::tool
