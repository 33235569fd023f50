#include "tools/netsieve/other_adapter.h"

#include <algorithm>
#include <array>

#include "host/ndis/ndis.h"

namespace netsieve::tool {
namespace {

host::AdapterOptions OptionsOf(std::uint64_t draw) {
    host::AdapterOptions options;
    options.instanceName = u"Other Ethernet Adapter";
    options.deviceName = u"\\DEVICE\\{A4B1D7E2-53C9-4C0B-9F2E-1D6C80B7F315}";
    options.moduleGuid = u"{A4B1D7E2-53C9-4C0B-9F2E-1D6C80B7F315}-0000";
    options.ifIndex = 2;
    // Locally administered, and unlikely to be an address of the capture.
    for (std::size_t i = 1; i < options.mac.size(); ++i) {
        options.mac[i] = static_cast<std::uint8_t>(draw >> (8 * i));
    }
    options.mac[0] = 0x02;
    return options;
}

}  // namespace

void OtherAdapter::Come(host::Machine& machine, std::uint64_t draw) {
    stack_ = &machine.ndis().AddAdapter(OptionsOf(draw));
    host::Adapter& adapter = stack_->adapter();
    frames_ = std::make_unique<host::NblFactory>(machine, adapter.pool());
    adapter.onReturned = [this](PNET_BUFFER_LIST chain, ULONG) { frames_->FreeChain(chain); };
}

void OtherAdapter::Go(host::Machine& machine) {
    if (stack_ != nullptr) {
        machine.ndis().RemoveAdapter(*stack_);
        stack_ = nullptr;
    }
}

void OtherAdapter::Receive() {
    constexpr std::size_t kShortestFrame = 60;
    std::array<std::uint8_t, kShortestFrame> frame{};
    const host::MacAddress& mac = stack_->adapter().options().mac;
    std::copy(mac.begin(), mac.end(), frame.begin());
    frame[5] ^= 0xFF;  // a neighbour's
    PNET_BUFFER_LIST const nbl = frames_->Make(frame);
    if (nbl != nullptr && !stack_->adapter().Indicate(nbl)) {
        frames_->Free(nbl);
    }
}

}  // namespace netsieve::tool
