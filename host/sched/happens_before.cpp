#include "host/sched/happens_before.h"

#ifdef NETSIEVE_TSAN

#include <sanitizer/tsan_interface.h>

#include <cstddef>
#include <cstring>
#include <memory>

extern "C" {

// Of the runtime, but in no header.
void __tsan_read_range(const void* memory, std::size_t size);
void __tsan_write_range(void* memory, std::size_t size);

// The C library's functions are called by the host and the standard library too, of whose memory
// nothing is to be said. The driver's copies go through the functions below.
const char* __tsan_default_options() {
    return "ignore_interceptors_accesses=1";
}

void* NetsieveWatched_memcpy(void* destination, const void* source, std::size_t size) {
    __tsan_read_range(source, size);
    __tsan_write_range(destination, size);
    return std::memcpy(destination, source, size);
}

void* NetsieveWatched_memset(void* destination, int value, std::size_t size) {
    __tsan_write_range(destination, size);
    return std::memset(destination, value, size);
}

int NetsieveWatched_memcmp(const void* left, const void* right, std::size_t size) {
    __tsan_read_range(left, size);
    __tsan_read_range(right, size);
    return std::memcmp(left, right, size);
}

}  // extern "C"

namespace netsieve::host {

void NoteRelease(const volatile void* object) {
    __tsan_release(const_cast<void*>(object));
}

void NoteAcquire(const volatile void* object) {
    __tsan_acquire(const_cast<void*>(object));
}

std::function<void()> AfterNow(std::function<void()> routine) {
    auto start = std::make_shared<char>();
    NoteRelease(start.get());
    return [start, routine = std::move(routine)] {
        NoteAcquire(start.get());
        routine();
    };
}

void NoteFreed(void* memory, std::size_t size) {
    __tsan_write_range(memory, size);
}

}  // namespace netsieve::host

#endif
