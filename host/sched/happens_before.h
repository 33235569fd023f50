// What ThreadSanitizer is told of the order that the kernel and NDIS give to what drivers do. Empty
// without it.
//
// All contexts of a simulated run share one OS thread, and the host code that they pass through
// says nothing of the driver's own locks. So fibers are switched without synchronisation, accesses
// of the host are not looked at (cmake/tsan_ignored.txt, host/CMakeLists.txt), and each operation
// that a driver may rely on for an order says so here.
#pragma once

#include <cstddef>
#include <functional>

#include "host/sanitizers.h"

namespace netsieve::host {

/// True from when a machine loads an image: ThreadSanitizer does not see the atomic operations in
/// it that may order contexts, so each switch of fibers does.
inline bool g_unseenCodeRuns = false;

#ifdef NETSIEVE_TSAN

/// All that the context has done happens before whatever follows a NoteAcquire of the same address.
/// No memory there is touched.
void NoteRelease(const volatile void* address);
/// Whatever has been released at the address happened before what the context does from here on.
void NoteAcquire(const volatile void* address);
/// `routine`, for another context to call: what was done until now happens before it.
std::function<void()> AfterNow(std::function<void()> routine);
/// Nobody may use the memory any more: any use of it has to happen before this.
void NoteFreed(void* memory, std::size_t size);

#else

inline void NoteRelease(const volatile void*) {}
inline void NoteAcquire(const volatile void*) {}
inline std::function<void()> AfterNow(std::function<void()> routine) {
    return routine;
}
inline void NoteFreed(void*, std::size_t) {}

#endif

/// The object, an NBL, changes hands: what its holders have done happens before what the next does.
inline void NotePassedOn(const volatile void* object) {
    NoteAcquire(object);
    NoteRelease(object);
}

}  // namespace netsieve::host
