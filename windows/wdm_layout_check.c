// The rows that kernel.h asserts for our declarations, asserted for the toolchain's. C, because its
// driver headers do not compile as C++.
#include <ddk/wdm.h>
#include <stddef.h>

#define LAYOUT_SIZE(record, bytes) \
    _Static_assert(sizeof(record) == (bytes), "size of " #record " in the driver headers");
#define LAYOUT_FIELD(record, field, offset)             \
    _Static_assert(offsetof(record, field) == (offset), \
                   "offset of " #record "." #field " in the driver headers");
#include "platform/kernel_layout.inc"
