// The driver's spin lock, and the one guard through which it is taken.
#pragma once

#include "platform/kernel.h"
#include "platform/thread_safety.h"

// Irql belongs to whoever acquired Lock by raising, and is meaningless while it is free.
struct LOCK_TYPE DRIVER_SPIN_LOCK {
    KSPIN_LOCK Lock;
    KIRQL Irql;
};

// Makes `lock` a free lock. Never on one that may be held.
inline void InitializeDriverSpinLock(DRIVER_SPIN_LOCK* lock) {
    KeInitializeSpinLock(&lock->Lock);
    lock->Irql = PASSIVE_LEVEL;
}

// Holds a lock for a scope, and releases it in the form in which it was acquired.
class LOCK_GUARD SpinLockGuard {
  public:
    // Raises to DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
    explicit SpinLockGuard(DRIVER_SPIN_LOCK* lock) ACQUIRES_LOCK(lock)
        : SpinLockGuard(lock, false) {}

    // With `atDispatch` the caller promises that it runs at DISPATCH_LEVEL already; without it, as
    // above.
    SpinLockGuard(DRIVER_SPIN_LOCK* lock, bool atDispatch) ACQUIRES_LOCK(lock)
        : lock_(lock), atDispatch_(atDispatch) {
        if (atDispatch_) {
            KeAcquireSpinLockAtDpcLevel(&lock_->Lock);
        } else {
            lock_->Irql = KeAcquireSpinLockRaiseToDpc(&lock_->Lock);
        }
    }

    ~SpinLockGuard() RELEASES_LOCK() {
        if (atDispatch_) {
            KeReleaseSpinLockFromDpcLevel(&lock_->Lock);
        } else {
            KeReleaseSpinLock(&lock_->Lock, lock_->Irql);
        }
    }

    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

  private:
    DRIVER_SPIN_LOCK* lock_;
    bool atDispatch_;
};
