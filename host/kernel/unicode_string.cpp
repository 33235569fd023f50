// The runtime routines on counted strings.

#include <algorithm>
#include <cstring>

#include "platform/kernel.h"

extern "C" {

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    DestinationString->Length =
        SourceString == nullptr ? USHORT{0}
                                : std::min(SourceString->Length, DestinationString->MaximumLength);
    if (DestinationString->Length != 0) {
        std::memmove(DestinationString->Buffer, SourceString->Buffer, DestinationString->Length);
    }
}

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    USHORT bytes = 0;
    if (SourceString != nullptr) {
        while (SourceString[bytes / sizeof(WCHAR)] != 0) {
            bytes += sizeof(WCHAR);
        }
    }
    DestinationString->Length = bytes;
    DestinationString->MaximumLength =
        static_cast<USHORT>(SourceString == nullptr ? 0 : bytes + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

}  // extern "C"
