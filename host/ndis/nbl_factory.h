// Makes NBLs with frames, for protocols to send and adapters to indicate.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "host/ndis/nbl_pools.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Machine;

/// How the bytes of a frame lie in memory. Every combination is legal on the platform.
struct FrameLayout {
    std::uint32_t mdlSizes[3] = {0, 0,
                                 0};  ///< sizes of the first MDLs; what is left goes in one more
    std::uint32_t headroom = 0;       ///< unused bytes before the frame in the first MDL
    std::uint32_t tailroom = 6;       ///< unused bytes behind the frame in its last MDL
    bool mapped = true;               ///< whether the MDLs carry a system address
};

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
    /// frames are copied. Null when the allocation is made to fail.
    PNET_BUFFER_LIST Make(std::span<const std::span<const std::uint8_t>> frames,
                          const FrameLayout& layout = {});
    PNET_BUFFER_LIST Make(std::span<const std::uint8_t> frame, const FrameLayout& layout = {});
    /// Frees an NBL that this object made and that is completed or returned.
    void Free(PNET_BUFFER_LIST nbl);
    /// Frees every NBL of a chain.
    void FreeChain(PNET_BUFFER_LIST chain);

    /// The frame that a NET_BUFFER describes.
    static std::vector<std::uint8_t> BytesOf(const NET_BUFFER& buffer);

  private:
    struct Frame;
    Frame* TakeFrame(std::size_t capacity);
    void Fill(Frame& frame, std::span<const std::uint8_t> bytes, const FrameLayout& layout);

    Machine& machine_;
    NblPool* pool_;
    std::uint64_t made_ = 0;
    std::vector<std::unique_ptr<Frame>> frames_;
    std::vector<Frame*> free_;
};

}  // namespace netsieve::host
