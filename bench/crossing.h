// Chains of lists that cross a stack again and again.
#pragma once

#include <cstdint>
#include <vector>

#include "host/machine.h"
#include "host/ndis/frame_lists.h"
#include "host/ndis/ndis.h"

namespace netsieve::bench {

enum class Way { kSend, kReceive };

/// A chain of lists of one frame each, and the stack that it crosses. The lists are back before the
/// call returns, in one chain or several.
class Crossing {
  public:
    /// `length` lists with frames of `frameSize` bytes that every hook is shown: they are sent by
    /// the stack's protocol, or addressed to its adapter.
    Crossing(host::Machine& machine,
             host::Stack& stack,
             Way way,
             std::size_t frameSize,
             std::int64_t length);

    /// Once down and completed, or up and returned.
    void Go();

  private:
    host::Stack& stack_;
    Way way_;
    host::FrameLists lists_;
    std::vector<PNET_BUFFER_LIST> chain_;
};

/// Blocks, lists and contexts that were allocated in the machine so far.
std::uint64_t AllocationsOf(host::Machine& machine);

}  // namespace netsieve::bench
