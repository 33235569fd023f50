// The runtime routines on wide strings, and sorting, under the names that the driver's calls are
// bound to.

#include <cstdlib>
#include <string_view>

#include "platform/kernel.h"

namespace {

// The kernel has no locale, and without one only these letters have two cases.
int Fold(WCHAR character) {
    return character >= u'A' && character <= u'Z' ? character + (u'a' - u'A') : character;
}

using Compare = int(NTAPI*)(const void* left, const void* right);

int CallCompare(const void* left, const void* right, void* compare) {
    return (*static_cast<Compare*>(compare))(left, right);
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

// The comparison is carried along as an argument: it may be a scheduling point, and the fiber that
// runs next may sort too.
VOID NTAPI NetsieveRuntime_qsort(void* elements, SIZE_T count, SIZE_T size, Compare compare) {
    qsort_r(elements, count, size, CallCompare, &compare);
}

}  // extern "C"
