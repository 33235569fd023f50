// The registry of the machine, as the Zw calls see it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/kernel/registry_memory_store.h"
#include "host/kernel/registry_store.h"
#include "host/sched/scheduler.h"
#include "host/verifier/check_site.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;

/// Keys, kept in one or more stores, and the handles that are open to them.
class Registry {
  public:
    /// With a store in memory that has \Registry\Machine and \Registry\User and nothing in them.
    explicit Registry(Machine& machine);

    /// Puts a store at a key: "Registry\Machine\SYSTEM". It hides what is there. Outside of Run, or
    /// while no call is under way; handles that are open keep the store they were opened in.
    void Mount(std::u16string_view path, std::unique_ptr<RegistryStore> store);
    /// The store in memory; its root is \Registry.
    RegistryMemoryStore& memory() { return *memory_; }
    /// Makes the service key of a driver in the memory, as its installation would have.
    void AddServiceKey(std::u16string_view service);

    NTSTATUS Open(const OBJECT_ATTRIBUTES& attributes, ACCESS_MASK access, PHANDLE handle);
    NTSTATUS Close(HANDLE handle);
    NTSTATUS SetValue(HANDLE handle, const RegistryValue& value);
    NTSTATUS QueryValue(HANDLE handle,
                        std::u16string_view name,
                        PVOID buffer,
                        ULONG length,
                        PULONG resultLength);
    NTSTATUS DeleteValue(HANDLE handle, std::u16string_view name);

    /// Handles that are open now; the second, a driver's.
    std::size_t Handles();
    std::size_t HandlesOf(const LoadedDriver* driver);

    /// At the start of every registry call: checks the caller's IRQL and spin locks, and is a
    /// scheduling point. False when the call is to fail, with STATUS_INSUFFICIENT_RESOURCES.
    bool EnterCall(const char* routine);

  private:
    struct MountPoint {
        std::vector<std::u16string> path;  ///< folded
        std::unique_ptr<RegistryStore> store;
    };
    struct KeyHandle {
        RegistryStore* store = nullptr;
        RegistryKey key = 0;
        ACCESS_MASK access = 0;
        const LoadedDriver* driver = nullptr;
    };

    NTSTATUS Find(const OBJECT_ATTRIBUTES& attributes, KeyHandle* found);
    NTSTATUS FindAbsolute(const std::vector<std::u16string>& path, KeyHandle* found);
    NTSTATUS Use(HANDLE handle, ACCESS_MASK access, KeyHandle* used);
    void ReportNotOpen(HANDLE handle, CheckSite site = CheckSite::Here());

    Machine& machine_;
    HostMutex mutex_;
    std::vector<MountPoint> mounts_;
    RegistryMemoryStore* memory_ = nullptr;
    std::map<HANDLE, KeyHandle> handles_;
    std::uintptr_t lastHandle_ = 0;
};

}  // namespace netsieve::host
