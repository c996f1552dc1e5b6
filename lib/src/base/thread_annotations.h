// Clang's thread-safety attributes, so that -Wthread-safety checks which lock
// guards what. Other compilers see empty macros.
#ifndef ZELTA_SRC_BASE_THREAD_ANNOTATIONS_H_
#define ZELTA_SRC_BASE_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define ZELTA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZELTA_THREAD_ANNOTATION(x)
#endif

// A class whose instances are locks.
#define CAPABILITY(x) ZELTA_THREAD_ANNOTATION(capability(x))
// An RAII class that holds a lock for its lifetime.
#define SCOPED_CAPABILITY ZELTA_THREAD_ANNOTATION(scoped_lockable)
// Data that may be touched only with the lock held.
#define GUARDED_BY(x) ZELTA_THREAD_ANNOTATION(guarded_by(x))
// Pointed-to data that may be touched only with the lock held.
#define PT_GUARDED_BY(x) ZELTA_THREAD_ANNOTATION(pt_guarded_by(x))
// The caller must hold the lock (such functions end in _nolock).
#define REQUIRES(...) ZELTA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The function takes the lock and returns with it held.
#define ACQUIRE(...) ZELTA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// The function releases a lock the caller held.
#define RELEASE(...) ZELTA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// A lock that is taken only after the given ones, never while waiting for
// them (checked with -Wthread-safety-beta).
#define ACQUIRED_AFTER(...) ZELTA_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
// The caller must not hold the lock (the function takes it and is not
// reentrant).
#define EXCLUDES(...) ZELTA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// Checks at run time that the lock is held; the analysis assumes it after.
#define ASSERT_CAPABILITY(x) ZELTA_THREAD_ANNOTATION(assert_capability(x))
// The function returns a reference to the given lock.
#define RETURN_CAPABILITY(x) ZELTA_THREAD_ANNOTATION(lock_returned(x))
// Turns the analysis off for one function; say why where it is used.
#define NO_THREAD_SAFETY_ANALYSIS ZELTA_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // ZELTA_SRC_BASE_THREAD_ANNOTATIONS_H_
