// The capture's data of a frame, kept in its NET_BUFFER.
#pragma once

#include <cstdint>

#include "platform/ndis.h"
#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// Stored in the reserved fields of a NET_BUFFER that belong to the originator of its NBL, which no
/// other driver may write.
struct FrameTag {
    std::int64_t seconds;
    std::int64_t nanoseconds;
    std::uint32_t originalLength;
    std::uint64_t number;  ///< in the capture, from 1

    CaptureStamp Stamp() const { return {seconds, nanoseconds}; }
};
static_assert(sizeof(FrameTag) <= sizeof(NET_BUFFER::ProtocolReserved));
static_assert(sizeof(FrameTag) <= sizeof(NET_BUFFER::MiniportReserved));

enum class Originator { kProtocol, kAdapter };

/// The originator of the frames of a direction.
constexpr Originator OriginatorOf(Direction direction) {
    return direction == Direction::kSent ? Originator::kProtocol : Originator::kAdapter;
}

/// The tag in a NET_BUFFER of the originator's.
inline FrameTag& TagOf(NET_BUFFER& buffer, Originator originator) {
    return *reinterpret_cast<FrameTag*>(
        originator == Originator::kProtocol ? buffer.ProtocolReserved : buffer.MiniportReserved);
}

/// How often a frame arrived at the other end of the stack. Stored in the reserved fields of that
/// end, the only ones that it may write.
inline std::uint64_t& ArrivalsOf(NET_BUFFER& buffer, Originator originator) {
    return *reinterpret_cast<std::uint64_t*>(
        originator == Originator::kProtocol ? buffer.MiniportReserved : buffer.ProtocolReserved);
}

}  // namespace netsieve::tool
