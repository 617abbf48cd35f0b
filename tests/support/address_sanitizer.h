#ifndef KVUTIL_TESTS_SUPPORT_ADDRESS_SANITIZER_H
#define KVUTIL_TESTS_SUPPORT_ADDRESS_SANITIZER_H

/// Whether the test runs under g++'s address sanitizer. Its allocator does not take part in a
/// fork(): what another thread held of it stays locked in the child, which then waits for ever.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool HAS_ADDRESS_SANITIZER = true;
#else
inline constexpr bool HAS_ADDRESS_SANITIZER = false;
#endif

#endif
