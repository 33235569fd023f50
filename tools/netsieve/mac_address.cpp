#include "tools/netsieve/mac_address.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>

namespace netsieve::tool {
namespace {

constexpr size_t kSlots = MacVote::kCapacity * 2;
constexpr size_t kTextLength = kMacLength * 3 - 1;

uint64_t KeyOf(const uint8_t* address) {
    uint64_t key = 0;
    std::memcpy(&key, address, kMacLength);
    return key;
}

size_t SlotOf(uint64_t key) {
    // Multiplicative hashing: the high bits are the well mixed ones.
    return (key * 0x9E3779B97F4A7C15) >> 47;
}
static_assert(kSlots == size_t{1} << (64 - 47));

}  // namespace

std::optional<MacAddress> ParseMac(std::string_view text) {
    if (text.size() != kTextLength || (text[2] != ':' && text[2] != '-')) {
        return std::nullopt;
    }
    MacAddress address;
    for (size_t i = 0; i < kMacLength; ++i) {
        const char* digits = text.data() + i * 3;
        const auto [end, error] = std::from_chars(digits, digits + 2, address[i], 16);
        if (error != std::errc() || end != digits + 2 ||
            (i + 1 < kMacLength && digits[2] != text[2])) {
            return std::nullopt;
        }
    }
    return address;
}

std::string FormatMac(const MacAddress& address) {
    return fmt::format("{:02x}", fmt::join(address, ":"));
}

bool IsAdapterAddress(const MacAddress& address) {
    return (address[0] & 1) == 0 && KeyOf(address.data()) != 0;
}

MacVote::MacVote() : slots_(kSlots) {}

void MacVote::Count(const CaptureFrame& frame) {
    if (frame.capturedLength < kEthernetHeaderLength) {
        return;
    }
    const uint8_t* destination = frame.bytes;
    const uint8_t* source = frame.bytes + kMacLength;
    CountAddress(destination);
    if (std::memcmp(destination, source, kMacLength) != 0) {
        CountAddress(source);
    }
}

std::optional<MacVote::Winner> MacVote::Result() const {
    const auto best = std::max_element(
        slots_.begin(), slots_.end(), [](const Candidate& left, const Candidate& right) {
            return left.frames != right.frames ? left.frames < right.frames
                                               : left.order > right.order;
        });
    if (best->frames == 0) {
        return std::nullopt;
    }
    Winner winner{{}, best->frames};
    std::memcpy(winner.address.data(), &best->key, kMacLength);
    return winner;
}

void MacVote::CountAddress(const uint8_t* address) {
    const uint64_t key = KeyOf(address);
    if (key == 0 || (address[0] & 1) != 0) {
        return;
    }
    size_t slot = SlotOf(key);
    while (slots_[slot].key != key) {
        if (slots_[slot].key == 0) {
            if (candidates_ == kCapacity) {
                return;
            }
            slots_[slot] = {key, 0, candidates_++};
            break;
        }
        slot = (slot + 1) % kSlots;
    }
    ++slots_[slot].frames;
}

}  // namespace netsieve::tool
