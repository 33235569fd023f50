// Runtime routines that ntoskrnl.exe exports under names the C library has too. Driver sources
// include this header; host sources must not, since they see the C library's declarations.
//
// The native build binds each name to a symbol of the host's own, so that neither the calling
// convention nor the width of a wide character can be mixed up with the C library's.
#pragma once

#include "platform/types.h"

#if defined(NETSIEVE_NATIVE)
#define RUNTIME_SYMBOL(name) __asm__("NetsieveRuntime_" #name)
#else
#define RUNTIME_SYMBOL(name)
#endif

extern "C" {

// Formats into `buffer` (unbounded, as published) and returns the characters written without the
// NUL. Any IRQL for formats without wide strings.
NTIMPORT int NTAPI sprintf(char* buffer, const char* format, ...) RUNTIME_SYMBOL(sprintf);

// The first place in `text` where `part` occurs, compared exactly, or NULL. An empty `part` occurs
// at the start.
NTIMPORT PWSTR NTAPI wcsstr(PCWSTR text, PCWSTR part) RUNTIME_SYMBOL(wcsstr);
// 0 when the strings are equal but for the case of letters; else which of them sorts first.
NTIMPORT int NTAPI _wcsicmp(PCWSTR left, PCWSTR right) RUNTIME_SYMBOL(_wcsicmp);

// Sorts `count` elements of `size` bytes in ascending order. `compare` is negative, 0 or positive
// as its left argument goes before, with or behind its right one. Not stable.
NTIMPORT VOID NTAPI qsort(void* elements,
                          SIZE_T count,
                          SIZE_T size,
                          int(NTAPI* compare)(const void* left, const void* right))
    RUNTIME_SYMBOL(qsort);

// The compiler's own names, also called for copies it generates.
void* memcpy(void* destination, const void* source, SIZE_T size);
void* memset(void* destination, int value, SIZE_T size);
int memcmp(const void* left, const void* right, SIZE_T size);

}  // extern "C"

inline void RtlZeroMemory(void* destination, SIZE_T size) {
    memset(destination, 0, size);
}

// Length in characters of a NUL-terminated wide string.
inline SIZE_T WideStringLength(PCWSTR text) {
    SIZE_T length = 0;
    while (text[length] != u'\0') {
        ++length;
    }
    return length;
}

// Length in characters of a NUL-terminated 8-bit string.
inline SIZE_T CharStringLength(PCSTR text) {
    SIZE_T length = 0;
    while (text[length] != '\0') {
        ++length;
    }
    return length;
}
