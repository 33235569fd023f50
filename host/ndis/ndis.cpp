#include "host/ndis/ndis.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/machine.h"

namespace netsieve::host {

namespace {

bool IsNamed(const NDIS_FILTER_DRIVER_CHARACTERISTICS& characteristics) {
    return characteristics.FriendlyName.Length != 0 && characteristics.UniqueName.Length != 0 &&
           characteristics.ServiceName.Length != 0;
}

}  // namespace

Ndis::Ndis(Machine& machine) : machine_(machine), nblPools_(machine) {}
Ndis::~Ndis() = default;

Stack& Ndis::AddAdapter(AdapterOptions options) {
    auto made = std::make_unique<Stack>(machine_, std::move(options));
    Stack& stack = *made;
    stack.AddProtocol(u"TCPIP");
    std::vector<FilterRegistration*> registrations;
    {
        HostLock lock(mutex_);
        stacks_.push_back(std::move(made));
        present_.push_back(&stack);
        for (const auto& registration : registrations_) {
            if (!registration->gone) {
                registrations.push_back(registration.get());
            }
        }
    }
    const AdapterOptions& adapter = stack.adapter().options();
    for (FilterRegistration* registration : registrations) {
        if (adapter.medium == NdisMedium802_3 || adapter.bindAnyway) {
            stack.Attach(*registration);
        }
    }
    stack.Restart();
    return stack;
}

void Ndis::RemoveAdapter(Stack& stack) {
    {
        HostLock lock(mutex_);
        std::erase(present_, &stack);
    }
    stack.Pause();
    while (!stack.modules().empty()) {
        stack.Detach(*stack.modules().front());
    }
}

std::vector<Stack*> Ndis::Stacks() {
    HostLock lock(mutex_);
    return present_;
}

NDIS_STATUS Ndis::RegisterFilter(PDRIVER_OBJECT driverObject,
                                 NDIS_HANDLE context,
                                 const NDIS_FILTER_DRIVER_CHARACTERISTICS& characteristics,
                                 PNDIS_HANDLE handle) {
    constexpr USHORT kRevision1Size = 200;
    const NDIS_OBJECT_HEADER& header = characteristics.Header;
    if (header.Type != NDIS_OBJECT_TYPE_FILTER_DRIVER_CHARACTERISTICS || header.Revision < 1 ||
        header.Size < kRevision1Size || characteristics.AttachHandler == nullptr ||
        characteristics.DetachHandler == nullptr || characteristics.RestartHandler == nullptr ||
        characteristics.PauseHandler == nullptr) {
        return NDIS_STATUS_BAD_CHARACTERISTICS;
    }
    if (!IsNamed(characteristics)) {
        return NDIS_STATUS_BAD_CHARACTERISTICS;
    }
    const unsigned version = static_cast<unsigned>(characteristics.MajorNdisVersion) << 16 |
                             characteristics.MinorNdisVersion;
    if (characteristics.MajorNdisVersion != 6 || version > machine_.options().ndisVersion) {
        return NDIS_STATUS_BAD_VERSION;
    }
    if (machine_.faults().Fails(FaultKind::kFilterRegistration)) {
        return NDIS_STATUS_RESOURCES;
    }
    auto made = std::make_unique<FilterRegistration>();
    FilterRegistration& registration = *made;
    registration.driver = machine_.DriverOf(driverObject);
    registration.context = context;
    std::memcpy(&registration.handlers, &characteristics, kRevision1Size);
    {
        HostLock lock(mutex_);
        registrations_.push_back(std::move(made));
    }
    *handle = &registration;
    if (attachTiming_ == AttachTiming::kInline) {
        AttachToAll(registration);
    } else {
        registration.pnpThread =
            machine_.scheduler().Start({.name = "attach", .processor = machine_.AnyProcessor()},
                                       [this, &registration] { AttachToAll(registration); });
    }
    return NDIS_STATUS_SUCCESS;
}

void Ndis::AttachToAll(FilterRegistration& registration) {
    for (Stack* stack : Stacks()) {
        const AdapterOptions& adapter = stack->adapter().options();
        if (adapter.medium == NdisMedium802_3 || adapter.bindAnyway) {
            stack->Attach(registration);
        }
    }
}

FilterRegistration* Ndis::Find(NDIS_HANDLE handle) {
    HostLock lock(mutex_);
    const auto it =
        std::find_if(registrations_.begin(), registrations_.end(),
                     [&](const auto& entry) { return entry.get() == handle && !entry->gone; });
    return it == registrations_.end() ? nullptr : it->get();
}

void Ndis::DeregisterFilter(NDIS_HANDLE handle) {
    FilterRegistration* const registration = Find(handle);
    if (registration == nullptr) {
        machine_.verifier().Report(Rule::kPoolDoubleFree,
                                   "NdisFDeregisterFilterDriver of what is not registered");
        return;
    }
    registration->deregistering = true;
    if (registration->pnpThread != 0) {
        machine_.scheduler().Join(registration->pnpThread);
    }
    for (Stack* stack : Stacks()) {
        stack->DetachDriver(registration->driver);
    }
    HostLock lock(mutex_);
    registration->gone = true;
}

void Ndis::WaitForAttaches(LoadedDriver* driver) {
    std::uint32_t thread = 0;
    {
        HostLock lock(mutex_);
        for (const auto& registration : registrations_) {
            const bool its = registration->driver == driver && !registration->gone;
            thread = its ? registration->pnpThread : thread;
        }
    }
    if (thread != 0) {
        machine_.scheduler().Join(thread);
    }
}

bool Ndis::IsRegistered(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return std::any_of(registrations_.begin(), registrations_.end(),
                       [&](const auto& entry) { return entry->driver == driver && !entry->gone; });
}

std::size_t Ndis::Registrations() {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(registrations_.begin(), registrations_.end(),
                      [](const auto& registration) { return !registration->gone; }));
}

FilterModule* Ndis::ModuleOf(NDIS_HANDLE handle) {
    HostLock lock(mutex_);
    const auto it = handles_.find(handle);
    return it == handles_.end() ? nullptr : it->second;
}

void Ndis::AddHandle(FilterModule& module) {
    HostLock lock(mutex_);
    handles_[module.handle()] = &module;
}

void Ndis::RemoveHandle(FilterModule& module) {
    HostLock lock(mutex_);
    handles_.erase(module.handle());
}

void Ndis::ForgetRange(const void* start, std::size_t size) {
    const auto* first = static_cast<const char*>(start);
    HostLock lock(mutex_);
    for (const auto& [handle, module] : handles_) {
        const auto* context = static_cast<const char*>(module->context);
        if (context >= first && context < first + size && module->callsBelow != 0) {
            machine_.verifier().Report(
                Rule::kModuleFreedInUse,
                fmt::format("the context of {} is freed while {} call(s) are inside it",
                            module->component.name, module->callsBelow.load()));
        }
    }
}

void Ndis::ReportLostNbls() {
    if (machine_.verifier().enabled()) {
        nblPools_.tracker().ReportOutstanding("the run has ended");
    }
}

}  // namespace netsieve::host

using namespace netsieve::host;

namespace {

bool InsideCallback(const char* routine) {
    for (const CallFrame* frame = CurrentContext().frame; frame != nullptr; frame = frame->outer) {
        if (std::strcmp(frame->routine, routine) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" {

NDIS_STATUS NTAPI NdisFRegisterFilterDriver(
    PDRIVER_OBJECT DriverObject,
    NDIS_HANDLE FilterDriverContext,
    PNDIS_FILTER_DRIVER_CHARACTERISTICS FilterCharacteristics,
    PNDIS_HANDLE NdisFilterDriverHandle) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("NdisFRegisterFilterDriver");
    machine.EnterCall("NdisFRegisterFilterDriver");
    return machine.ndis().RegisterFilter(DriverObject, FilterDriverContext, *FilterCharacteristics,
                                         NdisFilterDriverHandle);
}

VOID NTAPI NdisFDeregisterFilterDriver(NDIS_HANDLE NdisFilterDriverHandle) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("NdisFDeregisterFilterDriver");
    machine.EnterCall("NdisFDeregisterFilterDriver");
    if (!InsideCallback("DriverUnload") && !InsideCallback("DriverEntry")) {
        machine.verifier().Report(Rule::kDeregisteredElsewhere,
                                  "NdisFDeregisterFilterDriver outside the unload routine");
    }
    machine.ndis().DeregisterFilter(NdisFilterDriverHandle);
}

NDIS_STATUS NTAPI NdisFSetAttributes(NDIS_HANDLE NdisFilterHandle,
                                     NDIS_HANDLE FilterModuleContext,
                                     PNDIS_FILTER_ATTRIBUTES FilterAttributes) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("NdisFSetAttributes");
    machine.EnterCall("NdisFSetAttributes");
    FilterModule* const module = machine.ndis().ModuleOf(NdisFilterHandle);
    if (module == nullptr || module->attributesSet ||
        FilterAttributes->Header.Type != NDIS_OBJECT_TYPE_FILTER_ATTRIBUTES ||
        FilterAttributes->Header.Revision != 1 ||
        FilterAttributes->Header.Size < sizeof(NDIS_FILTER_ATTRIBUTES)) {
        return NDIS_STATUS_INVALID_PARAMETER;
    }
    if (FilterAttributes->Flags != 0) {
        machine.verifier().Report(Rule::kAttachAttributes,
                                  fmt::format("{}: Flags of its NDIS_FILTER_ATTRIBUTES is {:#x}",
                                              module->component.name, FilterAttributes->Flags));
    }
    if (machine.faults().Fails(FaultKind::kFilterAttributes)) {
        return NDIS_STATUS_RESOURCES;
    }
    module->attributesSet = true;
    module->context = FilterModuleContext;
    return NDIS_STATUS_SUCCESS;
}

UINT NTAPI NdisGetVersion(VOID) {
    return Machine::Current().options().ndisVersion;
}

}  // extern "C"
