#include "host/kernel/format_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "host/machine.h"

namespace netsieve::host {

namespace {

/// One conversion: the flags, width and precision as they stand, the operand's size, the letter.
struct Conversion {
    std::string prefix = "%";
    bool wide = false;
    char letter = 0;
};

const char* Parse(const char* at, Conversion& conversion) {
    while (*at != '\0' && std::strchr("-+ #0123456789.", *at) != nullptr) {
        conversion.prefix += *at++;
    }
    if (std::strncmp(at, "I64", 3) == 0) {
        conversion.wide = true;
        at += 3;
    }
    while (*at == 'l' || *at == 'h') {
        // A single l is 32 bits on the platform; only the double one widens.
        conversion.wide = conversion.wide || (at[0] == 'l' && at[1] == 'l');
        if (*at == 'h') {
            conversion.prefix += 'h';
        }
        ++at;
    }
    conversion.letter = *at;
    return *at == '\0' ? at : at + 1;
}

template <typename Value>
std::string Print(const std::string& prefix, const char* suffix, Value value) {
    const std::string format = prefix + suffix;
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, format.c_str(), value)),
                     '\0');
    std::snprintf(text.data(), text.size() + 1, format.c_str(), value);
    return text;
}

}  // namespace

std::string FormatText(const char* format, __builtin_ms_va_list arguments) {
    std::string text;
    for (const char* at = format; *at != '\0';) {
        if (*at != '%') {
            text += *at++;
            continue;
        }
        Conversion conversion;
        const char* const start = at;
        at = Parse(at + 1, conversion);
        switch (conversion.letter) {
            case 'd':
            case 'i':
                text +=
                    conversion.wide
                        ? Print(conversion.prefix, "lld", __builtin_va_arg(arguments, long long))
                        : Print(conversion.prefix, "d", __builtin_va_arg(arguments, int));
                break;
            case 'u':
            case 'x':
            case 'X': {
                const std::string suffix(1, conversion.letter);
                text += conversion.wide ? Print(conversion.prefix, ("ll" + suffix).c_str(),
                                                __builtin_va_arg(arguments, unsigned long long))
                                        : Print(conversion.prefix, suffix.c_str(),
                                                __builtin_va_arg(arguments, unsigned));
                break;
            }
            case 'c':
                text += Print(conversion.prefix, "c", __builtin_va_arg(arguments, int));
                break;
            case 's': {
                const char* const string = __builtin_va_arg(arguments, const char*);
                text += Print(conversion.prefix, "s", string == nullptr ? "(null)" : string);
                break;
            }
            case 'p':
                text += Print("%016", "llX", __builtin_va_arg(arguments, unsigned long long));
                break;
            case '%':
                text += '%';
                break;
            default:
                text.append(start, at);
        }
    }
    return text;
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

ULONG NTAPI DbgPrint(PCSTR Format, ...) {
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, Format);
    const std::string text = FormatText(Format, arguments);
    __builtin_ms_va_end(arguments);
    if (!g_plainMode) {
        Machine::Current().scheduler().Point(PointKind::kCall);  // at any IRQL
    }
    Machine::Current().WriteDebug(text);
    return STATUS_SUCCESS;
}

// The driver's sprintf: see platform/runtime.h for why it is not called that here.
int NTAPI NetsieveRuntime_sprintf(char* buffer, const char* format, ...) {
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const std::string text = FormatText(format, arguments);
    __builtin_ms_va_end(arguments);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    DestinationString->Length = 0;
    if (SourceString != nullptr) {
        DestinationString->Length =
            std::min(SourceString->Length, DestinationString->MaximumLength);
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
