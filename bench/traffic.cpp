#include "bench/traffic.h"

#include <algorithm>

namespace netsieve::bench {

using namespace netsieve::host;

Traffic::Traffic(Machine& machine,
                 Stack& stack,
                 Path path,
                 std::size_t frameSize,
                 std::int64_t length)
    : stack_(stack),
      path_(path),
      nbls_(machine, path == Path::kSend ? stack.protocol().pool() : stack.adapter().pool()) {
    constexpr std::size_t kAddressSize = 6;
    std::vector<std::uint8_t> frame(frameSize, 1);
    std::fill_n(frame.begin(), kAddressSize, std::uint8_t{0xFF});
    for (; length > 0; --length) {
        chain_.push_back(nbls_.Make(std::span<const std::uint8_t>(frame)));
    }
}

void Traffic::Go() {
    PNET_BUFFER_LIST next = nullptr;
    for (auto nbl = chain_.rbegin(); nbl != chain_.rend(); ++nbl) {
        (*nbl)->Next = next;
        next = *nbl;
    }
    if (path_ == Path::kSend) {
        stack_.protocol().Send(chain_.front());
    } else {
        stack_.adapter().Indicate(chain_.front());
    }
}

std::uint64_t AllocationsOf(Machine& machine) {
    return machine.pool().allocations() + machine.ndis().nblPools().allocations();
}

}  // namespace netsieve::bench
