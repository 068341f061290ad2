/// Annotations for clang's -Wthread-safety; empty for every other compiler.
/// \file
#ifndef CM_THREAD_ANNOTATIONS_H
#define CM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define CM_THREAD_ANNOTATION_(x) __attribute__((x))
#else
/// What the macros below stand for: an attribute for clang, nothing for others.
#define CM_THREAD_ANNOTATION_(x)
#endif

/// A class whose objects are locks of the kind x.
#define CM_CAPABILITY(x) CM_THREAD_ANNOTATION_(capability(x))
/// A class that holds a lock from its constructor to its destructor.
#define CM_SCOPED_CAPABILITY CM_THREAD_ANNOTATION_(scoped_lockable)
/// A variable that is touched only with x held.
#define CM_GUARDED_BY(x) CM_THREAD_ANNOTATION_(guarded_by(x))
/// A pointer to what is touched only with x held.
#define CM_PT_GUARDED_BY(x) CM_THREAD_ANNOTATION_(pt_guarded_by(x))
/// A function that its callers call with the locks held.
#define CM_REQUIRES(...) CM_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
/// A function that returns with the locks held.
#define CM_ACQUIRE(...) CM_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
/// A function that releases the locks.
#define CM_RELEASE(...) CM_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
/// A function that holds the locks when it returns the first argument.
#define CM_TRY_ACQUIRE(...) CM_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
/// A function that takes the locks itself: its callers do not hold them.
#define CM_EXCLUDES(...) CM_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
/// A function whose use of locks the compiler cannot follow.
#define CM_NO_THREAD_SAFETY_ANALYSIS CM_THREAD_ANNOTATION_(no_thread_safety_analysis)

#endif  // CM_THREAD_ANNOTATIONS_H
