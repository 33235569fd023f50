// A registry that is gone when the machine is.
#pragma once

#include <deque>
#include <map>

#include "host/kernel/registry_store.h"

namespace netsieve::host {

class RegistryMemoryStore : public RegistryStore {
  public:
    RegistryKey root() const override { return 0; }
    NTSTATUS FindKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) override;
    NTSTATUS AddKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) override;
    NTSTATUS ReadValue(RegistryKey key, std::u16string_view name, RegistryValue* value) override;
    NTSTATUS WriteValue(RegistryKey key, const RegistryValue& value) override;
    NTSTATUS DeleteValue(RegistryKey key, std::u16string_view name) override;

  private:
    /// By folded names.
    struct Key {
        std::map<std::u16string, RegistryKey> children;
        std::map<std::u16string, RegistryValue> values;
    };

    std::deque<Key> keys_ = std::deque<Key>(1);  // a RegistryKey is an index
};

}  // namespace netsieve::host
