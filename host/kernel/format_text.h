// Formatting with the platform's variadic calling convention.
#pragma once

#include <string>

#include "platform/kernel.h"

namespace netsieve::host {

struct FormattedText {
    std::string text;   ///< wide characters in UTF-8
    bool wide = false;  ///< a conversion of wide characters was among them
};

/// Formats as the kernel's printf family does: d i o u x X c C s S Z p and %%, with flags, width,
/// precision (both may be *) and the size prefixes h l ll w I I32 I64. Any other conversion is
/// copied as it stands; it takes its argument all the same.
FormattedText FormatText(const char* format, __builtin_ms_va_list arguments);

}  // namespace netsieve::host
