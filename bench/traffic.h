// Sends or indicates the same NBLs again and again.
#pragma once

#include <cstdint>
#include <vector>

#include "host/machine.h"
#include "host/ndis/nbl_factory.h"
#include "host/ndis/ndis.h"

namespace netsieve::bench {

enum class Path { kSend, kReceive };

/// A chain of NBLs with one frame each, for one stack. The NBLs are completed or returned before Go
/// returns, in one chain or several.
class Traffic {
  public:
    /// `length` NBLs with frames of `frameSize` bytes that every hook is shown: they are sent by
    /// the stack's protocol, or addressed to its adapter.
    Traffic(host::Machine& machine,
            host::Stack& stack,
            Path path,
            std::size_t frameSize,
            std::int64_t length);

    /// Sends the chain and completes it, or indicates it and returns it.
    void Go();

  private:
    host::Stack& stack_;
    Path path_;
    host::NblFactory nbls_;
    std::vector<PNET_BUFFER_LIST> chain_;
};

/// Blocks, NBLs and contexts that were allocated in the machine so far.
std::uint64_t AllocationsOf(host::Machine& machine);

}  // namespace netsieve::bench
