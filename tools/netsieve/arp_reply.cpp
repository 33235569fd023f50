#include "tools/netsieve/arp_reply.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace netsieve::tool {
namespace {

// Ethernet's EtherType, then hardware type 1, protocol type IPv4, the lengths of their addresses,
// and the operation.
constexpr std::uint8_t kRequest[] = {0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 1};
constexpr std::uint8_t kReply[] = {0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 2};

constexpr std::size_t kTypeAt = 12;
constexpr std::size_t kSenderAt = kTypeAt + sizeof(kRequest);  // hardware address, then protocol
constexpr std::size_t kTargetAt = kSenderAt + kMacLength + sizeof(Ipv4Address);
constexpr std::size_t kShortest = kTargetAt + kMacLength + sizeof(Ipv4Address);

}  // namespace

std::optional<Ipv4Address> ParseIpv4(const std::string& text) {
    Ipv4Address address;
    return inet_pton(AF_INET, text.c_str(), address.data()) == 1 ? std::optional(address)
                                                                 : std::nullopt;
}

std::optional<ArpReply> ReplyTo(const std::uint8_t* frame,
                                std::uint32_t length,
                                const ArpAnswer& answer,
                                const MacAddress& sender) {
    if (length < kShortest || std::memcmp(frame + kTypeAt, kRequest, sizeof(kRequest)) != 0 ||
        std::memcmp(frame + kTargetAt + kMacLength, answer.protocol.data(),
                    answer.protocol.size()) != 0) {
        return std::nullopt;
    }
    const std::uint8_t* const asker = frame + kSenderAt;
    ArpReply reply{};
    auto at = std::copy_n(asker, kMacLength, reply.begin());
    at = std::copy(sender.begin(), sender.end(), at);
    at = std::copy(std::begin(kReply), std::end(kReply), at);
    at = std::copy(answer.hardware.begin(), answer.hardware.end(), at);
    at = std::copy(answer.protocol.begin(), answer.protocol.end(), at);
    std::copy_n(asker, kMacLength + sizeof(Ipv4Address), at);
    return reply;
}

}  // namespace netsieve::tool
