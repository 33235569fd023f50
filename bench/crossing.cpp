#include "bench/crossing.h"

#include <algorithm>

namespace netsieve::bench {

using namespace netsieve::host;

Crossing::Crossing(Machine& machine,
                   Stack& stack,
                   Way way,
                   std::size_t frameSize,
                   std::int64_t length)
    : stack_(stack),
      way_(way),
      lists_(machine, way == Way::kSend ? stack.protocol().pool() : stack.adapter().pool()) {
    constexpr std::size_t kAddressSize = 6;
    std::vector<std::uint8_t> frame(frameSize, 1);
    std::fill_n(frame.begin(), kAddressSize, std::uint8_t{0xFF});
    for (; length > 0; --length) {
        chain_.push_back(lists_.Make(std::span<const std::uint8_t>(frame)));
    }
}

void Crossing::Go() {
    PNET_BUFFER_LIST next = nullptr;
    for (auto list = chain_.rbegin(); list != chain_.rend(); ++list) {
        (*list)->Next = next;
        next = *list;
    }
    if (way_ == Way::kSend) {
        stack_.protocol().Send(chain_.front());
    } else {
        stack_.adapter().Indicate(chain_.front());
    }
}

std::uint64_t AllocationsOf(Machine& machine) {
    return machine.pool().Allocations() + machine.ndis().lists().Allocations();
}

}  // namespace netsieve::bench
