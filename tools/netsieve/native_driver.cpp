#include "tools/netsieve/native_driver.h"

#include "client/exports.h"
#include "config/system_information.h"
#include "driver/driver_entry.h"

namespace netsieve::tool {

PDRIVER_INITIALIZE NativeEntry() {
    return &DriverEntry;
}

void* NativeExport(std::string_view name) {
    static const struct {
        std::string_view name;
        void* address;
    } kExports[] = {
#define EXPORT(function) {#function, reinterpret_cast<void*>(&(function))}
        EXPORT(ITarnHKAttachFilter),     EXPORT(ITarnHKCompleteRequest),
        EXPORT(ITarnHKDeregisterFilter), EXPORT(ITarnHKDettachFilter),
        EXPORT(ITarnHKFlowControl),      EXPORT(ITarnHKGetAdapterInfo),
        EXPORT(ITarnHKGetBuffer),        EXPORT(ITarnHKGetBufferLength),
        EXPORT(ITarnHKGetProtocolInfo),  EXPORT(ITarnHKGetProtocolName),
        EXPORT(ITarnHKMarkPending),      EXPORT(ITarnHKQueryProtocolName),
        EXPORT(ITarnHKRegisterFilter),   EXPORT(ITarnHKRegisterFilterEx),
        EXPORT(ITarnHKSendPacket),       EXPORT(ITarnHKSystemInformationEx),
#undef EXPORT
    };
    for (const auto& entry : kExports) {
        if (entry.name == name) {
            return entry.address;
        }
    }
    return nullptr;
}

}  // namespace netsieve::tool
