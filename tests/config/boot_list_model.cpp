#include "tests/config/boot_list_model.h"

#include <fmt/format.h>

#include <algorithm>

namespace netsieve::host {

namespace {

constexpr std::size_t kMostBytesRead = 520;
constexpr std::size_t kMostCharacters = 520;
// What the kernel's answer has room for when 520 bytes of this value are asked for.
constexpr std::size_t kMostBytesAnswered = 528;

// Half a character at the end counts as one whose other half is 0.
std::u16string TextOf(const Bytes& list) {
    std::u16string text((list.size() + 1) / 2, u'\0');
    std::copy(list.begin(), list.end(), reinterpret_cast<std::uint8_t*>(text.data()));
    return text;
}

std::u16string StringAt(const std::u16string& text, std::size_t at) {
    return text.substr(at, text.find(u'\0', at) - at);
}

std::u16string Lower(std::u16string text) {
    for (char16_t& character : text) {
        character += character >= u'A' && character <= u'Z' ? 32 : 0;
    }
    return text;
}

bool Contains(const Bytes& list, const std::u16string& name) {
    const std::u16string text = TextOf(list);
    for (std::size_t at = 0; at + 1 < list.size() / 2; at += StringAt(text, at).size() + 1) {
        if (Lower(StringAt(text, at)) == Lower(name)) {
            return true;
        }
    }
    return false;
}

std::vector<std::u16string> Entries(const Bytes& list) {
    const std::u16string text = TextOf(list);
    std::vector<std::u16string> entries;
    std::size_t at = 0;
    while (at < text.size() && text[at] != u'\0') {
        entries.push_back(StringAt(text, at));
        at += entries.back().size() + 1;
    }
    return entries;
}

NTSTATUS Readable(const Bytes& list) {
    return list.size() <= kMostBytesRead       ? STATUS_SUCCESS
           : list.size() <= kMostBytesAnswered ? STATUS_BUFFER_TOO_SMALL
                                               : STATUS_BUFFER_OVERFLOW;
}

}  // namespace

NTSTATUS BootListModel::Add(const std::u16string& name) {
    const NTSTATUS status = Readable(list.value_or(Bytes()));
    if (name.empty() || status != STATUS_SUCCESS) {
        return name.empty() ? STATUS_INVALID_PARAMETER : status;
    }
    if (list && Contains(*list, name)) {
        return STATUS_SUCCESS;
    }
    std::vector<std::u16string> entries = Entries(list.value_or(Bytes()));
    entries.push_back(name);
    Bytes changed = MultiSz(entries);
    if (changed.size() > kMostCharacters * 2) {
        return STATUS_NAME_TOO_LONG;
    }
    list = std::move(changed);
    flag = 0x2F719E1F;
    return STATUS_SUCCESS;
}

NTSTATUS BootListModel::Remove(const std::u16string& name) {
    if (name.empty() || !list || Readable(*list) != STATUS_SUCCESS || !Contains(*list, name)) {
        return name.empty() ? STATUS_INVALID_PARAMETER
               : !list      ? STATUS_OBJECT_NAME_NOT_FOUND
                            : Readable(*list);
    }
    std::vector<std::u16string> kept = Entries(*list);
    std::erase_if(kept, [&](const auto& entry) { return entry.find(name) != entry.npos; });
    if (kept.empty()) {
        list.reset();
        flag = 0x63243B22;
    } else {
        list = MultiSz(kept);
    }
    return STATUS_SUCCESS;
}

std::string Compare(ConfigRig& rig, const BootListCase& steps) {
    BootListModel model{.list = steps.list, .flag = {}};
    rig.StoreList(steps.list, steps.type);
    ULONG type = steps.type;
    for (std::size_t i = 0; i < steps.steps.size(); ++i) {
        const auto& [add, name] = steps.steps[i];
        type = model.list ? type : REG_MULTI_SZ;
        const NTSTATUS expected = add ? model.Add(name) : model.Remove(name);
        const NTSTATUS got = add ? rig.Add(name) : rig.Remove(name);
        const auto value = rig.Value(BOOT_LIST_VALUE);
        const bool sameList =
            value ? model.list == value->data && value->type == type : !model.list;
        if (got != expected || !sameList ||
            rig.Flag() != (model.flag ? std::optional(BytesOf(*model.flag)) : std::nullopt)) {
            return fmt::format(
                "step {} ({} of {} characters): status {:08X}, expected {:08X}, list "
                "of {} bytes, expected {}",
                i, add ? "add" : "remove", name.size(), std::uint32_t(got), std::uint32_t(expected),
                value ? value->data.size() : 0, model.list.value_or(Bytes()).size());
        }
    }
    return {};
}

}  // namespace netsieve::host
