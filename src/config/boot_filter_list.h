// The boot filter list: names that hook filters keep in the driver's service key. Nothing of it is
// kept in memory.
#pragma once

#include "platform/kernel.h"

// The values of the service key. BtFltNames is a REG_MULTI_SZ and does not exist while the list is
// empty; BtFlag tells whether a name was last added or the list was last emptied.
constexpr WCHAR BOOT_LIST_KEY[] = u"SYSTEM\\CurrentControlSet\\Services\\NetSieve";
constexpr WCHAR BOOT_LIST_VALUE[] = u"BtFltNames";
constexpr WCHAR BOOT_FLAG_VALUE[] = u"BtFlag";
constexpr ULONG BOOT_FLAG_LIST_PRESENT = 0x2F719E1F;
constexpr ULONG BOOT_FLAG_LIST_EMPTY = 0x63243B22;

// What a list may come to when it is written, closing NUL included, and what can be read back. The
// difference leaves room for a name behind any list that was read, and zeros behind both.
constexpr ULONG BOOT_LIST_BUFFER_CHARS = 520;
constexpr ULONG BOOT_LIST_READ_LIMIT = 520;  // bytes

// Before either operation below, and once.
void InitializeBootFilterList();

// The two operations change the stored list one at a time and wait for each other. `name` is not
// NULL. An empty name gives STATUS_INVALID_PARAMETER, an IRQL above PASSIVE_LEVEL
// STATUS_INVALID_LEVEL, a service key that cannot be opened the kernel's status.

// Adds a name, unless it is in the list already in any case of letters. STATUS_NAME_TOO_LONG when
// it does not fit behind the stored names. A list that exists and cannot be read fails with the
// status of reading it, for the names in it must not be lost.
NTSTATUS AddBootFilterName(PCWSTR name);

// If the name is in the list, in any case of letters, removes every entry that contains it in
// exactly this case; removing the last entry deletes the value. STATUS_SUCCESS when the name is not
// in the list, the status of reading it when that cannot be known.
NTSTATUS RemoveBootFilterName(PCWSTR name);

// Whether one of the strings in `list` equals `name` in any case of letters. `size` is in bytes;
// behind them there must be a NUL. Empty strings are passed over.
BOOLEAN IsNameInMultiSz(PCWSTR list, ULONG size, PCWSTR name);

// Copies the strings up to the first empty one that do not contain `name` in exactly this case, and
// a closing NUL, to `kept`, which must have room for all of them. *keptSize becomes the size in
// bytes. FALSE when an argument is missing.
BOOLEAN SplitMultiSz(PCWSTR name, PCWSTR list, PWSTR kept, PULONG keptSize);
