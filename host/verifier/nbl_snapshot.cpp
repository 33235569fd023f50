#include "host/verifier/nbl_snapshot.h"

#include <algorithm>
#include <cstring>

#include "host/kernel/mdls.h"
#include "host/memory_poison.h"

namespace netsieve::host {

namespace {

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

std::uint64_t HashBytes(std::uint64_t hash, const unsigned char* bytes, std::size_t size) {
    for (; size >= sizeof(std::uint64_t); size -= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        __builtin_memcpy(&word, bytes, sizeof(word));
        hash = Mix(hash, word);
        bytes += sizeof(word);
    }
    for (; size > 0; --size) {
        hash = Mix(hash, *bytes++);
    }
    return hash;
}

const unsigned char* BytesOf(const MDL& mdl) {
    return static_cast<const unsigned char*>(DescribedBuffer(mdl));
}

std::uint64_t HashBuffer(std::uint64_t hash, const NET_BUFFER& buffer) {
    std::size_t left = buffer.DataLength;
    std::size_t skip = buffer.CurrentMdlOffset;
    for (PMDL mdl = buffer.CurrentMdl; mdl != nullptr && left > 0; mdl = mdl->Next) {
        const std::size_t size = std::min<std::size_t>(mdl->ByteCount - skip, left);
        hash = HashBytes(hash, BytesOf(*mdl) + skip, size);
        left -= size;
        skip = 0;
    }
    return Mix(hash, left);
}

std::uint64_t HashData(const NET_BUFFER_LIST& nbl) {
    std::uint64_t hash = 0;
    for (PNET_BUFFER buffer = nbl.FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        hash = HashBuffer(hash, *buffer);
    }
    return hash;
}

enum class Liberty : std::uint8_t { kNobody, kProtocol, kMiniport, kCompleter };

bool Covers(const NblLiberty& liberty, Liberty of) {
    return (of == Liberty::kProtocol && liberty.protocolReserved) ||
           (of == Liberty::kMiniport && liberty.miniportReserved) ||
           (of == Liberty::kCompleter && liberty.completed);
}

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
    Rule rule;
    Liberty liberty = Liberty::kNobody;
};

/// The size of a field, of a pointer too, where sizeof itself is taken for a slip.
template <typename Member>
struct Alone {
    Member member;
};
template <typename Member, typename Owner>
constexpr std::size_t SizeOf(Member Owner::*) {
    return sizeof(Alone<Member>);
}

#define FIELD(type, name) #name, offsetof(type, name), SizeOf(&type::name)

constexpr Field kHeaderFields[] = {
    {FIELD(NET_BUFFER_LIST, ParentNetBufferList), Rule::kNblFlags},
    {FIELD(NET_BUFFER_LIST, NdisPoolHandle), Rule::kNblReserved},
    {FIELD(NET_BUFFER_LIST, NdisReserved), Rule::kNblReserved},
    {FIELD(NET_BUFFER_LIST, ProtocolReserved), Rule::kNblReserved, Liberty::kProtocol},
    {FIELD(NET_BUFFER_LIST, MiniportReserved), Rule::kNblReserved, Liberty::kMiniport},
    {FIELD(NET_BUFFER_LIST, NblFlags), Rule::kNblFlags},
    {FIELD(NET_BUFFER_LIST, ChildRefCount), Rule::kNblFlags},
    {FIELD(NET_BUFFER_LIST, Flags), Rule::kNblFlags},
    {FIELD(NET_BUFFER_LIST, Status), Rule::kNblStatus, Liberty::kCompleter},
};

constexpr Field kBufferFields[] = {
    {FIELD(NET_BUFFER, CurrentMdl), Rule::kNblDataLocation},
    {FIELD(NET_BUFFER, CurrentMdlOffset), Rule::kNblDataLocation},
    {FIELD(NET_BUFFER, DataLength), Rule::kNblDataLocation},
    {FIELD(NET_BUFFER, MdlChain), Rule::kNblDataLocation},
    {FIELD(NET_BUFFER, DataOffset), Rule::kNblDataLocation},
    {FIELD(NET_BUFFER, ChecksumBias), Rule::kNblDataLocation},
};

constexpr Field kReservedBufferFields[] = {
    {FIELD(NET_BUFFER, NdisPoolHandle), Rule::kNblReserved},
    {FIELD(NET_BUFFER, NdisReserved), Rule::kNblReserved},
    {FIELD(NET_BUFFER, ProtocolReserved), Rule::kNblReserved, Liberty::kProtocol},
    {FIELD(NET_BUFFER, MiniportReserved), Rule::kNblReserved, Liberty::kMiniport},
    {FIELD(NET_BUFFER, DataPhysicalAddress), Rule::kNblReserved, Liberty::kMiniport},
};

// Not MdlFlags and MappedSystemVa: whoever holds the NBL may map its MDLs.
constexpr Field kMdlFields[] = {
    {FIELD(MDL, Next), Rule::kNblDataLocation},
    {FIELD(MDL, Size), Rule::kNblDataLocation},
    {FIELD(MDL, Process), Rule::kNblDataLocation},
    {FIELD(MDL, StartVa), Rule::kNblDataLocation},
    {FIELD(MDL, ByteCount), Rule::kNblDataLocation},
    {FIELD(MDL, ByteOffset), Rule::kNblDataLocation},
};

#undef FIELD

template <std::size_t kCount>
std::optional<NblDifference> FindField(const Field (&fields)[kCount],
                                       const void* before,
                                       const void* now,
                                       const NblLiberty& liberty) {
    for (const Field& field : fields) {
        if (std::memcmp(static_cast<const char*>(before) + field.offset,
                        static_cast<const char*>(now) + field.offset, field.size) != 0 &&
            !Covers(liberty, field.liberty)) {
            return NblDifference{field.rule, field.name};
        }
    }
    return std::nullopt;
}

PVOID InfoAt(const void* header, std::size_t index) {
    PVOID value = nullptr;
    std::memcpy(&value,
                static_cast<const char*>(header) + offsetof(NET_BUFFER_LIST, NetBufferListInfo) +
                    index * sizeof(PVOID),
                sizeof(value));
    return value;
}

// The completer of a large send keeps Type, and leaves nothing of the request of version 2.
bool AnswersLargeSend(PVOID request, PVOID answer) {
    NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO before{}, now{};
    before.Value = request;
    now.Value = answer;
    return request != nullptr && now.Transmit.Type == before.Transmit.Type &&
           (now.Transmit.Type == NDIS_TCP_LARGE_SEND_OFFLOAD_V1_TYPE ||
            now.LsoV2TransmitComplete.Reserved == 0);
}

}  // namespace

void NblHeader::Take(const NET_BUFFER_LIST& nbl) {
    const auto* from = reinterpret_cast<const std::uint8_t*>(&nbl);
    std::memcpy(bytes_ + kFirst, from + kFirst, kFirstEnd - kFirst);
    std::memcpy(bytes_ + kSecond, from + kSecond, kSecondEnd - kSecond);
    buffers_.clear();
    for (PNET_BUFFER buffer = nbl.FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        buffers_.push_back({buffer, *buffer});
    }
}

std::optional<NblDifference> NblHeader::FindDifference(const NET_BUFFER_LIST& nbl,
                                                       const NblLiberty& liberty) const {
    // A NET_BUFFER that was taken out of the chain is the NBL's all the same.
    for (const TakenCopy<NET_BUFFER>& buffer : buffers_) {
        if (const auto difference =
                FindField(kReservedBufferFields, &buffer.value, buffer.original, liberty)) {
            return difference;
        }
    }
    const auto* now = reinterpret_cast<const std::uint8_t*>(&nbl);
    if (std::memcmp(bytes_ + kFirst, now + kFirst, kFirstEnd - kFirst) == 0 &&
        std::memcmp(bytes_ + kSecond, now + kSecond, kSecondEnd - kSecond) == 0) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < kNblInfoCount; ++i) {
        PVOID const was = InfoAt(bytes_, i), is = InfoAt(now, i);
        const bool mayAnswer = liberty.completed && i == TcpLargeSendNetBufferListInfo;
        if (was != is && !(mayAnswer && AnswersLargeSend(was, is))) {
            return NblDifference{Rule::kNblOutOfBand, "NetBufferListInfo"};
        }
    }
    return FindField(kHeaderFields, bytes_, now, liberty);
}

void NblSnapshot::Take(NET_BUFFER_LIST& nbl) {
    header_.Take(nbl);
    original_ = &nbl;
    next_ = nbl.Next;
    scratch_ = nbl.Scratch;
    mdls_.clear();
    for (PNET_BUFFER buffer = nbl.FirstNetBuffer; buffer != nullptr; buffer = buffer->Next) {
        for (PMDL mdl = buffer->MdlChain; mdl != nullptr; mdl = mdl->Next) {
            mdls_.push_back({mdl, *mdl});
        }
    }
    data_ = HashData(nbl);
}

std::optional<NblDifference> NblSnapshot::FindBufferDifference(const NET_BUFFER_LIST& nbl) const {
    PNET_BUFFER now = nbl.FirstNetBuffer;
    for (const TakenCopy<NET_BUFFER>& buffer : header_.buffers()) {
        if (now != buffer.original) {
            return NblDifference{Rule::kNblNetBuffers, "the chain of NET_BUFFERs"};
        }
        if (const auto difference = FindField(kBufferFields, &buffer.value, now, {})) {
            return difference;
        }
        now = now->Next;
    }
    if (now != nullptr) {
        return NblDifference{Rule::kNblNetBuffers, "the chain of NET_BUFFERs"};
    }
    for (const TakenCopy<MDL>& mdl : mdls_) {
        if (const auto difference = FindField(kMdlFields, &mdl.value, mdl.original, {})) {
            return difference;
        }
    }
    return HashData(nbl) == data_ ? std::nullopt
                                  : std::optional(NblDifference{Rule::kNblData, "bytes"});
}

std::optional<NblDifference> NblSnapshot::FindDifference(const NET_BUFFER_LIST& nbl,
                                                         const NblLiberty& liberty) const {
    const auto difference = header_.FindDifference(nbl, liberty);
    return difference ? difference : FindBufferDifference(nbl);
}

std::optional<NblDifference> NblSnapshot::FindTouched(const NET_BUFFER_LIST& nbl) const {
    if (nbl.Next != next_) {
        return NblDifference{Rule::kNblWritten, "Next"};
    }
    if (nbl.Scratch != scratch_) {
        return NblDifference{Rule::kNblWritten, "Scratch"};
    }
    return FindDifference(nbl, {});
}

// The sizes are those of the copies: what is hidden cannot be asked.
template <typename Visit>
void NblSnapshot::ForEachPart(Visit visit) const {
    visit(original_, offsetof(NET_BUFFER_LIST, NetBufferListInfo) + kNblInfoCount * sizeof(PVOID));
    for (const TakenCopy<NET_BUFFER>& buffer : header_.buffers()) {
        visit(buffer.original, sizeof(NET_BUFFER));
    }
    for (const TakenCopy<MDL>& mdl : mdls_) {
        visit(mdl.original, sizeof(MDL));
        visit(BytesOf(mdl.value), mdl.value.ByteCount);
    }
}

void NblSnapshot::Hide() const {
    ForEachPart([](const void* part, std::size_t size) { PoisonMemory(part, size); });
}

void NblSnapshot::Reveal() const {
    ForEachPart([](const void* part, std::size_t size) { UnpoisonMemory(part, size); });
}

}  // namespace netsieve::host
