#pragma once

#include "Foundation/ThreadAnnotations.h"

#include <condition_variable>
#include <mutex>

namespace Halvex {

/// A std::mutex that the compiler's thread-safety analysis knows about.
///
/// Thread-safe. Not recursive.
class CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() ACQUIRE() { std::mutex::lock(); }
    void unlock() RELEASE() { std::mutex::unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
};

/// Holds a Mutex from construction to destruction, apart from the waits that it makes.
///
/// Belongs to the thread that made it.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex) {}
    /// Takes over a mutex that the calling thread has already locked.
    MutexLock(Mutex& mutex, std::adopt_lock_t adopt) REQUIRES(mutex) : m_lock(mutex, adopt) {}
    ~MutexLock() RELEASE() = default;

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Gives the mutex back before the end of the scope.
    void Unlock() RELEASE() { m_lock.unlock(); }

    /// Waits for a notification, possibly a spurious one; the mutex is held again on return.
    void Wait(std::condition_variable& changed) { changed.wait(m_lock); }

    /// The same, at most until the deadline. Answers false when the deadline has passed.
    template <typename Clock, typename Duration>
    bool WaitUntil(std::condition_variable& changed,
                   const std::chrono::time_point<Clock, Duration>& deadline) {
        return changed.wait_until(m_lock, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace Halvex
