#pragma once
// Lock contracts that clang's -Wthread-safety checks at compile time: which lock guards a
// field, which lock a function needs held or must not hold, and the order between locks.
// Every macro expands to nothing on a compiler without the attributes (GCC), so the headers
// that use them compile unchanged under any consumer's flags. The names carry the project's
// prefix so that they cannot clash with a consumer's own GUARDED_BY and the like.
#if defined(__clang__) && defined(__has_attribute)
#if __has_attribute(guarded_by)
#define ORVCAM_THREAD_ANNOTATION(x) __attribute__((x))
#endif
#endif
#ifndef ORVCAM_THREAD_ANNOTATION
#define ORVCAM_THREAD_ANNOTATION(x)
#endif

#define ORVCAM_CAPABILITY(x) ORVCAM_THREAD_ANNOTATION(capability(x))
#define ORVCAM_SCOPED_CAPABILITY ORVCAM_THREAD_ANNOTATION(scoped_lockable)
#define ORVCAM_GUARDED_BY(x) ORVCAM_THREAD_ANNOTATION(guarded_by(x))
#define ORVCAM_PT_GUARDED_BY(x) ORVCAM_THREAD_ANNOTATION(pt_guarded_by(x))
#define ORVCAM_ACQUIRED_BEFORE(...) ORVCAM_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ORVCAM_ACQUIRED_AFTER(...) ORVCAM_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ORVCAM_REQUIRES(...) ORVCAM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORVCAM_REQUIRES_SHARED(...) \
  ORVCAM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ORVCAM_EXCLUDES(...) ORVCAM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORVCAM_ACQUIRE(...) ORVCAM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORVCAM_TRY_ACQUIRE(...) ORVCAM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ORVCAM_RELEASE(...) ORVCAM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ORVCAM_RETURN_CAPABILITY(x) ORVCAM_THREAD_ANNOTATION(lock_returned(x))
// For a function whose locking the analysis cannot follow; state why next to each use.
#define ORVCAM_NO_THREAD_SAFETY_ANALYSIS ORVCAM_THREAD_ANNOTATION(no_thread_safety_analysis)
