// Which sanitizer this build runs under: NETSIEVE_ASAN or NETSIEVE_TSAN, or neither, kSanitized and
// kThreadSanitizer.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define NETSIEVE_ASAN 1
#elif defined(__SANITIZE_THREAD__)
#define NETSIEVE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NETSIEVE_ASAN 1
#elif __has_feature(thread_sanitizer)
#define NETSIEVE_TSAN 1
#endif
#endif

namespace netsieve::host {
#if defined(NETSIEVE_ASAN) || defined(NETSIEVE_TSAN)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#ifdef NETSIEVE_TSAN
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
}  // namespace netsieve::host
