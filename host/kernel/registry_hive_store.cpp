#include "host/kernel/registry_hive_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <hivex.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/kernel/empty_hive.h"
#include "host/kernel/wide_text.h"

namespace netsieve::host {

namespace {

struct Freer {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename Type>
using Freed = std::unique_ptr<Type, Freer>;

constexpr std::size_t kBaseBlockSize = 4096;

// What is longer goes into several cells, which hivex can read and not write. Up to minor version 3
// there was one cell for any length, and hivex takes those below a million bytes.
constexpr std::size_t kLargestValue = 16344;
constexpr std::size_t kLargestOldValue = 900'000;

constexpr std::u16string_view kCurrentControlSet = u"CurrentControlSet";

NTSTATUS StatusOfErrno() {
    return errno == ENOMEM ? STATUS_INSUFFICIENT_RESOURCES : STATUS_REGISTRY_CORRUPT;
}

// hivex hands a name over as UTF-8 with its length, since there may be NULs in it.
std::optional<std::u16string> WideName(const Freed<char>& name, std::size_t length) {
    return name == nullptr ? std::nullopt : WideFromUtf8({name.get(), length});
}

std::uint32_t DwordOf(const RegistryValue& value) {
    std::uint32_t dword = 0;
    if (value.data.size() == sizeof(dword)) {
        std::memcpy(&dword, value.data.data(), sizeof(dword));
    }
    return dword;
}

// A type may be any number, of which hivex's enumeration has names for twelve: a variable of it
// must not be read with another in it.
void CopyType(const void* from, void* to) {
    static_assert(sizeof(hive_type) == sizeof(ULONG));
    std::memcpy(to, from, sizeof(ULONG));
}

auto FindValue(std::vector<RegistryValue>& values, std::u16string_view name) {
    const std::u16string wanted = FoldRegistryName(name);
    return std::find_if(values.begin(), values.end(), [&](const RegistryValue& value) {
        return FoldRegistryName(value.name) == wanted;
    });
}

RegistryValue Dword(std::u16string name, std::uint32_t dword) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&dword);
    return {std::move(name), REG_DWORD, {bytes, bytes + sizeof(dword)}};
}

}  // namespace

std::unique_ptr<RegistryHiveStore> RegistryHiveStore::Open(const std::filesystem::path& path,
                                                           std::string& error) {
    std::unique_ptr<RegistryHiveStore> store(new RegistryHiveStore(path));
    if (!store->ReadHeader(path, error) || !store->Load(path, error)) {
        return nullptr;
    }
    return store;
}

std::unique_ptr<RegistryHiveStore> RegistryHiveStore::Create(const std::filesystem::path& path,
                                                             std::string& error) {
    std::unique_ptr<RegistryHiveStore> store(new RegistryHiveStore(path));
    if (store->file_.Exists()) {
        error = fmt::format("{} exists already", path.string());
        return nullptr;
    }
    const std::vector<std::uint8_t> empty = EmptyHive();
    const int file = memfd_create("hive", MFD_CLOEXEC);
    const std::string inMemory = fmt::format("/proc/self/fd/{}", file);
    const bool loaded = write(file, empty.data(), empty.size()) == ssize_t(empty.size()) &&
                        store->ReadHeader(inMemory, error) && store->Load(inMemory, error) &&
                        NT_SUCCESS(store->AddControlSet());
    close(file);
    if (!loaded) {
        error = "cannot make an empty hive in memory: " + error;
        return nullptr;
    }
    return store;
}

RegistryHiveStore::~RegistryHiveStore() {
    if (hive_ != nullptr) {
        hivex_close(hive_);
    }
}

bool RegistryHiveStore::ReadHeader(const std::string& path, std::string& error) {
    struct {
        char signature[4];
        std::uint32_t firstSequence;
        std::uint32_t secondSequence;
        std::uint32_t written[2];
        std::uint32_t majorVersion;
        std::uint32_t minorVersion;
    } header{};
    error.clear();
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = file < 0 ? -1 : pread(file, &header, sizeof(header), 0);
    if (got < 0) {
        error = fmt::format("cannot read {}: {}", path, std::strerror(errno));
    } else if (got < ssize_t(sizeof(header)) || lseek(file, 0, SEEK_END) < off_t(kBaseBlockSize) ||
               std::memcmp(header.signature, "regf", sizeof(header.signature)) != 0) {
        error = fmt::format("{} is not a registry hive", path);
    }
    if (file >= 0) {
        close(file);
    }
    unfinished_ = header.firstSequence != header.secondSequence;
    largestValue_ = header.minorVersion > 3 ? kLargestValue : kLargestOldValue;
    return error.empty();
}

bool RegistryHiveStore::Load(const std::string& path, std::string& error) {
    hive_ = hivex_open(path.c_str(), HIVEX_OPEN_WRITE);
    if (hive_ == nullptr) {
        error = fmt::format("{} is a damaged registry hive ({})", path, std::strerror(errno));
        return false;
    }
    return true;
}

NTSTATUS RegistryHiveStore::AddControlSet() {
    RegistryKey key = 0;
    NTSTATUS status = CreateRegistryPath(*this, u"Select", &key);
    for (const char16_t* name : {u"Current", u"Default", u"LastKnownGood"}) {
        if (NT_SUCCESS(status)) {
            status = WriteValue(key, Dword(name, 1));
        }
    }
    return NT_SUCCESS(status) ? CreateRegistryPath(*this, u"ControlSet001\\Services", &key)
                              : status;
}

bool RegistryHiveStore::Save(std::string& error) {
    return file_.Replace(
        [this](const std::string& path) { return hivex_commit(hive_, path.c_str(), 0) == 0; },
        error);
}

std::u16string RegistryHiveStore::CurrentControlSet() {
    RegistryKey select = 0;
    RegistryValue current;
    if (!NT_SUCCESS(FindChild(root(), u"Select", &select)) ||
        !NT_SUCCESS(ReadValue(select, u"Current", &current)) || DwordOf(current) == 0) {
        return {};
    }
    const std::string name = fmt::format("ControlSet{:03}", DwordOf(current));
    return {name.begin(), name.end()};
}

RegistryKey RegistryHiveStore::root() const {
    return hivex_root(hive_);
}

NTSTATUS RegistryHiveStore::FindKey(RegistryKey parent,
                                    std::u16string_view name,
                                    RegistryKey* key) {
    const NTSTATUS status = FindChild(parent, name, key);
    if (status != STATUS_OBJECT_NAME_NOT_FOUND || parent != root() ||
        FoldRegistryName(name) != FoldRegistryName(kCurrentControlSet)) {
        return status;
    }
    const std::u16string current = CurrentControlSet();
    return current.empty() ? status : FindChild(parent, current, key);
}

NTSTATUS RegistryHiveStore::FindChild(RegistryKey parent,
                                      std::u16string_view name,
                                      RegistryKey* key) {
    const Freed<hive_node_h> children(hivex_node_children(hive_, parent));
    if (children == nullptr) {
        return StatusOfErrno();
    }
    const std::u16string wanted = FoldRegistryName(name);
    for (const hive_node_h* child = children.get(); *child != 0; ++child) {
        const Freed<char> text(hivex_node_name(hive_, *child));
        const auto childName = WideName(text, hivex_node_name_len(hive_, *child));
        if (childName && FoldRegistryName(*childName) == wanted) {
            *key = *child;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS RegistryHiveStore::AddKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) {
    const auto text = Utf8FromWide(name);
    if (!text || text->find('\0') != std::string::npos) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    *key = hivex_node_add_child(hive_, parent, text->c_str());
    return *key != 0 ? STATUS_SUCCESS : StatusOfErrno();
}

// All of them or none: what is missing here would be lost when they are written back.
NTSTATUS RegistryHiveStore::ReadValues(RegistryKey key, std::vector<RegistryValue>* values) {
    const Freed<hive_value_h> handles(hivex_node_values(hive_, key));
    if (handles == nullptr) {
        return StatusOfErrno();
    }
    for (const hive_value_h* handle = handles.get(); *handle != 0; ++handle) {
        const Freed<char> text(hivex_value_key(hive_, *handle));
        const auto name = WideName(text, hivex_value_key_len(hive_, *handle));
        hive_type type = hive_t_none;
        std::size_t size = 0;
        const Freed<char> data(hivex_value_value(hive_, *handle, &type, &size));
        if (!name || data == nullptr) {
            return StatusOfErrno();
        }
        values->push_back({*name, 0, {data.get(), data.get() + size}});
        CopyType(&type, &values->back().type);
    }
    return STATUS_SUCCESS;
}

// Refuses what hivex would not write as it is.
NTSTATUS RegistryHiveStore::WriteValues(RegistryKey key, const std::vector<RegistryValue>& values) {
    std::vector<std::string> names;
    std::vector<hive_set_value> all;
    names.reserve(values.size());
    for (const RegistryValue& value : values) {
        const auto name = Utf8FromWide(value.name);
        if (!name || name->find('\0') != std::string::npos || value.data.size() > largestValue_) {
            return STATUS_NOT_SUPPORTED;
        }
        names.push_back(*name);
        auto* data = reinterpret_cast<char*>(const_cast<std::uint8_t*>(value.data.data()));
        all.push_back({names.back().data(), hive_t_none, value.data.size(), data});
        CopyType(&value.type, &all.back().t);
    }
    return hivex_node_set_values(hive_, key, all.size(), all.data(), 0) == 0 ? STATUS_SUCCESS
                                                                             : StatusOfErrno();
}

NTSTATUS RegistryHiveStore::ReadValue(RegistryKey key,
                                      std::u16string_view name,
                                      RegistryValue* value) {
    std::vector<RegistryValue> values;
    const NTSTATUS status = ReadValues(key, &values);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto it = FindValue(values, name);
    if (it == values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *value = std::move(*it);
    return STATUS_SUCCESS;
}

NTSTATUS RegistryHiveStore::WriteValue(RegistryKey key, const RegistryValue& value) {
    std::vector<RegistryValue> values;
    const NTSTATUS status = ReadValues(key, &values);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto it = FindValue(values, value.name);
    if (it == values.end()) {
        values.push_back(value);
    } else {
        it->type = value.type;
        it->data = value.data;
    }
    return WriteValues(key, values);
}

NTSTATUS RegistryHiveStore::DeleteValue(RegistryKey key, std::u16string_view name) {
    std::vector<RegistryValue> values;
    const NTSTATUS status = ReadValues(key, &values);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto it = FindValue(values, name);
    if (it == values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    values.erase(it);
    return WriteValues(key, values);
}

}  // namespace netsieve::host
