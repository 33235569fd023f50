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
    std::vector<std::uint8_t> bytes;
    MDL mdls[4];
    NET_BUFFER extra{};
    Frame* next = nullptr;  ///< the next frame of the same NBL
};

namespace {

// Index in ProtocolReserved of the frame of the first NET_BUFFER.
constexpr std::size_t kFrameSlot = 0;

// What stands around a frame in its MDLs: whoever takes it for a part of the frame is seen.
constexpr int kUnusedByte = 0xA5;

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

NblFactory::NblFactory(Machine& machine, NblPool* pool) : machine_(machine), pool_(pool) {}
NblFactory::~NblFactory() = default;

NblFactory::Frame* NblFactory::TakeFrame(std::size_t capacity) {
    if (free_.empty()) {
        frames_.push_back(std::make_unique<Frame>());
        free_.push_back(frames_.back().get());
    }
    Frame* const frame = free_.back();
    free_.pop_back();
    if (frame->bytes.size() < capacity) {
        frame->bytes.resize(capacity);
    }
    frame->next = nullptr;
    return frame;
}

void NblFactory::Fill(Frame& frame,
                      std::span<const std::uint8_t> bytes,
                      const FrameLayout& layout) {
    std::memset(frame.bytes.data(), kUnusedByte, layout.headroom);
    std::memset(frame.bytes.data() + layout.headroom + bytes.size(), kUnusedByte, layout.tailroom);
    if (!bytes.empty()) {
        std::memcpy(frame.bytes.data() + layout.headroom, bytes.data(), bytes.size());
    }
    std::size_t at = 0;
    const std::size_t end = layout.headroom + bytes.size();
    std::size_t count = 0;
    for (const std::uint32_t wanted : layout.mdlSizes) {
        const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(wanted, end - at));
        if (size > 0) {
            DescribeBuffer(frame.mdls[count++], frame.bytes.data() + at, size, layout.mapped);
            at += size;
        }
    }
    if (at < end || count == 0) {
        DescribeBuffer(frame.mdls[count++], frame.bytes.data() + at,
                       static_cast<std::uint32_t>(end - at), layout.mapped);
    }
    frame.mdls[count - 1].ByteCount += layout.tailroom;
    for (std::size_t i = 0; i + 1 < count; ++i) {
        frame.mdls[i].Next = &frame.mdls[i + 1];
    }
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::uint8_t> frame, const FrameLayout& layout) {
    return Make(std::span<const std::span<const std::uint8_t>>(&frame, 1), layout);
}

PNET_BUFFER_LIST NblFactory::Make(std::span<const std::span<const std::uint8_t>> frames,
                                  const FrameLayout& layout) {
    Frame* const first = TakeFrame(frames[0].size() + layout.headroom + layout.tailroom + 1);
    Fill(*first, frames[0], layout);
    PNET_BUFFER_LIST const nbl = machine_.ndis().nblPools().AllocateNbl(
        pool_, first->mdls, layout.headroom, frames[0].size());
    if (nbl == nullptr) {
        free_.push_back(first);
        return nullptr;
    }
    Frame* lastFrame = first;
    PNET_BUFFER last = nbl->FirstNetBuffer;
    for (const std::span<const std::uint8_t> bytes : frames.subspan(1)) {
        Frame* const frame = TakeFrame(bytes.size() + layout.headroom + layout.tailroom + 1);
        Fill(*frame, bytes, layout);
        std::memset(&frame->extra, 0, sizeof(frame->extra));
        PMDL mdl = frame->mdls;
        ULONG skip = layout.headroom;
        while (skip >= mdl->ByteCount && mdl->Next != nullptr) {
            skip -= mdl->ByteCount;
            mdl = mdl->Next;
        }
        frame->extra.CurrentMdl = mdl;
        frame->extra.CurrentMdlOffset = skip;
        frame->extra.stDataLength = bytes.size();
        frame->extra.MdlChain = frame->mdls;
        frame->extra.DataOffset = layout.headroom;
        last->Next = &frame->extra;
        last = &frame->extra;
        lastFrame->next = frame;
        lastFrame = frame;
    }
    FillOpaqueFields(*nbl, ++made_);
    nbl->SourceHandle = pool_->owner->handle;
    nbl->ProtocolReserved[kFrameSlot] = first;
    return nbl;
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
