// What drivers print, and format for themselves.

#include <cstring>

#include "host/kernel/format_text.h"
#include "host/machine.h"

using namespace netsieve::host;

extern "C" {

ULONG NTAPI DbgPrint(PCSTR Format, ...) {
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, Format);
    FormattedText formatted = FormatText(Format, arguments);
    __builtin_ms_va_end(arguments);
    Machine& machine = Machine::Current();
    if (!g_plainMode) {
        machine.scheduler().Point(PointKind::kCall);  // at any IRQL, but for wide characters
    }
    if (formatted.wide) {
        machine.verifier().DemandPassive("DbgPrint of wide characters");
    }
    machine.WriteDebug(std::move(formatted.text));
    return STATUS_SUCCESS;
}

// The driver's sprintf: see platform/runtime.h for why it is not called that here.
int NTAPI NetsieveRuntime_sprintf(char* buffer, const char* format, ...) {
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    const std::string text = FormatText(format, arguments).text;
    __builtin_ms_va_end(arguments);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

}  // extern "C"
