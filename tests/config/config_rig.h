// A machine with the driver and a registry to keep its boot filter list in.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/boot_filter_list.h"
#include "config/system_information.h"
#include "driver/driver_entry.h"
#include "host/client/watched_exports.h"
#include "host/image/kernel_image.h"
#include "host/kernel/registry_hive_store.h"
#include "host/machine.h"

namespace netsieve::host {

enum class StoreKind { kMemory, kHive };

using Bytes = std::vector<std::uint8_t>;

inline Bytes BytesOf(std::u16string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(char16_t)};
}

inline Bytes BytesOf(std::uint32_t word) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&word);
    return {bytes, bytes + sizeof(word)};
}

/// The strings with their NULs and the closing one, as a list is stored.
inline Bytes MultiSz(const std::vector<std::u16string>& strings) {
    std::u16string text;
    for (const std::u16string& string : strings) {
        text += string + u'\0';
    }
    return BytesOf(text + u'\0');
}

class ConfigRig {
  public:
    explicit ConfigRig(bool image = false,
                       StoreKind kind = StoreKind::kMemory,
                       MachineOptions options = {})
        : machine_(options) {
        std::u16string path = u"Machine\\" + std::u16string(BOOT_LIST_KEY);
        store_ = &machine_.registry().memory();
        if (kind == StoreKind::kHive) {
            std::string error;
            auto hive = RegistryHiveStore::Create("/nowhere/SYSTEM", error);
            store_ = hive.get();
            machine_.registry().Mount(u"Registry\\Machine\\SYSTEM", std::move(hive));
            path = u"CurrentControlSet\\Services\\netsieve";
        }
        EXPECT_EQ(CreateRegistryPath(*store_, path, &key_), STATUS_SUCCESS);
        if (image) {
            source_.image = NETSIEVE_IMAGE_PATH;
        } else {
            source_.entry = &DriverEntry;
        }
    }

    /// Runs `body` with the driver loaded. Afterwards no rule may be broken and nothing be left.
    void Run(const std::function<void()>& body) {
        const RunResult result = machine_.Run([&] {
            ASSERT_EQ(machine_.LoadDriver(source_), STATUS_SUCCESS);
            const KernelImage* image = machine_.FindDriver("NETSIEVE")->image();
            const char* const name = "ITarnHKSystemInformationEx";
            export_ = image == nullptr
                          ? &ITarnHKSystemInformationEx
                          : reinterpret_cast<Export>(WatchedExport(name, image->FindExport(name)));
            body();
            machine_.UnloadDriver("NETSIEVE");
        });
        EXPECT_TRUE(result.completed) << result.abandonReason;
        EXPECT_TRUE(machine_.verifier().Silent()) << machine_.verifier().Describe();
    }

    NTSTATUS Ask(LONG informationClass, PVOID buffer, PULONG size) {
        return export_(nullptr, informationClass, buffer, size);
    }
    NTSTATUS Add(std::u16string name) {
        return Ask(SYSINFO_CLASS_ADD_BOOT_FILTER, name.data(), nullptr);
    }
    NTSTATUS Remove(std::u16string name) {
        return Ask(SYSINFO_CLASS_REMOVE_BOOT_FILTER, name.data(), nullptr);
    }

    /// What a value of the service key holds, or nothing.
    std::optional<RegistryValue> Value(std::u16string_view name) {
        RegistryValue value;
        const bool there = NT_SUCCESS(store_->ReadValue(key_, name, &value));
        return there ? std::optional(value) : std::nullopt;
    }
    std::optional<Bytes> Data(std::u16string_view name) {
        const auto value = Value(name);
        return value ? std::optional(value->data) : std::nullopt;
    }
    std::optional<Bytes> List() { return Data(BOOT_LIST_VALUE); }
    std::optional<Bytes> Flag() { return Data(BOOT_FLAG_VALUE); }
    /// Puts a list there, or takes it away.
    void StoreList(const std::optional<Bytes>& list, ULONG type = REG_MULTI_SZ) {
        store_->DeleteValue(key_, BOOT_LIST_VALUE);
        if (list) {
            EXPECT_EQ(store_->WriteValue(key_, {BOOT_LIST_VALUE, type, *list}), STATUS_SUCCESS);
        }
    }

    Machine& machine() { return machine_; }

  private:
    using Export = NTSTATUS(NTAPI*)(PVOID, LONG, PVOID, PULONG);

    Machine machine_;
    DriverSource source_{.name = "NETSIEVE"};
    RegistryStore* store_ = nullptr;
    RegistryKey key_ = 0;
    Export export_ = nullptr;
};

}  // namespace netsieve::host
