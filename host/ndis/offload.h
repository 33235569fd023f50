// What a protocol leaves to its adapter, and an adapter does for its protocol, by the out-of-band
// data of an NBL: checksums, the 802.1Q tag, the segmentation of large TCP sends. Layouts and
// duties as published (ndis/nblchecksum.h, ndis/nbl8021q.h, ndis/nbllso.h, "Offloading Checksum
// Tasks", "Offload the segmentation of large TCP packets").
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/ndis.h"

namespace netsieve::host {

// As published, in the order of the bits.
union NDIS_TCP_IP_CHECKSUM_NET_BUFFER_LIST_INFO {
    struct {
        ULONG IsIPv4 : 1;
        ULONG IsIPv6 : 1;
        ULONG TcpChecksum : 1;
        ULONG UdpChecksum : 1;
        ULONG IpHeaderChecksum : 1;
        ULONG Reserved : 11;
        ULONG TcpHeaderOffset : 10;
    } Transmit;
    struct {
        ULONG TcpChecksumFailed : 1;
        ULONG UdpChecksumFailed : 1;
        ULONG IpChecksumFailed : 1;
        ULONG TcpChecksumSucceeded : 1;
        ULONG UdpChecksumSucceeded : 1;
        ULONG IpChecksumSucceeded : 1;
        ULONG Loopback : 1;
        ULONG TcpChecksumValueInvalid : 1;
        ULONG IpChecksumValueInvalid : 1;
    } Receive;
    PVOID Value;
};

union NDIS_NET_BUFFER_LIST_8021Q_INFO {
    struct {
        ULONG UserPriority : 3;
        ULONG CanonicalFormatId : 1;
        ULONG VlanId : 12;
        ULONG Reserved : 16;
    } TagHeader;
    PVOID Value;
};

/// A frame from its Ethernet header on, without the checksum that ends it on the wire.
using FrameBytes = std::vector<std::uint8_t>;

/// The out-of-band data of an NBL that an offload uses; it holds for each of its frames.
struct OffloadInfo {
    PVOID checksum = nullptr;
    PVOID largeSend = nullptr;
    PVOID tag = nullptr;

    friend bool operator==(const OffloadInfo&, const OffloadInfo&) = default;
};

OffloadInfo OffloadInfoOf(const NET_BUFFER_LIST& nbl);
void SetOffloadInfo(NET_BUFFER_LIST& nbl, const OffloadInfo& info);

/// A sender leaves the frame's tag and its checksums to the adapter: takes them out of the frame,
/// as far as they are there and right, and returns what asks for them. The header checksum becomes
/// 0, the other one the sum of the pseudo-header. WireFrames restores the frame.
OffloadInfo LeaveToAdapter(FrameBytes& frame);

/// A sender leaves the segmentation of TCP frames of one connection to the adapter. Makes `large`
/// of as many frames from the front of `frames` as an adapter would make of it again, byte for
/// byte, and `info` what asks for that; returns how many, or 0 when that is less than two.
/// `version` is 1 or 2; version 1 knows no IPv6.
std::size_t LeaveSegmentation(std::span<const FrameBytes> frames,
                              unsigned version,
                              FrameBytes& large,
                              OffloadInfo& info);

/// What the adapter puts on the wire for a frame that was sent with `info`: one frame, or the
/// segments of a large send. The requests that do not fit the frame are not carried out.
std::vector<FrameBytes> WireFrames(FrameBytes frame, const OffloadInfo& info);
/// The same for all frames of an NBL in hand.
std::vector<FrameBytes> WireFramesOf(const NET_BUFFER_LIST& nbl);

/// An adapter takes the tag out of a frame that it received and says which checksums it found right
/// or wrong. AsReceived puts the tag back.
OffloadInfo OffloadReceive(FrameBytes& frame);
FrameBytes AsReceived(FrameBytes frame, const OffloadInfo& info);

/// An adapter answers the large send requests of a chain that it is about to complete, the whole
/// frames having been sent.
void AnswerLargeSends(PNET_BUFFER_LIST chain);

}  // namespace netsieve::host
