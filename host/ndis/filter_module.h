// A filter driver's registration, and a filter module in an adapter's stack.
#pragma once

#include <atomic>
#include <string>

#include "host/ndis/internal_objects.h"
#include "host/ndis/module_pnp.h"
#include "host/verifier/nbl_tracker.h"
#include "platform/ndis.h"

namespace netsieve::host {

class LoadedDriver;
class Stack;

/// A filter driver as NDIS knows it; its address is the handle that the driver got.
struct FilterRegistration {
    LoadedDriver* driver = nullptr;
    NDIS_HANDLE context = nullptr;
    NDIS_FILTER_DRIVER_CHARACTERISTICS handlers{};
    std::atomic<bool> deregistering = false;  ///< no more attaches
    bool gone = false;            ///< deregistered; kept for an attach that runs meanwhile
    std::uint32_t pnpThread = 0;  ///< the context that attaches it to the adapters; 0 for none
};

/// State of a filter module, as published for filter drivers.
enum class ModuleState : std::uint8_t {
    kAttaching,
    kPaused,
    kPausing,
    kRestarting,
    kRunning,
    kGone
};

/// One filter module. It is kept after its detach until the machine ends, so that a report can name
/// it.
struct FilterModule {
    FilterModule(FilterRegistration& itsRegistration, Stack& itsStack, std::string name);

    /// The NDIS filter handle, which is also the SourceHandle of the module's own NBLs.
    NDIS_HANDLE handle() { return object.address(); }

    InternalObject object{ObjectType::kFilter, this};
    FilterRegistration& registration;
    const NDIS_FILTER_DRIVER_CHARACTERISTICS& handlers;
    Stack& stack;
    Component component;
    NDIS_HANDLE context = nullptr;  ///< set by NdisFSetAttributes
    bool attributesSet = false;
    std::atomic<ModuleState> state = ModuleState::kAttaching;
    std::atomic<FilterModule*> upper = nullptr;
    std::atomic<FilterModule*> lower = nullptr;
    /// Calls that came through one of the module's data-path handlers and are inside an NDIS call
    /// that it made: when that returns, the driver will touch its module again.
    std::atomic<int> callsBelow = 0;
    PnpCompletion completion;  ///< of the pause or restart in progress
    /// LookaheadSize as the module left it in its latest restart attributes.
    std::uint32_t lookaheadSize = 0;
};

}  // namespace netsieve::host
