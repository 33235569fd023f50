// In a search build every plain load and store of the driver calls one of these, and of a hook
// driver that is built so: a scheduling point just before the access, so that a forgotten lock
// around a plain field is found too.

#include <cstdint>

#include "host/machine.h"

namespace {

// An access near the current frame is the running context's own stack, which nobody shares.
constexpr std::uintptr_t kStackReach = 64 * 1024;

void MemoryPoint(const void* address) {
    using namespace netsieve::host;
    const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    const auto target = reinterpret_cast<std::uintptr_t>(address);
    const bool onStack = target + kStackReach > frame && target < frame + kStackReach;
    if (t_context != nullptr && !onStack) {
        Machine::Current().scheduler().Point(PointKind::kMemory);
    }
}

}  // namespace

extern "C" {
// The names are the compiler's.
void __sanitizer_cov_load1(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_load2(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_load4(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_load8(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_load16(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_store1(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_store2(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_store4(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_store8(const void* address) {
    MemoryPoint(address);
}
void __sanitizer_cov_store16(const void* address) {
    MemoryPoint(address);
}
}  // extern "C"
