/// Annotations for clang's -Wthread-safety; empty for every other compiler.
///
/// CM_GUARDED_BY(m) marks a variable that is touched only with m held,
/// CM_REQUIRES(m) a step that expects m held, CM_EXCLUDES(m) one that takes m itself.
/// \file
#ifndef CM_THREAD_ANNOTATIONS_H
#define CM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define CM_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define CM_THREAD_ANNOTATION_(x)
#endif

/// Each stands for the attribute of the same name.
#define CM_CAPABILITY(x) CM_THREAD_ANNOTATION_(capability(x))
#define CM_SCOPED_CAPABILITY CM_THREAD_ANNOTATION_(scoped_lockable)
#define CM_GUARDED_BY(x) CM_THREAD_ANNOTATION_(guarded_by(x))
#define CM_PT_GUARDED_BY(x) CM_THREAD_ANNOTATION_(pt_guarded_by(x))
#define CM_REQUIRES(...) CM_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define CM_ACQUIRE(...) CM_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define CM_RELEASE(...) CM_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define CM_TRY_ACQUIRE(...) CM_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
#define CM_EXCLUDES(...) CM_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
#define CM_NO_THREAD_SAFETY_ANALYSIS CM_THREAD_ANNOTATION_(no_thread_safety_analysis)

#endif  // CM_THREAD_ANNOTATIONS_H
