// Clang's thread-safety attributes under names of our own: which lock guards what, checked by
// -Wthread-safety where clang compiles. Nothing for other compilers.
#pragma once

#if defined(__clang__)
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif

// A type that is a lock, and one that holds a lock for its scope.
#define LOCK_TYPE THREAD_SAFETY(capability("spin lock"))
#define LOCK_GUARD THREAD_SAFETY(scoped_lockable)

// On a field: it is read and written with the lock held, but for the atomic accessors.
#define GUARDED_BY(lock) THREAD_SAFETY(guarded_by(lock))

// On a routine: the caller holds the lock, or must not hold it.
#define REQUIRES_LOCK(...) THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define EXCLUDES_LOCK(...) THREAD_SAFETY(locks_excluded(__VA_ARGS__))

// On a guard's constructor and destructor.
#define ACQUIRES_LOCK(...) THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define RELEASES_LOCK(...) THREAD_SAFETY(release_capability(__VA_ARGS__))

// On a routine that touches guarded fields of a record that nobody else knows yet, or any more.
#define BEFORE_OR_AFTER_SHARING THREAD_SAFETY(no_thread_safety_analysis)
