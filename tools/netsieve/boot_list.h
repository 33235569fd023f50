// The boot filter list as it stands in a registry.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/kernel/registry_store.h"

namespace netsieve::tool {

/// The two values, as they are stored.
struct BootList {
    std::optional<host::RegistryValue> names;
    std::optional<host::RegistryValue> flag;

    /// Reads them from the driver's service key. A status other than success means that the list
    /// cannot be known.
    static NTSTATUS Read(host::RegistryStore& store, host::RegistryKey serviceKey, BootList* list);

    bool operator==(const BootList& other) const;
};

/// The list for a person to read: how many names, what the flag says and, one on a line, the names.
std::string FormatBootList(const BootList& list);

/// `text` as a terminal can show it: control characters and what is no text are written \u001B.
std::string Printable(std::u16string_view text);

}  // namespace netsieve::tool
