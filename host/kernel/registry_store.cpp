#include "host/kernel/registry_store.h"

#include <clocale>
#include <cwctype>

namespace netsieve::host {

namespace {

// A locale of our own choice: what the user has set must not change which names are the same.
char16_t Fold(char16_t character) {
    static const locale_t kLocale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const bool surrogate = (character & 0xF800) == 0xD800;
    if (surrogate || kLocale == nullptr) {
        return character;
    }
    const wint_t upper = towupper_l(character, kLocale);
    return upper <= 0xFFFF ? static_cast<char16_t>(upper) : character;
}

}  // namespace

std::u16string FoldRegistryName(std::u16string_view name) {
    std::u16string folded(name);
    for (char16_t& character : folded) {
        character = Fold(character);
    }
    return folded;
}

std::vector<std::u16string> SplitRegistryPath(std::u16string_view path) {
    std::vector<std::u16string> names;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find(u'\\'), path.size());
        names.emplace_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return names;
}

NTSTATUS FindRegistryPath(RegistryStore& store,
                          RegistryKey from,
                          const std::vector<std::u16string>& path,
                          RegistryKey* key) {
    *key = from;
    for (const std::u16string& name : path) {
        const NTSTATUS status =
            name.empty() ? STATUS_OBJECT_NAME_INVALID : store.FindKey(*key, name, key);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreateRegistryPath(RegistryStore& store, std::u16string_view path, RegistryKey* key) {
    *key = store.root();
    for (const std::u16string& name : SplitRegistryPath(path)) {
        NTSTATUS status = store.FindKey(*key, name, key);
        if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
            status = store.AddKey(*key, name, key);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

}  // namespace netsieve::host
