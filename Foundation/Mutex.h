#pragma once

#include "Foundation/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Halvex {

/// A std::mutex that clang's thread-safety analysis knows about; with other compilers it is just a
/// std::mutex. The analysis does not follow the standard's locks: hold it with a MutexLock.
///
/// Thread-safe. Not recursive: a thread must not lock what it holds. Locking may throw what
/// std::mutex throws.
///
///     int Count() const {
///         const MutexLock lock(m_mutex);
///         return m_count;
///     }
///
///     mutable Mutex m_mutex;
///     int m_count HALVEX_GUARDED_BY(m_mutex) = 0;
class HALVEX_CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() HALVEX_ACQUIRE() { std::mutex::lock(); }
    void unlock() HALVEX_RELEASE() { std::mutex::unlock(); }
    bool try_lock() HALVEX_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
};

/// Holds a Mutex from construction to destruction or Unlock, apart from the waits that it makes.
///
/// Belongs to the thread that made it. Borrows the mutex, which must outlive it.
class HALVEX_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) HALVEX_ACQUIRE(mutex) : m_lock(mutex) {}
    /// Takes over a mutex that the calling thread has already locked.
    MutexLock(Mutex& mutex, std::adopt_lock_t adopt) HALVEX_REQUIRES(mutex)
        : m_lock(mutex, adopt) {}
    ~MutexLock() HALVEX_RELEASE() = default;

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Gives the mutex back before the end of the scope. Once; nothing else is called after it.
    void Unlock() HALVEX_RELEASE() { m_lock.unlock(); }

    /// Blocks until it is notified; it may also wake up without that. The mutex is held again on
    /// return. Call it in a loop that looks for what is waited for: in a predicate's body the
    /// analysis would not know of the lock.
    void Wait(std::condition_variable& changed) { changed.wait(m_lock); }

    /// The same, at most until the deadline. False: the deadline has passed; what is waited for may
    /// be there nevertheless, so look once more.
    template <typename Clock, typename Duration>
    bool WaitUntil(std::condition_variable& changed,
                   const std::chrono::time_point<Clock, Duration>& deadline) {
        return changed.wait_until(m_lock, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace Halvex
