#include "tools/netsieve/driver_exports.h"

#include "host/client/watched_exports.h"
#include "host/image/kernel_image.h"
#include "tools/netsieve/native_driver.h"

namespace netsieve::tool {

bool IsNative(const std::string& driver) {
    return driver == "native";
}

host::DriverSource SourceOf(const std::string& driver) {
    host::DriverSource source{.name = kDriverName};
    if (IsNative(driver)) {
        source.entry = NativeEntry();
    } else {
        source.image = driver;
    }
    return source;
}

void* FindExport(const host::LoadedDriver& driver, const char* name) {
    return driver.image() == nullptr ? NativeExport(name)
                                     : host::WatchedExport(name, driver.image()->FindExport(name));
}

std::optional<std::string> FindHookExports(const host::LoadedDriver& driver, HookExports& exports) {
    std::optional<std::string> missing;
    const auto find = [&](const char* name, auto& function) {
        function =
            reinterpret_cast<std::remove_reference_t<decltype(function)>>(FindExport(driver, name));
        if (function == nullptr && !missing) {
            missing = name;
        }
    };
    find("ITarnHKRegisterFilterEx", exports.registerFilter);
    find("ITarnHKDeregisterFilter", exports.deregisterFilter);
    find("ITarnHKFlowControl", exports.flowControl);
    find("ITarnHKAttachFilter", exports.attachFilter);
    find("ITarnHKDettachFilter", exports.detachFilter);
    find("ITarnHKGetBuffer", exports.getBuffer);
    find("ITarnHKGetBufferLength", exports.getBufferLength);
    find("ITarnHKGetProtocolName", exports.getProtocolName);
    find("ITarnHKGetAdapterInfo", exports.getAdapterInfo);
    find("ITarnHKMarkPending", exports.markPending);
    find("ITarnHKCompleteRequest", exports.completeRequest);
    find("ITarnHKSendPacket", exports.sendPacket);
    return missing;
}

}  // namespace netsieve::tool
