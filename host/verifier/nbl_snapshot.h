// What an NBL was like at one moment, and what of it has changed since.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/verifier/rules.h"
#include "platform/ndis.h"

namespace netsieve::host {

/// Values in the NetBufferListInfo of every NBL here: as many as the newest NDIS has.
constexpr std::size_t kNblInfoCount = 32;

/// What somebody who held an NBL may have changed in it.
struct NblLiberty {
    bool completed = false;  ///< Status and the answer to a large send: the completer of a send
    bool protocolReserved = false;  ///< a protocol
    bool miniportReserved = false;  ///< an adapter
};

struct NblDifference {
    Rule rule;          ///< the rule that forbids it to a driver which passes the NBL on or back
    const char* field;  ///< its published name, or "bytes"
};

template <typename T>
struct TakenCopy {
    T* original;
    T value;
};

/// What travels with an NBL unchanged: its header, but for Next, Scratch, the contexts and the
/// chain of NET_BUFFERs; and the reserved fields of the NET_BUFFERs. Memory is kept for the next
/// Take.
class NblHeader {
  public:
    void Take(const NET_BUFFER_LIST& nbl);
    const std::vector<TakenCopy<NET_BUFFER>>& buffers() const { return buffers_; }
    /// The first field that differs now and that `liberty` does not cover.
    std::optional<NblDifference> FindDifference(const NET_BUFFER_LIST& nbl,
                                                const NblLiberty& liberty) const;

  private:
    // ParentNetBufferList to MiniportReserved, and NblFlags to the end of NetBufferListInfo.
    static constexpr std::size_t kFirst = offsetof(NET_BUFFER_LIST, ParentNetBufferList);
    static constexpr std::size_t kFirstEnd = offsetof(NET_BUFFER_LIST, Scratch);
    static constexpr std::size_t kSecond = offsetof(NET_BUFFER_LIST, NblFlags);
    static constexpr std::size_t kSecondEnd =
        offsetof(NET_BUFFER_LIST, NetBufferListInfo) + kNblInfoCount * sizeof(PVOID);

    std::uint8_t bytes_[kSecondEnd];
    std::vector<TakenCopy<NET_BUFFER>> buffers_;
};

/// An NBL with its NET_BUFFERs, MDLs and frames.
class NblSnapshot {
  public:
    void Take(NET_BUFFER_LIST& nbl);
    const NblHeader& header() const { return header_; }
    /// The first thing outside the header that differs now.
    std::optional<NblDifference> FindBufferDifference(const NET_BUFFER_LIST& nbl) const;
    /// The first thing at all that differs now.
    std::optional<NblDifference> FindDifference(const NET_BUFFER_LIST& nbl,
                                                const NblLiberty& liberty) const;
    /// Whether everything but the contexts is untouched, the fields that any holder may change
    /// included.
    std::optional<NblDifference> FindTouched(const NET_BUFFER_LIST& nbl) const;
    /// Lets AddressSanitizer stop whoever touches the NBL, reads included, until Reveal.
    void Hide() const;
    void Reveal() const;
    const std::vector<TakenCopy<MDL>>& mdls() const { return mdls_; }

  private:
    template <typename Visit>
    void ForEachPart(Visit visit) const;

    NblHeader header_;
    PNET_BUFFER_LIST original_ = nullptr;
    PNET_BUFFER_LIST next_ = nullptr;
    PVOID scratch_ = nullptr;
    std::vector<TakenCopy<MDL>> mdls_;
    std::uint64_t data_ = 0;  ///< hash of the frames
};

}  // namespace netsieve::host
