#include "tools/netsieve/native_driver.h"

#include "config/system_information.h"
#include "driver/driver_entry.h"
#include "host/client/driver_exports.h"

namespace netsieve::tool {

PDRIVER_INITIALIZE NativeEntry() {
    return &DriverEntry;
}

void* NativeExport(std::string_view name) {
    static const struct {
        std::string_view name;
        void* address;
    } kExports[] = {
#define NETSIEVE_EXPORT(function) {#function, reinterpret_cast<void*>(&(function))},
        NETSIEVE_CLIENT_EXPORTS(NETSIEVE_EXPORT)
#undef NETSIEVE_EXPORT
    };
    for (const auto& entry : kExports) {
        if (entry.name == name) {
            return entry.address;
        }
    }
    return nullptr;
}

}  // namespace netsieve::tool
