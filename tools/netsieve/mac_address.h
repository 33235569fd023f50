// Ethernet addresses, and finding the one that a capture was taken at.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/netsieve/capture_reader.h"

namespace netsieve::tool {

constexpr size_t kMacLength = 6;
constexpr size_t kEthernetHeaderLength = 14;

using MacAddress = std::array<uint8_t, kMacLength>;

/// The address in "00:00:5e:00:53:01" or "00-00-5E-00-53-01", or nothing if it is none.
std::optional<MacAddress> ParseMac(std::string_view text);

/// The address in lower case with colons.
std::string FormatMac(const MacAddress& address);

/// True for an address that one adapter can have: the group bit is clear and it is not all zero.
bool IsAdapterAddress(const MacAddress& address);

/// Finds the adapter whose traffic a capture most likely is: the address that occurs in most
/// frames.
///
/// A frame of at least an Ethernet header's length votes once for its source and once for its
/// destination, if they are adapters' addresses and differ. Ties go to the address that was seen
/// first. The first kCapacity addresses compete, later ones do not, so that memory stays the same
/// however long the capture and however random its addresses.
class MacVote {
  public:
    static constexpr size_t kCapacity = 65536;

    struct Winner {
        MacAddress address;
        uint64_t frames;
    };

    MacVote();

    /// Counts the votes of one frame.
    void Count(const CaptureFrame& frame);

    /// The winner so far, or nothing when no frame has voted.
    std::optional<Winner> Result() const;

  private:
    struct Candidate {
        uint64_t
            key;  ///< the address in the low 48 bits; 0, which no adapter has, marks a free slot
        uint64_t frames;
        uint64_t order;
    };

    void CountAddress(const uint8_t* address);

    std::vector<Candidate> slots_;  ///< open addressing, never more than half full
    size_t candidates_ = 0;
};

}  // namespace netsieve::tool
