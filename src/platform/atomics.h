// Interlocked operations and the accessors for fields that are read without their lock.
//
// In the native build each of them calls PlatformAtomicHook when the host has set it, before the
// operation and, where that may let someone else go on, behind it too: the simulated scheduler may
// switch to another processor there.
#pragma once

#include "platform/types.h"

#if defined(NETSIEVE_NATIVE)
extern "C" void(NTAPI* PlatformAtomicHook)(const volatile void* address);
inline void AtomicPoint(const volatile void* address) {
    if (__builtin_expect(PlatformAtomicHook != nullptr, 0)) {
        PlatformAtomicHook(address);
    }
}

template <typename Operation>
[[gnu::noinline, gnu::cold]] auto FASTABI BetweenPointsSlowly(const volatile void* address,
                                                              Operation operation) {
    PlatformAtomicHook(address);
    const auto result = operation();
    PlatformAtomicHook(address);
    return result;
}

// One test of the hook for both points, and none of the slow way's registers on the fast one.
template <typename Operation>
inline auto BetweenPoints(const volatile void* address, Operation operation) {
    if (__builtin_expect(PlatformAtomicHook != nullptr, 0)) {
        return BetweenPointsSlowly(address, operation);
    }
    return operation();
}
#else
inline void AtomicPoint(const volatile void*) {}

template <typename Operation>
inline auto BetweenPoints(const volatile void*, Operation operation) {
    return operation();
}
#endif

// Adds 1 and returns the new value; a full barrier, as published.
template <typename Integer>
inline Integer InterlockedIncrement(volatile Integer* target) {
    AtomicPoint(target);
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}

// Subtracts 1 and returns the new value; a full barrier.
template <typename Integer>
inline Integer InterlockedDecrement(volatile Integer* target) {
    return BetweenPoints(target, [=] { return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST); });
}

// Adds `value` and returns the new value; a full barrier.
template <typename Integer>
inline Integer InterlockedAdd(volatile Integer* target, Integer value) {
    return BetweenPoints(target,
                         [=] { return __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST); });
}

// Stores `value` if `target` holds `expected`; returns what it held. A full barrier.
template <typename Integer>
inline Integer InterlockedCompareExchange(volatile Integer* target,
                                          Integer value,
                                          Integer expected) {
    return BetweenPoints(target, [=] {
        Integer found = expected;
        __atomic_compare_exchange_n(target, &found, value, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_SEQ_CST);
        return found;
    });
}

// Reads a field whose writers hold a lock that the reader does not hold.
template <typename Value>
inline Value ReadAcquire(const volatile Value* source) {
    AtomicPoint(source);
    return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}

// Writes a field that ReadAcquire may be reading at this moment.
template <typename Value>
inline void WriteRelease(volatile Value* target, Value value) {
    BetweenPoints(target, [=] {
        __atomic_store_n(target, value, __ATOMIC_RELEASE);
        return value;
    });
}
