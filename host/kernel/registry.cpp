#include "host/kernel/registry.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/machine.h"
#include "host/sched/happens_before.h"

namespace netsieve::host {

namespace {

// A handle is a multiple of 4, and the high bits tell a kernel handle. A number is used once, so
// that a handle that was closed can be told from any other.
constexpr std::uintptr_t kHandleStep = 4;
constexpr std::uintptr_t kKernelHandles = 0xFFFFFFFF80000000;

constexpr ULONG kFixedSize = offsetof(KEY_VALUE_FULL_INFORMATION, Name);

// What QueryValue answers, in full.
std::vector<std::uint8_t> FullInformation(const RegistryValue& value) {
    const auto nameSize = static_cast<ULONG>(value.name.size() * sizeof(char16_t));
    const ULONG dataOffset = (kFixedSize + nameSize + 3) & ~3U;
    const KEY_VALUE_FULL_INFORMATION fixed{.TitleIndex = 0,
                                           .Type = value.type,
                                           .DataOffset = dataOffset,
                                           .DataLength = static_cast<ULONG>(value.data.size()),
                                           .NameLength = nameSize,
                                           .Name = {}};
    std::vector<std::uint8_t> record(dataOffset + value.data.size());
    std::memcpy(record.data(), &fixed, kFixedSize);
    std::memcpy(record.data() + kFixedSize, value.name.data(), nameSize);
    std::copy(value.data.begin(), value.data.end(), record.begin() + dataOffset);
    return record;
}

}  // namespace

Registry::Registry(Machine& machine) : machine_(machine) {
    auto memory = std::make_unique<RegistryMemoryStore>();
    memory_ = memory.get();
    RegistryKey key = 0;
    CreateRegistryPath(*memory_, u"Machine", &key);
    CreateRegistryPath(*memory_, u"User", &key);
    Mount(u"Registry", std::move(memory));
}

void Registry::Mount(std::u16string_view path, std::unique_ptr<RegistryStore> store) {
    mounts_.push_back({SplitRegistryPath(FoldRegistryName(path)), std::move(store)});
}

void Registry::AddServiceKey(std::u16string_view service) {
    RegistryKey key = 0;
    CreateRegistryPath(*memory_,
                       u"Machine\\SYSTEM\\CurrentControlSet\\Services\\" + std::u16string(service),
                       &key);
}

bool Registry::EnterCall(const char* routine) {
    machine_.verifier().DemandPassive(routine);
    if (!CurrentContext().held.empty()) {
        machine_.verifier().Report(Rule::kPassiveLevelRequired,
                                   fmt::format("{} called with {} spin lock(s) held", routine,
                                               CurrentContext().held.size()));
    }
    machine_.EnterCall(routine);
    return !machine_.faults().Fails(FaultKind::kRegistry);
}

NTSTATUS Registry::Open(const OBJECT_ATTRIBUTES& attributes, ACCESS_MASK access, PHANDLE handle) {
    HostLock lock(mutex_);
    KeyHandle found;
    const NTSTATUS status = Find(attributes, &found);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    found.access = access;
    found.driver = LoadedDriver::Calling(CurrentContext());
    lastHandle_ += kHandleStep;
    const bool kernel = (attributes.Attributes & OBJ_KERNEL_HANDLE) != 0;
    *handle = reinterpret_cast<HANDLE>(kernel ? lastHandle_ | kKernelHandles : lastHandle_);
    handles_[*handle] = found;
    return STATUS_SUCCESS;
}

NTSTATUS Registry::Find(const OBJECT_ATTRIBUTES& attributes, KeyHandle* found) {
    if (attributes.Length != sizeof(OBJECT_ATTRIBUTES)) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string_view name;
    if (attributes.ObjectName != nullptr) {
        name = {attributes.ObjectName->Buffer, attributes.ObjectName->Length / sizeof(WCHAR)};
    }
    if (attributes.RootDirectory == nullptr) {
        return name.starts_with(u'\\') ? FindAbsolute(SplitRegistryPath(name.substr(1)), found)
                                       : STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    const NTSTATUS status = Use(attributes.RootDirectory, 0, found);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return name.starts_with(u'\\')
               ? STATUS_OBJECT_PATH_SYNTAX_BAD
               : FindRegistryPath(*found->store, found->key, SplitRegistryPath(name), &found->key);
}

// The mount point with the most names in common with the path has it; of two at the same key the
// later.
NTSTATUS Registry::FindAbsolute(const std::vector<std::u16string>& path, KeyHandle* found) {
    std::vector<std::u16string> folded;
    std::transform(path.begin(), path.end(), std::back_inserter(folded), FoldRegistryName);
    const MountPoint* best = nullptr;
    for (const MountPoint& mount : mounts_) {
        if (mount.path.size() <= folded.size() &&
            std::equal(mount.path.begin(), mount.path.end(), folded.begin()) &&
            (best == nullptr || mount.path.size() >= best->path.size())) {
            best = &mount;
        }
    }
    if (best == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    found->store = best->store.get();
    const auto below = path.begin() + static_cast<std::ptrdiff_t>(best->path.size());
    return FindRegistryPath(*found->store, found->store->root(), {below, path.end()}, &found->key);
}

NTSTATUS Registry::Use(HANDLE handle, ACCESS_MASK access, KeyHandle* used) {
    const auto it = handles_.find(handle);
    if (it == handles_.end()) {
        ReportNotOpen(handle);
        return STATUS_INVALID_HANDLE;
    }
    *used = it->second;
    return (used->access & access) == access ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

void Registry::ReportNotOpen(HANDLE handle, CheckSite site) {
    const std::uintptr_t number = reinterpret_cast<std::uintptr_t>(handle) & ~kKernelHandles;
    const bool closed = number != 0 && number <= lastHandle_ && number % kHandleStep == 0;
    machine_.verifier().Report(
        Rule::kHandleNotOpen,
        fmt::format("handle {} {}", handle, closed ? "is closed already" : "was never given out"),
        site);
}

NTSTATUS Registry::Close(HANDLE handle) {
    HostLock lock(mutex_);
    if (handles_.erase(handle) == 0) {
        ReportNotOpen(handle);
        return STATUS_INVALID_HANDLE;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Registry::SetValue(HANDLE handle, const RegistryValue& value) {
    HostLock lock(mutex_);
    KeyHandle used;
    const NTSTATUS status = Use(handle, KEY_SET_VALUE, &used);
    NoteRelease(this);
    return NT_SUCCESS(status) ? used.store->WriteValue(used.key, value) : status;
}

NTSTATUS Registry::QueryValue(HANDLE handle,
                              std::u16string_view name,
                              PVOID buffer,
                              ULONG length,
                              PULONG resultLength) {
    HostLock lock(mutex_);
    KeyHandle used;
    NTSTATUS status = Use(handle, KEY_QUERY_VALUE, &used);
    NoteAcquire(this);
    RegistryValue value;
    if (NT_SUCCESS(status)) {
        status = used.store->ReadValue(used.key, name, &value);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::vector<std::uint8_t> record = FullInformation(value);
    *resultLength = static_cast<ULONG>(record.size());
    if (length < kFixedSize) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, record.data(), std::min<std::size_t>(length, record.size()));
    return length < record.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteValue(HANDLE handle, std::u16string_view name) {
    HostLock lock(mutex_);
    KeyHandle used;
    const NTSTATUS status = Use(handle, KEY_SET_VALUE, &used);
    NoteRelease(this);
    return NT_SUCCESS(status) ? used.store->DeleteValue(used.key, name) : status;
}

std::size_t Registry::Handles() {
    HostLock lock(mutex_);
    return handles_.size();
}

std::size_t Registry::HandlesOf(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(handles_.begin(), handles_.end(),
                      [&](const auto& entry) { return entry.second.driver == driver; }));
}

}  // namespace netsieve::host

using namespace netsieve::host;

namespace {

std::u16string_view NameOf(PUNICODE_STRING name) {
    return {name->Buffer, name->Length / sizeof(WCHAR)};
}

}  // namespace

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle,
                         ACCESS_MASK DesiredAccess,
                         POBJECT_ATTRIBUTES ObjectAttributes) {
    Registry& registry = Machine::Current().registry();
    if (!registry.EnterCall("ZwOpenKey")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return registry.Open(*ObjectAttributes, DesiredAccess, KeyHandle);
}

// A close that fails takes the handle with it all the same: there is nothing that a driver could do
// about it afterwards.
NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    Registry& registry = Machine::Current().registry();
    const bool fails = !registry.EnterCall("ZwClose");
    const NTSTATUS status = registry.Close(Handle);
    return fails ? STATUS_INSUFFICIENT_RESOURCES : status;
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle,
                             PUNICODE_STRING ValueName,
                             ULONG,
                             ULONG Type,
                             PVOID Data,
                             ULONG DataSize) {
    Registry& registry = Machine::Current().registry();
    if (!registry.EnterCall("ZwSetValueKey")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(Data);
    return registry.SetValue(KeyHandle,
                             {std::u16string(NameOf(ValueName)), Type, {bytes, bytes + DataSize}});
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle,
                               PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation,
                               ULONG Length,
                               PULONG ResultLength) {
    Registry& registry = Machine::Current().registry();
    if (!registry.EnterCall("ZwQueryValueKey")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (KeyValueInformationClass != KeyValueFullInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    return registry.QueryValue(KeyHandle, NameOf(ValueName), KeyValueInformation, Length,
                               ResultLength);
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    Registry& registry = Machine::Current().registry();
    if (!registry.EnterCall("ZwDeleteValueKey")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return registry.DeleteValue(KeyHandle, NameOf(ValueName));
}

}  // extern "C"
