#include "host/ndis/nbl_factory.h"

#include <algorithm>
#include <cstring>

#include "host/kernel/mdls.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"

namespace netsieve::host {

/// One frame's memory: its bytes, its MDLs, and a NET_BUFFER for a frame that is not the NBL's
/// first.
struct NblFactory::Frame {
    std::vector<std::size_t> pieces;  ///< bytes of the frame and before it in each MDL
    std::vector<std::uint8_t> bytes;
    std::vector<MDL> mdls;
    NET_BUFFER extra{};
    Frame* next = nullptr;  ///< the next frame of the same NBL

    /// Lays the frame out anew.
    void Fill(std::span<const std::uint8_t> frame, const FrameLayout& layout);
    void DescribeExtra(std::size_t length, ULONG headroom);
};

namespace {

// Index in ProtocolReserved of the frame of the first NET_BUFFER.
constexpr std::size_t kFrameSlot = 0;

// What stands around a frame in its MDLs, and between them: whoever takes it for a part of the
// frame is seen.
constexpr std::uint8_t kUnusedByte = 0xA5;
constexpr std::size_t kGap = 8;

// What no adapter here acts on, so that any value will do. Whoever loses it is seen.
constexpr NDIS_NET_BUFFER_LIST_INFO kOpaqueInfo[] = {
    NetBufferListCancelId,      MediaSpecificInformation,   NetBufferListFrameType,
    NetBufferListHashValue,     NetBufferListHashInfo,      WfpNetBufferListInfo,
    NetBufferListCorrelationId, NetBufferListFilteringInfo,
};

PVOID Opaque(std::uint64_t number) {
    return reinterpret_cast<PVOID>(number);
}

// Gives every field that drivers have to leave alone a value that is not zero.
void FillOpaqueFields(NET_BUFFER_LIST& nbl, std::uint64_t number) {
    for (const NDIS_NET_BUFFER_LIST_INFO id : kOpaqueInfo) {
        NET_BUFFER_LIST_INFO(&nbl, id) = Opaque((number << 8) | static_cast<unsigned>(id) | 1);
    }
    for (PVOID& field : nbl.NdisReserved) {
        field = Opaque(number << 8 | 0xD1);
    }
    for (PVOID& field : nbl.ProtocolReserved) {
        field = Opaque(number << 8 | 0xD2);
    }
    for (PVOID& field : nbl.MiniportReserved) {
        field = Opaque(number << 8 | 0xD3);
    }
    nbl.NblFlags = static_cast<ULONG>(number << 4 | 1);
    nbl.Flags = static_cast<ULONG>(number << 4 | 2);
}

}  // namespace

FrameLayout RandomLayout(Random& random, std::size_t frameSize) {
    FrameLayout layout{
        .headroom = static_cast<std::uint32_t>(random.OneIn(2) ? 0 : random.Below(64)),
        .tailroom = static_cast<std::uint32_t>(random.Below(16)),
        .mapped = !random.OneIn(3)};
    const std::size_t bounds[] = {1, 1, 24, 24, layout.headroom + frameSize + 1};
    for (std::uint64_t more = random.Below(6); more > 0; --more) {
        layout.mdlSizes.push_back(
            static_cast<std::uint32_t>(random.Below(bounds[random.Below(std::size(bounds))])));
    }
    return layout;
}

NblFactory::NblFactory(Machine& machine, NblPool* pool) : machine_(machine), pool_(pool) {}
NblFactory::~NblFactory() = default;

NblFactory::Frame* NblFactory::TakeFrame() {
    if (free_.empty()) {
        frames_.push_back(std::make_unique<Frame>());
        free_.push_back(frames_.back().get());
    }
    Frame* const frame = free_.back();
    free_.pop_back();
    frame->next = nullptr;
    return frame;
}

void NblFactory::Frame::Fill(std::span<const std::uint8_t> frame, const FrameLayout& layout) {
    const std::size_t end = layout.headroom + frame.size();
    pieces.clear();
    std::size_t at = 0;
    for (const std::uint32_t wanted : layout.mdlSizes) {
        pieces.push_back(std::min<std::size_t>(wanted, end - at));
        at += pieces.back();
    }
    if (at < end || pieces.empty()) {
        pieces.push_back(end - at);
    }
    mdls.resize(pieces.size());
    bytes.assign(end + layout.tailroom + pieces.size() * kGap, kUnusedByte);
    std::uint8_t* place = bytes.data();
    at = 0;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const bool last = i + 1 == pieces.size();
        const std::size_t room = pieces[i] + (last ? layout.tailroom : 0);
        DescribeBuffer(mdls[i], place, static_cast<std::uint32_t>(room), layout.mapped);
        mdls[i].Next = last ? nullptr : &mdls[i + 1];
        const std::size_t from = std::max<std::size_t>(at, layout.headroom);
        at += pieces[i];
        if (from < at) {
            std::memcpy(place + pieces[i] - (at - from), frame.data() + from - layout.headroom,
                        at - from);
        }
        place += room + kGap;
    }
}

// The current MDL is the first with bytes of the frame; of the NBL's first frame NDIS chooses it.
void NblFactory::Frame::DescribeExtra(std::size_t length, ULONG headroom) {
    std::memset(&extra, 0, sizeof(extra));
    PMDL mdl = mdls.data();
    ULONG skip = headroom;
    while (skip >= mdl->ByteCount && mdl->Next != nullptr) {
        skip -= mdl->ByteCount;
        mdl = mdl->Next;
    }
    extra.CurrentMdl = mdl;
    extra.CurrentMdlOffset = skip;
    extra.stDataLength = length;
    extra.MdlChain = mdls.data();
    extra.DataOffset = headroom;
}

template <typename LayoutOf>
PNET_BUFFER_LIST NblFactory::MakeWith(std::span<const std::span<const std::uint8_t>> frames,
                                      LayoutOf layoutOf) {
    PNET_BUFFER_LIST nbl = nullptr;
    PNET_BUFFER* link = nullptr;
    Frame** nextFrame = nullptr;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const FrameLayout& layout = layoutOf(i);
        Frame* const frame = TakeFrame();
        frame->Fill(frames[i], layout);
        if (i == 0) {
            nbl = machine_.ndis().nblPools().AllocateNbl(pool_, frame->mdls.data(), layout.headroom,
                                                         frames[0].size());
            if (nbl == nullptr) {
                free_.push_back(frame);
                return nullptr;
            }
            FillOpaqueFields(*nbl, ++made_);
            nbl->SourceHandle = pool_->owner->handle;
            nbl->ProtocolReserved[kFrameSlot] = frame;
            link = &nbl->FirstNetBuffer->Next;
        } else {
            frame->DescribeExtra(frames[i].size(), layout.headroom);
            *link = &frame->extra;
            link = &frame->extra.Next;
            *nextFrame = frame;
        }
        nextFrame = &frame->next;
    }
    return nbl;
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::span<const std::uint8_t>> frames,
                                  std::span<const FrameLayout> layouts) {
    return MakeWith(frames, [&](std::size_t i) -> const FrameLayout& { return layouts[i]; });
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::span<const std::uint8_t>> frames,
                                  const FrameLayout& layout) {
    return MakeWith(frames, [&](std::size_t) -> const FrameLayout& { return layout; });
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::uint8_t> frame, const FrameLayout& layout) {
    return Make(std::span<const std::span<const std::uint8_t>>(&frame, 1), layout);
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::span<const std::uint8_t>> frames) {
    if (!layouts_) {
        return Make(frames, FrameLayout());
    }
    return MakeWith(frames,
                    [&](std::size_t i) { return RandomLayout(*layouts_, frames[i].size()); });
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::uint8_t> frame) {
    return Make(std::span<const std::span<const std::uint8_t>>(&frame, 1));
}

void NblFactory::Free(PNET_BUFFER_LIST nbl) {
    for (auto* frame = static_cast<Frame*>(nbl->ProtocolReserved[kFrameSlot]); frame != nullptr;) {
        Frame* const next = frame->next;
        free_.push_back(frame);
        frame = next;
    }
    machine_.ndis().nblPools().FreeNbl(nbl);
}

void NblFactory::FreeChain(PNET_BUFFER_LIST chain) {
    while (chain != nullptr) {
        PNET_BUFFER_LIST const next = chain->Next;
        Free(chain);
        chain = next;
    }
}

std::vector<std::uint8_t> NblFactory::BytesOf(const NET_BUFFER& buffer) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(buffer.DataLength);
    std::size_t skip = buffer.CurrentMdlOffset;
    for (PMDL mdl = buffer.CurrentMdl; mdl != nullptr && bytes.size() < buffer.DataLength;
         mdl = mdl->Next) {
        const auto* start = static_cast<const std::uint8_t*>(DescribedBuffer(*mdl));
        const std::size_t size =
            std::min<std::size_t>(mdl->ByteCount - skip, buffer.DataLength - bytes.size());
        bytes.insert(bytes.end(), start + skip, start + skip + size);
        skip = 0;
    }
    return bytes;
}

}  // namespace netsieve::host
