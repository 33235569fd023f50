#include "tools/netsieve/frame_merge.h"

namespace netsieve::tool {

void FrameMerge::Begin(Direction direction,
                       std::uint64_t number,
                       const CaptureStamp& stamp,
                       std::uint32_t length,
                       std::uint32_t originalLength) {
    frames_[static_cast<std::size_t>(direction)].push_back(
        {number, stamp, length, originalLength, bytes_.size()});
}

void FrameMerge::WriteTo(CaptureWriter& writer) {
    auto& [first, second] = frames_;
    auto left = first.begin();
    auto right = second.begin();
    while (left != first.end() || right != second.end()) {
        const bool takesLeft =
            right == second.end() || (left != first.end() && left->number < right->number);
        const Frame& frame = takesLeft ? *left++ : *right++;
        writer.Begin(frame.stamp, frame.length, frame.originalLength);
        writer.Append(bytes_.data() + frame.at, frame.length);
    }
    first.clear();
    second.clear();
    bytes_.clear();
}

}  // namespace netsieve::tool
