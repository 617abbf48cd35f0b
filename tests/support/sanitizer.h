#ifndef KVUTIL_TESTS_SUPPORT_SANITIZER_H
#define KVUTIL_TESTS_SUPPORT_SANITIZER_H

// Which sanitizer the tests run under. g++ tells it with macros, clang with features.
#if defined(__has_feature)
#define KVUTIL_TESTS_UNDER_ASAN __has_feature(address_sanitizer)
#define KVUTIL_TESTS_UNDER_TSAN __has_feature(thread_sanitizer)
#else
#ifdef __SANITIZE_ADDRESS__
#define KVUTIL_TESTS_UNDER_ASAN true
#else
#define KVUTIL_TESTS_UNDER_ASAN false
#endif
#ifdef __SANITIZE_THREAD__
#define KVUTIL_TESTS_UNDER_TSAN true
#else
#define KVUTIL_TESTS_UNDER_TSAN false
#endif
#endif

/// Its allocator does not take part in a fork(): what another thread held of it stays locked in the
/// child, which then waits for ever.
inline constexpr bool HAS_ADDRESS_SANITIZER = KVUTIL_TESTS_UNDER_ASAN;

/// It does not learn that the mutexes of a fork()'s child are new.
inline constexpr bool HAS_THREAD_SANITIZER = KVUTIL_TESTS_UNDER_TSAN;

/// Instrumented code is an order of magnitude slower.
inline constexpr bool IS_SANITIZED = HAS_ADDRESS_SANITIZER || HAS_THREAD_SANITIZER;

/// Code is as it is written where executed lines are counted.
#ifdef KVUTIL_COVERAGE
inline constexpr bool IS_COUNTED = true;
#else
inline constexpr bool IS_COUNTED = false;
#endif

/// Of many cases that are alike, one in so many is tried: all of them where nothing slows them
/// down.
inline constexpr int ONE_IN = IS_SANITIZED ? 11 : 1;

#undef KVUTIL_TESTS_UNDER_ASAN
#undef KVUTIL_TESTS_UNDER_TSAN

#endif
