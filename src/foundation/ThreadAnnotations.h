#pragma once

// The lock rules, written where clang's thread-safety analysis (-Wthread-safety) checks them: which
// lock guards a member, which lock a function needs held or must not hold, and the order of the locks.
// Other compilers see nothing.
#if defined(__clang__)
#define QO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QO_THREAD_ANNOTATION(x)
#endif

#define QO_CAPABILITY(x) QO_THREAD_ANNOTATION(capability(x))
#define QO_SCOPED_CAPABILITY QO_THREAD_ANNOTATION(scoped_lockable)
#define QO_GUARDED_BY(x) QO_THREAD_ANNOTATION(guarded_by(x))
#define QO_ACQUIRED_BEFORE(...) QO_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define QO_REQUIRES(...) QO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QO_ACQUIRE(...) QO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QO_RELEASE(...) QO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QO_EXCLUDES(...) QO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QO_RETURN_CAPABILITY(x) QO_THREAD_ANNOTATION(lock_returned(x))
