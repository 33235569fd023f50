#include "tools/netsieve/boot_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "config/boot_filter_list.h"
#include "host/kernel/wide_text.h"

namespace netsieve::tool {
namespace {

using host::RegistryValue;

NTSTATUS ReadIfThere(host::RegistryStore& store,
                     host::RegistryKey key,
                     std::u16string_view name,
                     std::optional<RegistryValue>* value) {
    RegistryValue read;
    const NTSTATUS status = store.ReadValue(key, name, &read);
    if (NT_SUCCESS(status)) {
        *value = std::move(read);
    }
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_SUCCESS : status;
}

bool SameValue(const std::optional<RegistryValue>& left,
               const std::optional<RegistryValue>& right) {
    return left.has_value() == right.has_value() &&
           (!left || (left->type == right->type && left->data == right->data));
}

// The strings up to the first empty one, which closes the list.
std::vector<std::u16string> NamesIn(const RegistryValue& value) {
    std::u16string text(value.data.size() / sizeof(char16_t), u'\0');
    std::copy_n(value.data.begin(), text.size() * sizeof(char16_t),
                reinterpret_cast<std::uint8_t*>(text.data()));
    std::vector<std::u16string> names;
    for (std::size_t at = 0; at < text.size() && text[at] != u'\0';) {
        const std::size_t end = std::min(text.find(u'\0', at), text.size());
        names.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

std::string DescribeFlag(const std::optional<RegistryValue>& flag) {
    std::uint32_t word = 0;
    if (!flag) {
        return "not set";
    }
    if (flag->data.size() != sizeof(word)) {
        return fmt::format("of {} bytes instead of 4", flag->data.size());
    }
    std::memcpy(&word, flag->data.data(), sizeof(word));
    const char* meaning = word == BOOT_FLAG_LIST_PRESENT ? "list present"
                          : word == BOOT_FLAG_LIST_EMPTY ? "list empty"
                                                         : "of no known meaning";
    return fmt::format("0x{:08X}, {}", word, meaning);
}

std::string DescribeNames(const std::optional<RegistryValue>& value) {
    if (!value) {
        return "no list";
    }
    const std::size_t count = NamesIn(*value).size();
    std::string text =
        fmt::format("{} name{} in {} bytes", count, count == 1 ? "" : "s", value->data.size());
    if (value->type != REG_MULTI_SZ) {
        text += fmt::format(" of type {}", value->type);
    }
    if (value->data.size() > BOOT_LIST_READ_LIMIT) {
        text += fmt::format(" (more than the {} that the driver reads)", BOOT_LIST_READ_LIMIT);
    }
    return text;
}

}  // namespace

NTSTATUS BootList::Read(host::RegistryStore& store, host::RegistryKey serviceKey, BootList* list) {
    const NTSTATUS status = ReadIfThere(store, serviceKey, BOOT_LIST_VALUE, &list->names);
    return NT_SUCCESS(status) ? ReadIfThere(store, serviceKey, BOOT_FLAG_VALUE, &list->flag)
                              : status;
}

bool BootList::operator==(const BootList& other) const {
    return SameValue(names, other.names) && SameValue(flag, other.flag);
}

std::string Printable(std::u16string_view text) {
    std::string printable;
    const bool wellFormed = host::Utf8FromWide(text).has_value();
    for (std::size_t at = 0; at < text.size();) {
        const bool pair = wellFormed && (text[at] & 0xFC00) == 0xD800;
        const std::u16string_view character = text.substr(at, pair ? 2 : 1);
        const char16_t first = character[0];
        const bool control = first < 0x20 || (first >= 0x7F && first < 0xA0);
        const auto utf8 = host::Utf8FromWide(character);
        printable += control || !utf8 ? fmt::format("\\u{:04X}", std::uint32_t{first}) : *utf8;
        at += character.size();
    }
    return printable;
}

std::string FormatBootList(const BootList& list) {
    std::string text =
        fmt::format("{}, flag {}\n", DescribeNames(list.names), DescribeFlag(list.flag));
    if (list.names) {
        for (const std::u16string& name : NamesIn(*list.names)) {
            text += fmt::format("    {}\n", Printable(name));
        }
    }
    return text;
}

}  // namespace netsieve::tool
