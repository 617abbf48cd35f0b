#ifndef KVUTIL_EXPORT_H
#define KVUTIL_EXPORT_H

/// @file
/// Visibility of the library's symbols, and the annotations that let clang check its locks.
/// Everything is hidden unless marked with KVUTIL_EXPORT.

/// Marks a class, function or variable that callers may use.
#define KVUTIL_EXPORT __attribute__((visibility("default")))

/// An attribute of clang's lock analysis; nothing for other compilers.
#if defined(__clang__)
#define KVUTIL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KVUTIL_THREAD_ANNOTATION(x)
#endif

/// Marks a class whose objects are locks.
#define KVUTIL_CAPABILITY(name) KVUTIL_THREAD_ANNOTATION(capability(name))
/// Marks a class whose objects hold a lock from construction to destruction.
#define KVUTIL_SCOPED_CAPABILITY KVUTIL_THREAD_ANNOTATION(scoped_lockable)
/// Names the lock that must be held to use the variable.
#define KVUTIL_GUARDED_BY(lock) KVUTIL_THREAD_ANNOTATION(guarded_by(lock))
/// Names the lock that must be held to use what the pointer points to.
#define KVUTIL_PT_GUARDED_BY(lock) KVUTIL_THREAD_ANNOTATION(pt_guarded_by(lock))
/// Names the locks that a caller of the function holds.
#define KVUTIL_REQUIRES(...) KVUTIL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// Names the locks that the function takes and keeps; the object itself when none is named.
#define KVUTIL_ACQUIRE(...) KVUTIL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// Names the locks that the function releases; the object itself when none is named.
#define KVUTIL_RELEASE(...) KVUTIL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// Leaves the function out of the analysis.
#define KVUTIL_NO_THREAD_SAFETY_ANALYSIS KVUTIL_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
