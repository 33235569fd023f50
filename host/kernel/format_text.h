// Formatting with the platform's variadic calling convention.
#pragma once

#include <string>

namespace netsieve::host {

/// Formats as the kernel's printf family does: d i u x X c s p with flags, width, precision and the
/// size prefixes h l ll I64, and %%. Anything else is copied as it stands.
std::string FormatText(const char* format, __builtin_ms_va_list arguments);

}  // namespace netsieve::host
