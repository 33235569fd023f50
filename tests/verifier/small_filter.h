// A filter driver whose handlers are closures: it passes everything on, but for what a test makes
// it do instead.
#pragma once

#include <functional>

#include "host/loaded_driver.h"
#include "platform/ndis.h"

namespace netsieve::host {

/// One at a time may be loaded. Set the closures before that; an empty one means what a filter does
/// that has no business of its own. `handle` in them is the module's, to be handed to NDIS.
struct SmallFilter {
    SmallFilter();
    ~SmallFilter();
    SmallFilter(const SmallFilter&) = delete;
    SmallFilter& operator=(const SmallFilter&) = delete;

    /// What to load.
    static DriverSource Source() { return {.name = "SMALL", .entry = &Entry}; }
    static constexpr ULONG kTag = 0x6C616D73;  // "smal"

    /// Changes what is registered.
    std::function<void(NDIS_FILTER_DRIVER_CHARACTERISTICS&)> describe;
    std::function<NTSTATUS()> entry;      ///< in the entry routine, once registered
    std::function<void()> unload;         ///< in the unload routine, once deregistered
    bool deregisters = true;              ///< whether the unload routine deregisters
    std::function<NDIS_STATUS()> attach;  ///< first in attach; a failure is its result
    bool setsAttributes = true;           ///< whether attach sets the module's attributes
    ULONG attributeFlags = 0;             ///< in what it sets
    std::function<NDIS_STATUS()> pause;
    std::function<NDIS_STATUS()> restart;
    std::function<void(PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG flags)> send;
    std::function<void(PNET_BUFFER_LIST, ULONG flags)> sendComplete;
    std::function<void(PNET_BUFFER_LIST, NDIS_PORT_NUMBER, ULONG count, ULONG flags)> receive;
    std::function<void(PNET_BUFFER_LIST, ULONG flags)> returned;
    std::function<void(PVOID cancelId)> cancel;

    PDRIVER_OBJECT object = nullptr;
    NDIS_HANDLE registration = nullptr;
    NDIS_HANDLE handle = nullptr;  ///< of the module attached last

  private:
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);
};

}  // namespace netsieve::host
