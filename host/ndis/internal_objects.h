// NDIS's internal objects, as far as a filter reaches them through an NBL's SourceHandle.
//
// No published interface describes these layouts. They are what filters of this platform have found
// there, for each NDIS version; a filter that reads them must find them here too.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "platform/types.h"

namespace netsieve::host {

using MacAddress = std::array<std::uint8_t, 6>;

enum class ObjectType : std::uint8_t {
    kOpen = 1,
    kProtocol = 3,
    kFilter = 5,
    kAdapter = 17,
    kAddress = 20,
};

/// An object of NDIS's that is read by offset. Type byte at 0; what is not set reads as 0.
class InternalObject {
  public:
    explicit InternalObject(ObjectType type, void* owner = nullptr) : owner_(owner) {
        bytes_[0] = static_cast<std::uint8_t>(type);
    }
    InternalObject(const InternalObject&) = delete;
    InternalObject& operator=(const InternalObject&) = delete;

    void* address() { return bytes_.data(); }
    /// The owner of the object at an address that address() gave.
    static void* OwnerOf(void* address) { return static_cast<InternalObject*>(address)->owner_; }
    template <typename Value>
    void Put(std::size_t offset, const Value& value) {
        static_assert(std::is_trivially_copyable_v<Value>);
        __builtin_memcpy(bytes_.data() + offset, &value, sizeof(value));
    }

  private:
    alignas(16) std::array<std::uint8_t, 1536> bytes_{};  // first: address() is the object's own
    void* owner_;
};

/// What an adapter looks like: the adapter object and the object that holds its address.
struct AdapterObjects {
    AdapterObjects(std::uint32_t ndisVersion, const MacAddress& mac, std::uint32_t ifIndex);
    InternalObject adapter{ObjectType::kAdapter};
    InternalObject address{ObjectType::kAddress};
};

/// What a protocol bound to an adapter looks like: the open object and the protocol object.
struct ProtocolObjects {
    ProtocolObjects(std::uint32_t ndisVersion, std::u16string name, AdapterObjects& adapter);
    std::u16string name;
    InternalObject open{ObjectType::kOpen};
    InternalObject protocol{ObjectType::kProtocol};
};

}  // namespace netsieve::host
