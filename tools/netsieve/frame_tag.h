// What a frame carries from the capture to the output.
#pragma once

#include <cstdint>

#include "platform/ndis.h"
#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// Travels in those reserved fields of a NET_BUFFER that belong to the originator of its NBL:
/// nobody on the way may touch them.
struct FrameTag {
    std::int64_t seconds;
    std::uint32_t nanoseconds;
    std::uint32_t originalLength;
    std::uint64_t number;      ///< in the capture, from 1
    std::uint64_t deliveries;  ///< how often it came out at the other end

    CaptureStamp Stamp() const { return {seconds, nanoseconds}; }
};
static_assert(sizeof(FrameTag) <= sizeof(NET_BUFFER::ProtocolReserved));
static_assert(sizeof(FrameTag) <= sizeof(NET_BUFFER::MiniportReserved));

enum class Originator { kProtocol, kAdapter };

/// Whose frames go this way.
constexpr Originator OriginatorOf(Direction way) {
    return way == Direction::kSent ? Originator::kProtocol : Originator::kAdapter;
}

/// The tag's place in a buffer of the originator's.
inline FrameTag& TagOf(NET_BUFFER& buffer, Originator originator) {
    return *reinterpret_cast<FrameTag*>(
        originator == Originator::kProtocol ? buffer.ProtocolReserved : buffer.MiniportReserved);
}

}  // namespace netsieve::tool
