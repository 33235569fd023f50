// Puts the frames of two directions back into one order.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/offer_counts.h"

namespace netsieve::tool {

/// Frames that came out of calls made for one direction after the other. They are written by their
/// numbers, but those of one direction as they came out.
class FrameMerge {
  public:
    /// Frame `number` of the capture has come out; `length` bytes of it follow.
    void Begin(Direction way,
               std::uint64_t number,
               const CaptureStamp& stamp,
               std::uint32_t length,
               std::uint32_t originalLength);
    void Append(const std::uint8_t* bytes, std::size_t size) {
        bytes_.insert(bytes_.end(), bytes, bytes + size);
    }
    /// Writes all that came out, and forgets it.
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
