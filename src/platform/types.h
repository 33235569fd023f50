// Base types of 64-bit Windows, fixed in width on every compiler that builds the driver.
#pragma once

#include <cstddef>
#include <cstdint>

// The image is compiled by a Windows compiler, whose only calling convention on x64 is the
// platform's. The native build runs inside a Linux process and has to ask for it, on everything
// that crosses the boundary in either direction; one host then serves both builds.
#if defined(_WIN32)
#define NTAPI
#define NTIMPORT __attribute__((dllimport))
#else
#define NETSIEVE_NATIVE 1
#define NTAPI __attribute__((ms_abi))
#define NTIMPORT
#endif

// On a routine that never leaves the driver and is called by NTAPI routines of the data path. The
// native build calls it in the same convention: an NTAPI routine that calls one of the other has to
// save ten vector registers first, which costs more than the rest of a pass-through.
#define FASTABI NTAPI

using VOID = void;
using PVOID = void*;
using CHAR = char;
using UCHAR = std::uint8_t;
using BOOLEAN = std::uint8_t;
using USHORT = std::uint16_t;
using SHORT = std::int16_t;
using CSHORT = std::int16_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using UINT = std::uint32_t;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using ULONG_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using WCHAR = char16_t;
using PCHAR = CHAR*;
using PUCHAR = UCHAR*;
using PBOOLEAN = BOOLEAN*;
using PULONG = ULONG*;
using PWSTR = WCHAR*;
using PCSTR = const CHAR*;
using PCWSTR = const WCHAR*;
using NTSTATUS = std::int32_t;
using HANDLE = void*;
using PHANDLE = HANDLE*;
using ACCESS_MASK = ULONG;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

// Statuses, as published. The top bit marks an error.
constexpr NTSTATUS MakeStatus(std::uint32_t code) {
    return static_cast<NTSTATUS>(code);
}
constexpr NTSTATUS STATUS_SUCCESS = 0;
constexpr NTSTATUS STATUS_TIMEOUT = 0x00000102;
constexpr NTSTATUS STATUS_BUFFER_OVERFLOW = MakeStatus(0x80000005);
constexpr NTSTATUS STATUS_UNSUCCESSFUL = MakeStatus(0xC0000001);
constexpr NTSTATUS STATUS_INFO_LENGTH_MISMATCH = MakeStatus(0xC0000004);
constexpr NTSTATUS STATUS_INVALID_PARAMETER = MakeStatus(0xC000000D);
constexpr NTSTATUS STATUS_NO_MEMORY = MakeStatus(0xC0000017);
constexpr NTSTATUS STATUS_BUFFER_TOO_SMALL = MakeStatus(0xC0000023);
constexpr NTSTATUS STATUS_OBJECT_NAME_NOT_FOUND = MakeStatus(0xC0000034);
constexpr NTSTATUS STATUS_OBJECT_NAME_COLLISION = MakeStatus(0xC0000035);
constexpr NTSTATUS STATUS_INSUFFICIENT_RESOURCES = MakeStatus(0xC000009A);
constexpr NTSTATUS STATUS_NOT_SUPPORTED = MakeStatus(0xC00000BB);
constexpr NTSTATUS STATUS_NAME_TOO_LONG = MakeStatus(0xC0000106);
constexpr NTSTATUS STATUS_OPEN_FAILED = MakeStatus(0xC0000136);
constexpr NTSTATUS STATUS_INVALID_LEVEL = MakeStatus(0xC0000148);

constexpr bool NT_SUCCESS(NTSTATUS status) {
    return status >= 0;
}

struct LIST_ENTRY {
    LIST_ENTRY* Flink;
    LIST_ENTRY* Blink;
};
using PLIST_ENTRY = LIST_ENTRY*;

// A counted string: Length and MaximumLength are bytes, and no NUL is promised.
struct UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
};
using PUNICODE_STRING = UNICODE_STRING*;
using PCUNICODE_STRING = const UNICODE_STRING*;

struct ANSI_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
};
using PANSI_STRING = ANSI_STRING*;

union LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;

// The record that holds `field` at `address`.
#define CONTAINING_RECORD(address, type, field) \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(address) - offsetof(type, field)))
