#pragma once

// Clang's thread-safety annotations under names of our own; nothing for other compilers. What is
// guarded by which lock is then checked by the compiler, if it is called with -Wthread-safety, and
// the order of locks too with -Wthread-safety-beta.

/// What the macros below are made of; not for use by itself.
#if defined(__clang__)
#define HALVEX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HALVEX_THREAD_ANNOTATION(x)
#endif

/// A class that is a lock.
#define HALVEX_CAPABILITY(x) HALVEX_THREAD_ANNOTATION(capability(x))
/// A class whose objects hold a lock from construction to destruction.
#define HALVEX_SCOPED_CAPABILITY HALVEX_THREAD_ANNOTATION(scoped_lockable)
/// A member that may be touched only with the lock held.
#define HALVEX_GUARDED_BY(x) HALVEX_THREAD_ANNOTATION(guarded_by(x))
/// A lock that may be taken while the named ones are held, never the other way round.
#define HALVEX_ACQUIRED_AFTER(...) HALVEX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
/// A function that the caller calls with the lock held.
#define HALVEX_REQUIRES(...) HALVEX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// A function that takes the lock and keeps it.
#define HALVEX_ACQUIRE(...) HALVEX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// A function that tries to take the lock, and has it if it answers the first argument.
#define HALVEX_TRY_ACQUIRE(...) HALVEX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// A function that gives the lock back.
#define HALVEX_RELEASE(...) HALVEX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// A function that takes the lock itself and so must be called without it.
#define HALVEX_EXCLUDES(...) HALVEX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// A function that the analysis cannot follow; each use says why.
#define HALVEX_NO_THREAD_SAFETY_ANALYSIS HALVEX_THREAD_ANNOTATION(no_thread_safety_analysis)
