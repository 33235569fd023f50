// Merges the frames of both directions into the capture's order.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// Frames of calls that were made for one direction after the other. They are written in the order
/// of their numbers, those of one direction in the order in which they arrived.
class FrameMerge {
  public:
    /// Frame `number` of the capture has arrived; `length` bytes of it follow.
    void Begin(Direction direction,
               std::uint64_t number,
               const CaptureStamp& stamp,
               std::uint32_t length,
               std::uint32_t originalLength);
    void Append(const std::uint8_t* bytes, std::size_t size) {
        bytes_.insert(bytes_.end(), bytes, bytes + size);
    }
    /// Writes all frames that arrived, and forgets them.
    void WriteTo(CaptureWriter& writer);

  private:
    struct Frame {
        std::uint64_t number;
        CaptureStamp stamp;
        std::uint32_t length;
        std::uint32_t originalLength;
        std::size_t at;  ///< in `bytes_`
    };

    std::vector<Frame> frames_[2];
    std::vector<std::uint8_t> bytes_;
};

}  // namespace netsieve::tool
