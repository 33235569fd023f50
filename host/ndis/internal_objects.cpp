#include "host/ndis/internal_objects.h"

namespace netsieve::host {

namespace {

constexpr std::uint32_t kNdis61 = 0x60001;
constexpr std::uint32_t kNdis620 = 0x60014;
constexpr std::uint32_t kNdis630 = 0x6001E;

// The adapter object.
constexpr std::size_t kNextAdapter = 16;
constexpr std::size_t kValue56 = 56;
constexpr std::size_t kIfIndex = 120;
constexpr std::size_t kValue124 = 124;
constexpr std::size_t kAddressObject = 400;
constexpr std::size_t kValue464 = 464;
constexpr std::size_t kValue476 = 476;

// The open object.
constexpr std::size_t kOpenAdapter = 16;
constexpr std::size_t kOpenProtocol = 24;

// The protocol object.
constexpr std::size_t kProtocolValue = 24;

std::size_t MacOffset(std::uint32_t version) {
    if (version <= kNdis61) {
        return 1376;
    }
    return version < kNdis630 ? 344 : 336;
}

static_assert(kNdis620 < kNdis630);

}  // namespace

AdapterObjects::AdapterObjects(std::uint32_t ndisVersion,
                               const MacAddress& mac,
                               std::uint32_t ifIndex) {
    adapter.Put(kNextAdapter, static_cast<void*>(nullptr));
    adapter.Put(kValue56, static_cast<std::uint64_t>(ifIndex) << 32 | 6);
    adapter.Put(kIfIndex, ifIndex);
    adapter.Put(kValue124, std::uint32_t{1});
    adapter.Put(kValue464, std::uint32_t{1500});
    adapter.Put(kValue476, std::uint32_t{14});
    adapter.Put(kAddressObject, address.address());
    address.Put(MacOffset(ndisVersion), mac);
}

ProtocolObjects::ProtocolObjects(std::uint32_t ndisVersion,
                                 std::u16string protocolName,
                                 AdapterObjects& adapter)
    : name(std::move(protocolName)) {
    open.Put(kOpenAdapter, adapter.adapter.address());
    open.Put(kOpenProtocol, protocol.address());
    protocol.Put(kProtocolValue, std::uint64_t{0x0006'0001});
    const bool late = ndisVersion >= kNdis630;
    protocol.Put(late ? 56 : 48, std::uint8_t{6});
    protocol.Put(late ? 57 : 49, std::uint8_t{0});
    const UNICODE_STRING counted{
        .Length = static_cast<USHORT>(name.size() * sizeof(WCHAR)),
        .MaximumLength = static_cast<USHORT>((name.size() + 1) * sizeof(WCHAR)),
        .Buffer = name.data()};
    protocol.Put(late ? 72 : 64, counted);
}

}  // namespace netsieve::host
