// Makes NBLs with frames, for protocols to send and adapters to indicate.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/ndis/nbl_pools.h"
#include "host/sched/random.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Machine;

/// How the bytes of a frame lie in memory. Every combination is legal on the platform.
struct FrameLayout {
    /// Sizes of the first MDLs; what is left goes in one more. An MDL has no bytes when its size is
    /// 0 or nothing is left for it.
    std::vector<std::uint32_t> mdlSizes{};
    std::uint32_t headroom = 0;  ///< unused bytes before the frame, in as many MDLs as they fill
    std::uint32_t tailroom = 6;  ///< unused bytes at the end of the last MDL
    bool mapped = true;          ///< whether the MDLs carry a system address
};

/// A layout for a frame of `frameSize` bytes: in up to six MDLs that are split anywhere, any of
/// them without bytes, with room before and behind the frame, mapped or not.
FrameLayout RandomLayout(Random& random, std::size_t frameSize);

/// Makes NBLs from the pool of a protocol or an adapter and frees them. Memory is kept for the next
/// use, so that steady traffic allocates nothing. One context at a time.
class NblFactory {
  public:
    /// The NBLs belong to the owner of `pool`.
    NblFactory(Machine& machine, NblPool* pool);
    ~NblFactory();
    NblFactory(const NblFactory&) = delete;
    NblFactory& operator=(const NblFactory&) = delete;

    /// An NBL with one NET_BUFFER for each frame, in order. SourceHandle is the owner's; the flags,
    /// the reserved fields and out-of-band data that asks nothing of an adapter have values. The
    /// frames are copied, each into the layout of the same place in `layouts`, which are as many.
    /// Null when the allocation is made to fail.
    PNET_BUFFER_LIST Make(std::span<const std::span<const std::uint8_t>> frames,
                          std::span<const FrameLayout> layouts);
    /// One layout for all the frames.
    PNET_BUFFER_LIST Make(std::span<const std::span<const std::uint8_t>> frames,
                          const FrameLayout& layout);
    PNET_BUFFER_LIST Make(std::span<const std::uint8_t> frame, const FrameLayout& layout);
    /// Each frame in one MDL or, after DrawLayouts, in a random layout of its own.
    PNET_BUFFER_LIST Make(std::span<const std::span<const std::uint8_t>> frames);
    PNET_BUFFER_LIST Make(std::span<const std::uint8_t> frame);
    /// From now on frames without a given layout have one that `seed` decides.
    void DrawLayouts(std::uint64_t seed) { layouts_.emplace(seed); }
    /// Frees an NBL that this object made and that is completed or returned.
    void Free(PNET_BUFFER_LIST nbl);
    /// Frees every NBL of a chain.
    void FreeChain(PNET_BUFFER_LIST chain);

    /// The frame that a NET_BUFFER describes.
    static std::vector<std::uint8_t> BytesOf(const NET_BUFFER& buffer);

  private:
    struct Frame;
    Frame* TakeFrame();
    template <typename LayoutOf>
    PNET_BUFFER_LIST MakeWith(std::span<const std::span<const std::uint8_t>> frames,
                              LayoutOf layoutOf);

    Machine& machine_;
    NblPool* pool_;
    std::uint64_t made_ = 0;
    std::optional<Random> layouts_;
    std::vector<std::unique_ptr<Frame>> frames_;
    std::vector<Frame*> free_;
};

}  // namespace netsieve::host
