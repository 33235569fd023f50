// A registry in a hive file.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "host/kernel/file_replacement.h"
#include "host/kernel/registry_store.h"

struct hive_h;

namespace netsieve::host {

/// A hive of the kind that is loaded at \Registry\Machine\SYSTEM. It is read whole and changed in
/// memory; the file changes when it is saved. An offline hive has no CurrentControlSet: that name
/// stands for the control set that the hive's key Select says is current.
class RegistryHiveStore : public RegistryStore {
  public:
    /// Reads a hive file; null, and the reason, when it is none or is damaged.
    static std::unique_ptr<RegistryHiveStore> Open(const std::filesystem::path& path,
                                                   std::string& error);
    /// A hive that does not exist yet, with one control set and nothing in it. The file is made
    /// when it is saved.
    static std::unique_ptr<RegistryHiveStore> Create(const std::filesystem::path& path,
                                                     std::string& error);
    ~RegistryHiveStore() override;

    /// Replaces the file by what is in memory. False with the reason; the old file stays then.
    bool Save(std::string& error);

    bool readOnly() const { return file_.readOnly(); }
    /// Whether whoever had the hive loaded last did not finish writing it: what is missing is in a
    /// log beside it, which a change here would put at odds with it.
    bool unfinished() const { return unfinished_; }
    /// The name that CurrentControlSet stands for; empty when Select does not say.
    std::u16string CurrentControlSet();

    RegistryKey root() const override;
    NTSTATUS FindKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) override;
    NTSTATUS AddKey(RegistryKey parent, std::u16string_view name, RegistryKey* key) override;
    NTSTATUS ReadValue(RegistryKey key, std::u16string_view name, RegistryValue* value) override;
    NTSTATUS WriteValue(RegistryKey key, const RegistryValue& value) override;
    NTSTATUS DeleteValue(RegistryKey key, std::u16string_view name) override;

  private:
    explicit RegistryHiveStore(const std::filesystem::path& path) : file_(path) {}
    bool ReadHeader(const std::string& path, std::string& error);
    bool Load(const std::string& path, std::string& error);
    NTSTATUS AddControlSet();
    NTSTATUS FindChild(RegistryKey parent, std::u16string_view name, RegistryKey* key);
    NTSTATUS ReadValues(RegistryKey key, std::vector<RegistryValue>* values);
    NTSTATUS WriteValues(RegistryKey key, const std::vector<RegistryValue>& values);

    FileReplacement file_;
    hive_h* hive_ = nullptr;
    std::size_t largestValue_ = 0;
    bool unfinished_ = false;
};

}  // namespace netsieve::host
