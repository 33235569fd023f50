#include "host/kernel/paged_memory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "host/sched/raise_hook.h"
#include "host/sched/scheduler.h"

namespace netsieve::host {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kReserve = std::size_t{1} << 30;

// What the signal handler reads. The stretch from `g_base` is of pages that are or were in use.
std::atomic<char*> g_base = nullptr;
std::atomic<std::size_t> g_used = 0;
std::atomic<bool> g_accessible = true;
thread_local unsigned t_hostAccess = 0;

/// Which pages are given out, and those to use again by their number.
struct Books {
    HostMutex mutex;
    std::map<void*, std::size_t> sizes;
    std::map<std::size_t, std::vector<void*>> free;
    std::size_t inUse = 0;
};

Books& TheBooks() {
    static Books books;
    return books;
}

void TakeAway() {
    if (t_hostAccess == 0 && g_accessible.exchange(false)) {
        mprotect(g_base, g_used, PROT_NONE);
    }
}

/// `size` bytes of the reserve that were never in use; null when it is used up.
void* TakeFresh(std::size_t size) {
    if (g_base == nullptr) {
        void* const reserve =
            mmap(nullptr, kReserve, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (reserve == MAP_FAILED) {
            return nullptr;
        }
        g_base = static_cast<char*>(reserve);
    }
    if (kReserve - g_used < size) {
        return nullptr;
    }
    void* const fresh = g_base + g_used;
    g_used += size;
    PagedMemory::Release();
    return fresh;
}

}  // namespace

void* PagedMemory::Allocate(std::size_t size) {
    const std::size_t whole = (size + kPage - 1) / kPage * kPage;
    Books& books = TheBooks();
    HostLock lock(books.mutex);
    std::vector<void*>& free = books.free[whole];
    void* block = nullptr;
    if (free.empty()) {
        block = TakeFresh(whole);
    } else {
        block = free.back();
        free.pop_back();
    }
    if (block != nullptr) {
        books.sizes[block] = whole;
        ++books.inUse;
        g_raiseHook = &TakeAway;
    }
    return block;
}

void PagedMemory::Retire() {
    Books& books = TheBooks();
    HostLock lock(books.mutex);
    if (--books.inUse == 0) {
        g_raiseHook = nullptr;
        Release();
    }
}

void PagedMemory::Free(void* block) {
    Books& books = TheBooks();
    HostLock lock(books.mutex);
    const auto it = books.sizes.find(block);
    books.free[it->second].push_back(block);
    books.sizes.erase(it);
}

bool PagedMemory::Contains(const void* address) {
    const auto offset =
        reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(g_base.load());
    return g_base != nullptr && offset < g_used;
}

// Whatever g_accessible says: another thread may be about to take the pages away.
void PagedMemory::Release() {
    if (g_base != nullptr) {
        mprotect(g_base, g_used, PROT_READ | PROT_WRITE);
        g_accessible = true;
    }
}

PagedMemory::HostAccess::HostAccess() {
    if (t_hostAccess++ == 0 && !g_accessible) {
        Release();
    }
}

PagedMemory::HostAccess::~HostAccess() {
    if (--t_hostAccess == 0 && t_context != nullptr && t_context->irql >= DISPATCH_LEVEL) {
        CallRaiseHook();
    }
}

bool PagedMemory::HostAccess::Active() {
    return t_hostAccess != 0;
}

}  // namespace netsieve::host
