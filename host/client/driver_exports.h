// The exports that the driver has for hooks, and which of them a name means.
#pragma once

#include <string_view>

#include "client/exports.h"

namespace netsieve::host {

// clang-format off
#define NETSIEVE_CLIENT_EXPORTS(X)                                                              \
    X(ITarnHKAttachFilter) X(ITarnHKCompleteRequest) X(ITarnHKDeregisterFilter)                 \
    X(ITarnHKDettachFilter) X(ITarnHKFlowControl) X(ITarnHKGetAdapterInfo) X(ITarnHKGetBuffer)  \
    X(ITarnHKGetBufferLength) X(ITarnHKGetProtocolInfo) X(ITarnHKGetProtocolName)               \
    X(ITarnHKMarkPending) X(ITarnHKQueryProtocolName) X(ITarnHKRegisterFilter)                  \
    X(ITarnHKRegisterFilterEx) X(ITarnHKSendPacket) X(ITarnHKSystemInformationEx)
// clang-format on

/// Where the exports of one driver are: the functions themselves, not what watches them.
struct DriverExports {
#define NETSIEVE_EXPORT_POINTER(name) decltype(&::name) name = nullptr;
    NETSIEVE_CLIENT_EXPORTS(NETSIEVE_EXPORT_POINTER)
#undef NETSIEVE_EXPORT_POINTER
};

}  // namespace netsieve::host
