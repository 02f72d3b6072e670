#pragma once

// Clang's thread-safety annotations under short names; nothing for other compilers.
// What is guarded by which lock is then checked by the compiler (see script/lint).

#if defined(__clang__)
#define HALVEX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HALVEX_THREAD_ANNOTATION(x)
#endif

/// A class that is a lock.
#define CAPABILITY(x) HALVEX_THREAD_ANNOTATION(capability(x))
/// A class whose objects hold a lock from construction to destruction.
#define SCOPED_CAPABILITY HALVEX_THREAD_ANNOTATION(scoped_lockable)
/// A member that may be touched only with the lock held.
#define GUARDED_BY(x) HALVEX_THREAD_ANNOTATION(guarded_by(x))
/// A lock that may be taken while the named ones are held, never the other way round.
#define ACQUIRED_AFTER(...) HALVEX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
/// A function that the caller calls with the lock held.
#define REQUIRES(...) HALVEX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// A function that takes the lock and keeps it.
#define ACQUIRE(...) HALVEX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// A function that takes the lock and keeps it if it answers the first argument.
#define TRY_ACQUIRE(...) HALVEX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// A function that gives the lock back.
#define RELEASE(...) HALVEX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// A function that takes the lock itself and so must be called without it.
#define EXCLUDES(...) HALVEX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// A function that the analysis cannot follow; each use says why.
#define NO_THREAD_SAFETY_ANALYSIS HALVEX_THREAD_ANNOTATION(no_thread_safety_analysis)
