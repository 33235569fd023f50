#include "host/kernel/unmapped_memory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <new>

namespace netsieve::host {

namespace {

// An MDL's data may be as long as a large send.
constexpr std::size_t kSize = 1024 * 1024;

std::atomic<char*> g_start = nullptr;

char* Reserve() {
    void* const reserve =
        mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserve == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return static_cast<char*>(reserve);
}

}  // namespace

void* UnmappedMemory::Start() {
    static char* const start = Reserve();
    g_start = start;
    return start;
}

std::size_t UnmappedMemory::Offset(const void* address) {
    return reinterpret_cast<std::uintptr_t>(address) -
           reinterpret_cast<std::uintptr_t>(g_start.load());
}

bool UnmappedMemory::Contains(const void* address) {
    return g_start != nullptr && Offset(address) < kSize;
}

bool UnmappedMemory::Open() {
    return mprotect(g_start, kSize, PROT_READ | PROT_WRITE) == 0;
}

void UnmappedMemory::Close() {
    madvise(g_start, kSize, MADV_DONTNEED);
    mprotect(g_start, kSize, PROT_NONE);
}

}  // namespace netsieve::host
