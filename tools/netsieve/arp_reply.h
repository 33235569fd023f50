// Replies to ARP requests (RFC 826) for one address.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/netsieve/mac_address.h"

namespace netsieve::tool {

using Ipv4Address = std::array<std::uint8_t, 4>;

/// The address in "192.0.2.1", or nothing if it is none.
std::optional<Ipv4Address> ParseIpv4(const std::string& text);

/// The protocol address that is asked for and its hardware address.
struct ArpAnswer {
    Ipv4Address protocol{};
    MacAddress hardware{};
};

/// A reply of the shortest length that Ethernet carries.
using ArpReply = std::array<std::uint8_t, 60>;

/// The reply to `frame` if that is a request for the answer's address, as sent by the adapter with
/// the address `sender`; nothing for every other frame.
std::optional<ArpReply> ReplyTo(const std::uint8_t* frame,
                                std::uint32_t length,
                                const ArpAnswer& answer,
                                const MacAddress& sender);

}  // namespace netsieve::tool
