// Whether a sanitizer slows this build down, so that a test can do less of the same.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define QX_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define QX_TEST_SANITIZED 1
#endif

namespace quna {

#ifdef QX_TEST_SANITIZED
inline constexpr bool UNDER_SANITIZER = true;
#undef QX_TEST_SANITIZED
#else
inline constexpr bool UNDER_SANITIZER = false;
#endif

#ifdef __OPTIMIZE__
inline constexpr bool OPTIMISED = true;
#else
inline constexpr bool OPTIMISED = false;
#endif

} // namespace quna
