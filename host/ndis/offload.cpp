#include "host/ndis/offload.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "host/ndis/nbl_factory.h"

namespace netsieve::host {
namespace {

constexpr std::size_t kAddressesSize = 12;
constexpr std::size_t kTagSize = 4;
constexpr std::uint16_t kTagType = 0x8100;
constexpr std::uint16_t kServiceTagType = 0x88A8;
constexpr std::uint16_t kIpv4 = 0x0800;
constexpr std::uint16_t kIpv6 = 0x86DD;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::size_t kIpv4HeaderSize = 20;
constexpr std::size_t kIpv6HeaderSize = 40;
constexpr std::size_t kTcpHeaderSize = 20;
constexpr std::size_t kUdpHeaderSize = 8;
constexpr std::size_t kLargestPacket = 65535;  // from the IP header on

// Where the checksums are, in the IPv4, TCP and UDP headers.
constexpr std::size_t kIpv4ChecksumAt = 10;
constexpr std::size_t kTcpChecksumAt = 16;
constexpr std::size_t kUdpChecksumAt = 6;

constexpr std::size_t kTcpFlagsAt = 13;
constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kRst = 0x04;
constexpr std::uint8_t kPsh = 0x08;
constexpr std::uint8_t kUrg = 0x20;
constexpr std::uint8_t kCwr = 0x80;

std::uint16_t Get16(const FrameBytes& frame, std::size_t at) {
    return static_cast<std::uint16_t>(frame[at] << 8 | frame[at + 1]);
}

std::uint32_t Get32(const FrameBytes& frame, std::size_t at) {
    return static_cast<std::uint32_t>(Get16(frame, at)) << 16 | Get16(frame, at + 2);
}

void Put16(FrameBytes& frame, std::size_t at, std::size_t value) {
    frame[at] = static_cast<std::uint8_t>(value >> 8);
    frame[at + 1] = static_cast<std::uint8_t>(value);
}

void Put32(FrameBytes& frame, std::size_t at, std::uint32_t value) {
    Put16(frame, at, value >> 16);
    Put16(frame, at + 2, value & 0xFFFF);
}

/// The one's complement sum of 16-bit words (RFC 1071), folded.
std::uint16_t Sum(const FrameBytes& frame, std::size_t from, std::size_t to, std::uint64_t sum) {
    for (; from + 1 < to; from += 2) {
        sum += Get16(frame, from);
    }
    if (from < to) {
        sum += static_cast<std::uint64_t>(frame[from]) << 8;
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(sum);
}

/// A TCP or UDP packet over IP in one piece, behind any tags: offsets in the frame.
struct Packet {
    bool ipv6;
    std::size_t ip;
    std::uint8_t protocol;
    std::size_t transport;
    std::size_t end;  ///< the frame may be padded behind it

    std::size_t checksumAt() const {
        return transport + (protocol == kTcp ? kTcpChecksumAt : kUdpChecksumAt);
    }
    /// Of TCP.
    std::size_t payload(const FrameBytes& frame) const {
        return transport + std::size_t{4} * (frame[transport + 12] >> 4);
    }
};

std::optional<Packet> FindIpv4(const FrameBytes& frame, std::size_t ip) {
    if (frame.size() < ip + kIpv4HeaderSize || frame[ip] >> 4 != 4) {
        return std::nullopt;
    }
    // A length of 0 is what a large send of version 2 has.
    const std::size_t length = Get16(frame, ip + 2);
    const Packet packet{false, ip, frame[ip + 9], ip + std::size_t{4} * (frame[ip] & 0xF),
                        length == 0 ? frame.size() : ip + length};
    const bool fragment = (Get16(frame, ip + 6) & 0x3FFF) != 0;
    const bool whole = packet.transport >= ip + kIpv4HeaderSize && packet.end <= frame.size();
    return whole && !fragment ? std::optional(packet) : std::nullopt;
}

/// Without extension headers.
std::optional<Packet> FindIpv6(const FrameBytes& frame, std::size_t ip) {
    if (frame.size() < ip + kIpv6HeaderSize || frame[ip] >> 4 != 6) {
        return std::nullopt;
    }
    const std::size_t length = Get16(frame, ip + 4);
    const Packet packet{true, ip, frame[ip + 6], ip + kIpv6HeaderSize,
                        length == 0 ? frame.size() : ip + kIpv6HeaderSize + length};
    return packet.end <= frame.size() ? std::optional(packet) : std::nullopt;
}

std::optional<Packet> FindPacket(const FrameBytes& frame) {
    std::size_t at = kAddressesSize;
    while (at + kTagSize < frame.size() &&
           (Get16(frame, at) == kTagType || Get16(frame, at) == kServiceTagType)) {
        at += kTagSize;
    }
    if (at + 2 > frame.size()) {
        return std::nullopt;
    }
    const std::uint16_t type = Get16(frame, at);
    std::optional<Packet> packet;
    if (type == kIpv4) {
        packet = FindIpv4(frame, at + 2);
    } else if (type == kIpv6) {
        packet = FindIpv6(frame, at + 2);
    }
    if (!packet || (packet->protocol != kTcp && packet->protocol != kUdp)) {
        return std::nullopt;
    }
    const std::size_t header = packet->protocol == kTcp ? kTcpHeaderSize : kUdpHeaderSize;
    return packet->transport + header <= packet->end ? packet : std::nullopt;
}

/// The pseudo-header's sum; with a `length` of 0 as a large send has it.
std::uint16_t PseudoHeaderSum(const FrameBytes& frame, const Packet& packet, std::size_t length) {
    const std::size_t addresses = packet.ip + (packet.ipv6 ? 8 : 12);
    const std::size_t size = packet.ipv6 ? 32 : 8;
    return Sum(frame, addresses, addresses + size, std::uint64_t{packet.protocol} + length);
}

void FinishHeaderChecksum(FrameBytes& frame, const Packet& packet) {
    Put16(frame, packet.ip + kIpv4ChecksumAt, 0);
    const std::uint16_t sum = Sum(frame, packet.ip, packet.transport, 0);
    Put16(frame, packet.ip + kIpv4ChecksumAt, 0xFFFFU ^ sum);
}

/// The field holds the sum of the pseudo-header, which `more` completes.
void FinishTransportChecksum(FrameBytes& frame, const Packet& packet, std::size_t more = 0) {
    std::uint16_t sum = static_cast<std::uint16_t>(~Sum(frame, packet.transport, packet.end, more));
    if (sum == 0 && packet.protocol == kUdp) {
        sum = 0xFFFF;  // 0 says that there is none
    }
    Put16(frame, packet.checksumAt(), sum);
}

struct ChecksumTasks {
    bool header;
    bool transport;
};

PVOID RequestFor(const Packet& packet, ChecksumTasks tasks) {
    NDIS_TCP_IP_CHECKSUM_NET_BUFFER_LIST_INFO request{};
    request.Transmit.IsIPv4 = packet.ipv6 ? 0 : 1;
    request.Transmit.IsIPv6 = packet.ipv6 ? 1 : 0;
    request.Transmit.IpHeaderChecksum = tasks.header ? 1 : 0;
    if (packet.protocol == kTcp) {
        request.Transmit.TcpChecksum = tasks.transport ? 1 : 0;
        request.Transmit.TcpHeaderOffset = packet.transport & 0x3FF;
    } else {
        request.Transmit.UdpChecksum = tasks.transport ? 1 : 0;
    }
    return request.Value;
}

FrameBytes FinishChecksums(FrameBytes frame, PVOID value) {
    NDIS_TCP_IP_CHECKSUM_NET_BUFFER_LIST_INFO request{};
    request.Value = value;
    const std::optional<Packet> packet = FindPacket(frame);
    if (!packet || (packet->ipv6 ? request.Transmit.IsIPv6 : request.Transmit.IsIPv4) == 0) {
        return frame;
    }
    if (request.Transmit.IpHeaderChecksum != 0 && !packet->ipv6) {
        FinishHeaderChecksum(frame, *packet);
    }
    const bool asked = packet->protocol == kTcp
                           ? request.Transmit.TcpChecksum != 0 &&
                                 request.Transmit.TcpHeaderOffset == packet->transport
                           : request.Transmit.UdpChecksum != 0;
    if (asked) {
        FinishTransportChecksum(frame, *packet);
    }
    return frame;
}

FrameBytes WithoutChecksums(FrameBytes frame, const Packet& packet, ChecksumTasks tasks) {
    if (tasks.transport) {
        Put16(frame, packet.checksumAt(),
              PseudoHeaderSum(frame, packet, packet.end - packet.transport));
    }
    if (tasks.header) {
        Put16(frame, packet.ip + kIpv4ChecksumAt, 0);
    }
    return frame;
}

/// Takes out those checksums that an adapter would compute to the same again.
PVOID LeaveChecksums(FrameBytes& frame) {
    const std::optional<Packet> packet = FindPacket(frame);
    if (!packet) {
        return nullptr;
    }
    for (const auto& [header, transport] :
         {ChecksumTasks{true, true}, {false, true}, {true, false}}) {
        const ChecksumTasks tasks{header && !packet->ipv6, transport};
        FrameBytes stripped = WithoutChecksums(frame, *packet, tasks);
        PVOID const request = RequestFor(*packet, tasks);
        if (FinishChecksums(stripped, request) == frame) {
            frame = std::move(stripped);
            return request;
        }
    }
    return nullptr;
}

/// The outermost tag, or null; one without content looks like none there, and stays in the frame.
PVOID TakeTag(FrameBytes& frame) {
    if (frame.size() < kAddressesSize + kTagSize || Get16(frame, kAddressesSize) != kTagType) {
        return nullptr;
    }
    const std::uint16_t control = Get16(frame, kAddressesSize + 2);
    NDIS_NET_BUFFER_LIST_8021Q_INFO info{};
    info.TagHeader.UserPriority = control >> 13 & 0x7;
    info.TagHeader.CanonicalFormatId = control >> 12 & 1;
    info.TagHeader.VlanId = control & 0xFFF;
    if (info.Value != nullptr) {
        const auto at = frame.begin() + kAddressesSize;
        frame.erase(at, at + kTagSize);
    }
    return info.Value;
}

FrameBytes Tagged(FrameBytes frame, PVOID value) {
    if (value == nullptr || frame.size() < kAddressesSize) {
        return frame;
    }
    NDIS_NET_BUFFER_LIST_8021Q_INFO info{};
    info.Value = value;
    frame.insert(frame.begin() + kAddressesSize, kTagSize, 0);
    Put16(frame, kAddressesSize, kTagType);
    Put16(frame, kAddressesSize + 2,
          info.TagHeader.UserPriority << 13 | info.TagHeader.CanonicalFormatId << 12 |
              info.TagHeader.VlanId);
    return frame;
}

NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO LargeSend(PVOID value) {
    NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO info{};
    info.Value = value;
    return info;
}

bool IsVersion2(PVOID value) {
    return LargeSend(value).Transmit.Type == NDIS_TCP_LARGE_SEND_OFFLOAD_V2_TYPE;
}

/// The packet of a frame that can be segmented as `value` asks.
std::optional<Packet> FindLargePacket(const FrameBytes& frame, PVOID value) {
    std::optional<Packet> packet = FindPacket(frame);
    const auto info = LargeSend(value).LsoV2Transmit;
    if (!packet || packet->protocol != kTcp || packet->payload(frame) > packet->end ||
        info.TcpHeaderOffset != packet->transport || info.MSS == 0 ||
        (packet->ipv6 && !IsVersion2(value))) {
        return std::nullopt;
    }
    return packet;
}

/// The segment of `large` whose payload begins at `from`, as the adapter makes it from the headers.
FrameBytes Segment(const FrameBytes& large, const Packet& packet, std::size_t from, PVOID value) {
    const std::size_t payload = packet.payload(large);
    const std::size_t size =
        std::min<std::size_t>(LargeSend(value).LsoV2Transmit.MSS, packet.end - from);
    const auto begin = large.begin();
    FrameBytes segment(begin, begin + static_cast<std::ptrdiff_t>(payload));
    segment.insert(segment.end(), begin + static_cast<std::ptrdiff_t>(from),
                   begin + static_cast<std::ptrdiff_t>(from + size));
    Packet made = packet;
    made.end = segment.size();

    const std::size_t sequence = packet.transport + 4;
    Put32(segment, sequence, Get32(large, sequence) + static_cast<std::uint32_t>(from - payload));
    std::uint8_t& flags = segment[packet.transport + kTcpFlagsAt];
    if (from + size != packet.end) {
        flags &= static_cast<std::uint8_t>(~(kFin | kPsh));
    }
    if (from != payload) {
        flags &= static_cast<std::uint8_t>(~kCwr);
    }
    if (packet.ipv6) {
        Put16(segment, packet.ip + 4, made.end - packet.ip - kIpv6HeaderSize);
    } else {
        const std::size_t number = (from - payload) / LargeSend(value).LsoV2Transmit.MSS;
        const std::size_t identification = Get16(large, packet.ip + 4) + number;
        Put16(segment, packet.ip + 2, made.end - packet.ip);
        Put16(segment, packet.ip + 4, identification & (IsVersion2(value) ? 0x7FFF : 0xFFFF));
        FinishHeaderChecksum(segment, packet);
    }
    FinishTransportChecksum(segment, made, made.end - made.transport);
    return segment;
}

std::vector<FrameBytes> Segments(const FrameBytes& large, const Packet& packet, PVOID value) {
    std::vector<FrameBytes> segments;
    const std::size_t mss = LargeSend(value).LsoV2Transmit.MSS;
    for (std::size_t from = packet.payload(large); from < packet.end; from += mss) {
        segments.push_back(Segment(large, packet, from, value));
    }
    return segments;
}

/// The frame that a sender makes of all of `frames`, which have the headers of the first.
FrameBytes Join(std::span<const FrameBytes> frames, const Packet& packet, unsigned version) {
    FrameBytes large = frames.front();
    const std::size_t payload = packet.payload(large);
    for (const FrameBytes& frame : frames.subspan(1)) {
        large.insert(large.end(), frame.begin() + static_cast<std::ptrdiff_t>(payload),
                     frame.end());
    }
    large[packet.transport + kTcpFlagsAt] |= frames.back()[packet.transport + kTcpFlagsAt];
    if (packet.ipv6) {
        Put16(large, packet.ip + 4, 0);
    } else {
        Put16(large, packet.ip + 2, version == 1 ? large.size() - packet.ip : 0);
        Put16(large, packet.ip + kIpv4ChecksumAt, 0);
    }
    Put16(large, packet.checksumAt(), PseudoHeaderSum(large, packet, 0));
    return large;
}

/// Whether a frame can be the first of several that are sent as one: it then says their size.
bool BeginsLargeSend(const FrameBytes& frame, const std::optional<Packet>& packet) {
    return packet && packet->protocol == kTcp && packet->end == frame.size() &&
           packet->payload(frame) < packet->end && packet->transport < 1024 &&
           (frame[packet->transport + kTcpFlagsAt] & (kSyn | kRst | kUrg)) == 0;
}

PVOID LargeSendRequest(const Packet& packet, std::size_t mss, unsigned version) {
    NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO request{};
    request.LsoV2Transmit.MSS = mss & 0xFFFFF;
    request.LsoV2Transmit.TcpHeaderOffset = packet.transport & 0x3FF;
    if (version == 2) {
        request.LsoV2Transmit.Type = NDIS_TCP_LARGE_SEND_OFFLOAD_V2_TYPE;
        request.LsoV2Transmit.IPVersion = packet.ipv6 ? 1 : 0;
    }
    return request.Value;
}

/// A checksum that the adapter has looked at: right, wrong, or there is none.
bool HasTransportChecksum(const FrameBytes& frame, const Packet& packet) {
    return packet.protocol == kTcp || Get16(frame, packet.checksumAt()) != 0;
}

PVOID CheckReceived(const FrameBytes& frame) {
    const std::optional<Packet> packet = FindPacket(frame);
    if (!packet) {
        return nullptr;
    }
    NDIS_TCP_IP_CHECKSUM_NET_BUFFER_LIST_INFO info{};
    const auto right = [](std::uint16_t sum) { return sum == 0xFFFF; };
    if (!packet->ipv6) {
        const bool good = right(Sum(frame, packet->ip, packet->transport, 0));
        info.Receive.IpChecksumSucceeded = good ? 1 : 0;
        info.Receive.IpChecksumFailed = good ? 0 : 1;
    }
    if (HasTransportChecksum(frame, *packet)) {
        const std::size_t length = packet->end - packet->transport;
        const bool good = right(
            Sum(frame, packet->transport, packet->end, PseudoHeaderSum(frame, *packet, length)));
        const bool tcp = packet->protocol == kTcp;
        info.Receive.TcpChecksumSucceeded = tcp && good ? 1 : 0;
        info.Receive.TcpChecksumFailed = tcp && !good ? 1 : 0;
        info.Receive.UdpChecksumSucceeded = !tcp && good ? 1 : 0;
        info.Receive.UdpChecksumFailed = !tcp && !good ? 1 : 0;
    }
    return info.Value;
}

/// Bytes of TCP payload in the frames of an NBL.
std::size_t PayloadOf(const NET_BUFFER_LIST& nbl) {
    std::size_t bytes = 0;
    for (const NET_BUFFER* at = nbl.FirstNetBuffer; at != nullptr; at = at->Next) {
        const FrameBytes frame = NblFactory::BytesOf(*at);
        const auto packet = FindLargePacket(frame, OffloadInfoOf(nbl).largeSend);
        bytes += packet ? packet->end - packet->payload(frame) : 0;
    }
    return bytes;
}

}  // namespace

OffloadInfo OffloadInfoOf(const NET_BUFFER_LIST& nbl) {
    return {.checksum = NET_BUFFER_LIST_INFO(&nbl, TcpIpChecksumNetBufferListInfo),
            .largeSend = NET_BUFFER_LIST_INFO(&nbl, TcpLargeSendNetBufferListInfo),
            .tag = NET_BUFFER_LIST_INFO(&nbl, Ieee8021QNetBufferListInfo)};
}

void SetOffloadInfo(NET_BUFFER_LIST& nbl, const OffloadInfo& info) {
    NET_BUFFER_LIST_INFO(&nbl, TcpIpChecksumNetBufferListInfo) = info.checksum;
    NET_BUFFER_LIST_INFO(&nbl, TcpLargeSendNetBufferListInfo) = info.largeSend;
    NET_BUFFER_LIST_INFO(&nbl, Ieee8021QNetBufferListInfo) = info.tag;
}

OffloadInfo LeaveToAdapter(FrameBytes& frame) {
    OffloadInfo info;
    info.tag = TakeTag(frame);
    info.checksum = LeaveChecksums(frame);
    return info;
}

std::size_t LeaveSegmentation(std::span<const FrameBytes> frames,
                              unsigned version,
                              FrameBytes& large,
                              OffloadInfo& info) {
    const FrameBytes& first = frames.front();
    const std::optional<Packet> packet = FindPacket(first);
    if (!BeginsLargeSend(first, packet) || (packet->ipv6 && version == 1)) {
        return 0;
    }
    PVOID const request = LargeSendRequest(*packet, packet->end - packet->payload(first), version);
    std::size_t joined = 0;
    for (std::size_t count = 2; count <= frames.size(); ++count) {
        if (frames[count - 1].size() <= packet->payload(first)) {
            break;
        }
        FrameBytes candidate = Join(frames.first(count), *packet, version);
        if (candidate.size() > kLargestPacket ||
            !std::ranges::equal(WireFrames(candidate, {.largeSend = request}),
                                frames.first(count))) {
            break;
        }
        large = std::move(candidate);
        info = {.largeSend = request};
        joined = count;
    }
    return joined;
}

std::vector<FrameBytes> WireFrames(FrameBytes frame, const OffloadInfo& info) {
    std::vector<FrameBytes> frames;
    const auto packet =
        info.largeSend == nullptr ? std::nullopt : FindLargePacket(frame, info.largeSend);
    if (packet) {
        frames = Segments(frame, *packet, info.largeSend);
    } else {
        frames.push_back(FinishChecksums(std::move(frame), info.checksum));
    }
    for (FrameBytes& made : frames) {
        made = Tagged(std::move(made), info.tag);
    }
    return frames;
}

std::vector<FrameBytes> WireFramesOf(const NET_BUFFER_LIST& nbl) {
    std::vector<FrameBytes> frames;
    for (const NET_BUFFER* at = nbl.FirstNetBuffer; at != nullptr; at = at->Next) {
        for (FrameBytes& frame : WireFrames(NblFactory::BytesOf(*at), OffloadInfoOf(nbl))) {
            frames.push_back(std::move(frame));
        }
    }
    return frames;
}

OffloadInfo OffloadReceive(FrameBytes& frame) {
    OffloadInfo info;
    info.tag = TakeTag(frame);
    info.checksum = CheckReceived(frame);
    return info;
}

FrameBytes AsReceived(FrameBytes frame, const OffloadInfo& info) {
    return Tagged(std::move(frame), info.tag);
}

void AnswerLargeSends(PNET_BUFFER_LIST chain) {
    for (PNET_BUFFER_LIST nbl = chain; nbl != nullptr; nbl = nbl->Next) {
        PVOID const request = NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo);
        if (request == nullptr) {
            continue;
        }
        NDIS_TCP_LARGE_SEND_OFFLOAD_NET_BUFFER_LIST_INFO answer{};
        if (IsVersion2(request)) {
            answer.LsoV2TransmitComplete.Type = NDIS_TCP_LARGE_SEND_OFFLOAD_V2_TYPE;
        } else {
            answer.LsoV1TransmitComplete.TcpPayload = PayloadOf(*nbl) & 0x3FFFFFFF;
        }
        NET_BUFFER_LIST_INFO(nbl, TcpLargeSendNetBufferListInfo) = answer.Value;
    }
}

}  // namespace netsieve::host
