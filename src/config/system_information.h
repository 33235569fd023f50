// The export that is not about packets.
#pragma once

#include "platform/kernel.h"

constexpr LONG SYSINFO_CLASS_VERSION = 0;
constexpr LONG SYSINFO_CLASS_ADD_BOOT_FILTER = 6;
constexpr LONG SYSINFO_CLASS_REMOVE_BOOT_FILTER = 7;

// Does what `InformationClass` says:
//   SYSINFO_CLASS_VERSION             copies the driver's version, 8-bit and with its NUL, to
//   Buffer.
//                                     *BufferSize must exceed its 8 bytes, else
//                                     STATUS_INFO_LENGTH_MISMATCH. Any IRQL.
//   SYSINFO_CLASS_ADD_BOOT_FILTER     Buffer is a NUL-terminated wide name: see AddBootFilterName.
//   SYSINFO_CLASS_REMOVE_BOOT_FILTER  the same, see RemoveBootFilterName.
// STATUS_INVALID_PARAMETER for a missing pointer, STATUS_NOT_SUPPORTED for any other class.
// `Unused` is not read, and only the first class reads `BufferSize`.
extern "C" NTSTATUS NTAPI ITarnHKSystemInformationEx(PVOID Unused,
                                                     LONG InformationClass,
                                                     PVOID Buffer,
                                                     PULONG BufferSize);
