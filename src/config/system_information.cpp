#include "config/system_information.h"

#include "config/boot_filter_list.h"
#include "platform/runtime.h"

namespace {

constexpr CHAR DRIVER_VERSION[] = "4,9,0,1";

NTSTATUS QueryDriverVersion(PVOID buffer, ULONG size) {
    if (buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (size <= sizeof(DRIVER_VERSION)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    memcpy(buffer, DRIVER_VERSION, sizeof(DRIVER_VERSION));
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" NTSTATUS NTAPI ITarnHKSystemInformationEx(PVOID,
                                                     LONG InformationClass,
                                                     PVOID Buffer,
                                                     PULONG BufferSize) {
    switch (InformationClass) {
        case SYSINFO_CLASS_VERSION:
            return BufferSize == nullptr ? STATUS_INVALID_PARAMETER
                                         : QueryDriverVersion(Buffer, *BufferSize);
        case SYSINFO_CLASS_ADD_BOOT_FILTER:
            return Buffer == nullptr ? STATUS_INVALID_PARAMETER
                                     : AddBootFilterName(static_cast<PCWSTR>(Buffer));
        case SYSINFO_CLASS_REMOVE_BOOT_FILTER:
            return Buffer == nullptr ? STATUS_INVALID_PARAMETER
                                     : RemoveBootFilterName(static_cast<PCWSTR>(Buffer));
        default:
            return STATUS_NOT_SUPPORTED;
    }
}
