#include "host/kernel/registry_memory_store.h"

namespace netsieve::host {

NTSTATUS RegistryMemoryStore::FindKey(RegistryKey parent,
                                      std::u16string_view name,
                                      RegistryKey* key) {
    const auto& children = keys_[parent].children;
    const auto it = children.find(FoldRegistryName(name));
    if (it == children.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *key = it->second;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryMemoryStore::AddKey(RegistryKey parent,
                                     std::u16string_view name,
                                     RegistryKey* key) {
    keys_.emplace_back();
    *key = keys_.size() - 1;
    keys_[parent].children[FoldRegistryName(name)] = *key;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryMemoryStore::ReadValue(RegistryKey key,
                                        std::u16string_view name,
                                        RegistryValue* value) {
    const auto& values = keys_[key].values;
    const auto it = values.find(FoldRegistryName(name));
    if (it == values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *value = it->second;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryMemoryStore::WriteValue(RegistryKey key, const RegistryValue& value) {
    RegistryValue& stored =
        keys_[key].values.try_emplace(FoldRegistryName(value.name), value).first->second;
    stored.type = value.type;
    stored.data = value.data;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryMemoryStore::DeleteValue(RegistryKey key, std::u16string_view name) {
    return keys_[key].values.erase(FoldRegistryName(name)) != 0 ? STATUS_SUCCESS
                                                                : STATUS_OBJECT_NAME_NOT_FOUND;
}

}  // namespace netsieve::host
