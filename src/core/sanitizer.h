// Builds with the address or thread sanitizer: one test for GCC and Clang.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ZOLVIN_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOLVIN_ASAN 1
#endif
#endif

#if defined(__SANITIZE_THREAD__)
#define ZOLVIN_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZOLVIN_TSAN 1
#endif
#endif
