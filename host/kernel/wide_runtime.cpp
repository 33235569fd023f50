// The runtime routines on wide strings, under the names that the driver's calls are bound to.

#include <string_view>

#include "platform/kernel.h"

namespace {

// The kernel has no locale, and without one only these letters have two cases.
int Fold(WCHAR character) {
    return character >= u'A' && character <= u'Z' ? character + (u'a' - u'A') : character;
}

}  // namespace

extern "C" {

PWSTR NTAPI NetsieveRuntime_wcsstr(PCWSTR text, PCWSTR part) {
    const std::u16string_view whole(text);
    const std::size_t at = whole.find(part);
    return at == whole.npos ? nullptr : const_cast<PWSTR>(text + at);
}

int NTAPI NetsieveRuntime__wcsicmp(PCWSTR left, PCWSTR right) {
    while (*left != u'\0' && Fold(*left) == Fold(*right)) {
        ++left;
        ++right;
    }
    return Fold(*left) - Fold(*right);
}

}  // extern "C"
