#ifndef KVUTIL_EXPORT_H
#define KVUTIL_EXPORT_H

/// @file
/// Visibility of the library's symbols, and the annotations that let clang check its locks.
/// Everything is hidden unless marked with KVUTIL_EXPORT.

#define KVUTIL_EXPORT __attribute__((visibility("default")))

#if defined(__clang__)
#define KVUTIL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KVUTIL_THREAD_ANNOTATION(x)
#endif

#define KVUTIL_CAPABILITY(name) KVUTIL_THREAD_ANNOTATION(capability(name))
#define KVUTIL_SCOPED_CAPABILITY KVUTIL_THREAD_ANNOTATION(scoped_lockable)
#define KVUTIL_GUARDED_BY(lock) KVUTIL_THREAD_ANNOTATION(guarded_by(lock))
#define KVUTIL_PT_GUARDED_BY(lock) KVUTIL_THREAD_ANNOTATION(pt_guarded_by(lock))
#define KVUTIL_REQUIRES(...) KVUTIL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KVUTIL_ACQUIRE(...) KVUTIL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KVUTIL_RELEASE(...) KVUTIL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KVUTIL_NO_THREAD_SAFETY_ANALYSIS KVUTIL_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
