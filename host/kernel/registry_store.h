// What keeps the keys and values of the registry.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kernel.h"

namespace netsieve::host {

// Statuses, as published, that drivers see and do not test for.
constexpr NTSTATUS STATUS_INVALID_HANDLE = MakeStatus(0xC0000008);
constexpr NTSTATUS STATUS_ACCESS_DENIED = MakeStatus(0xC0000022);
constexpr NTSTATUS STATUS_OBJECT_NAME_INVALID = MakeStatus(0xC0000033);
constexpr NTSTATUS STATUS_OBJECT_PATH_SYNTAX_BAD = MakeStatus(0xC000003B);
constexpr NTSTATUS STATUS_REGISTRY_CORRUPT = MakeStatus(0xC000014C);
constexpr NTSTATUS STATUS_REGISTRY_IO_FAILED = MakeStatus(0xC000014D);

/// Names a key within its store, for as long as the store lives.
using RegistryKey = std::uint64_t;

struct RegistryValue {
    std::u16string name;
    ULONG type = 0;
    std::vector<std::uint8_t> data;
};

/// A tree of keys. Names compare without case and keep the case they were created in. Not
/// synchronised: whoever owns the store sees to that.
class RegistryStore {
  public:
    virtual ~RegistryStore() = default;

    virtual RegistryKey root() const = 0;
    /// STATUS_OBJECT_NAME_NOT_FOUND when `parent` has no such child.
    virtual NTSTATUS FindKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) = 0;
    /// Makes a child that does not exist yet.
    virtual NTSTATUS AddKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) = 0;
    /// STATUS_OBJECT_NAME_NOT_FOUND when the key has no such value.
    virtual NTSTATUS ReadValue(RegistryKey key, std::u16string_view name, RegistryValue* value) = 0;
    /// Creates the value, or replaces its type and data under the name it has.
    virtual NTSTATUS WriteValue(RegistryKey key, const RegistryValue& value) = 0;
    virtual NTSTATUS DeleteValue(RegistryKey key, std::u16string_view name) = 0;
};

/// What two names have in common that are equal without case.
std::u16string FoldRegistryName(std::u16string_view name);

/// The names in a path that are separated by backslashes; one at its end separates nothing.
std::vector<std::u16string> SplitRegistryPath(std::u16string_view path);

/// The key at `path` below `from`. An empty name in it is STATUS_OBJECT_NAME_INVALID.
NTSTATUS FindRegistryPath(RegistryStore& store,
                          RegistryKey from,
                          const std::vector<std::u16string>& path,
                          RegistryKey* key);
/// The same from the root; makes what is missing.
NTSTATUS CreateRegistryPath(RegistryStore& store, std::u16string_view path, RegistryKey* key);

}  // namespace netsieve::host
