// The driver that a command uses, and its exports.
#pragma once

#include <optional>
#include <string>

#include "client/exports.h"
#include "host/loaded_driver.h"

namespace netsieve::tool {

/// The service name of the driver under test.
constexpr const char* kDriverName = "NETSIEVE";

/// True when the driver is the one that is built into the program.
bool IsNative(const std::string& driver);

/// What to load for `driver`: native, or the path of an image.
host::DriverSource SourceOf(const std::string& driver);

/// The address of a loaded driver's export as a client is bound to it, or null.
void* FindExport(const host::LoadedDriver& driver, const char* name);

/// The exports that hooks call, of the native driver or of an image.
struct HookExports {
    decltype(&ITarnHKRegisterFilterEx) registerFilter;
    decltype(&ITarnHKDeregisterFilter) deregisterFilter;
    decltype(&ITarnHKFlowControl) flowControl;
    decltype(&ITarnHKAttachFilter) attachFilter;
    decltype(&ITarnHKDettachFilter) detachFilter;
    decltype(&ITarnHKGetBuffer) getBuffer;
    decltype(&ITarnHKGetBufferLength) getBufferLength;
    decltype(&ITarnHKGetProtocolName) getProtocolName;
    decltype(&ITarnHKGetAdapterInfo) getAdapterInfo;
    decltype(&ITarnHKMarkPending) markPending;
    decltype(&ITarnHKCompleteRequest) completeRequest;
    decltype(&ITarnHKSendPacket) sendPacket;
};

/// Fills `exports` from a loaded driver. Returns the name of the first one it lacks, or nothing.
std::optional<std::string> FindHookExports(const host::LoadedDriver& driver, HookExports& exports);

}  // namespace netsieve::tool
