#pragma once

#include "Foundation/Mutex.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace Halvex::App {

/// Lets one thread at a time call the observers of a bundle. That thread may take the lock again:
/// an observer that is being called may ask its bundle for its state or unregister. Threads get it
/// in the order in which they asked for it, so that one delivery after the other keeps nobody out.
///
/// Thread-safe.
class HALVEX_CAPABILITY("mutex") DeliveryLock {
public:
    void lock() HALVEX_ACQUIRE() {
        const std::thread::id self = std::this_thread::get_id();
        MutexLock lock(m_mutex);
        if (m_depth != 0 && m_owner == self) {
            ++m_depth;
            return;
        }
        const std::uint64_t ticket = m_nextTicket++;
        while (ticket != m_served)
            lock.Wait(m_free);
        m_owner = self;
        m_depth = 1;
    }

    void unlock() HALVEX_RELEASE() {
        const MutexLock lock(m_mutex);
        // Under the mutex: whoever waits for this lock may destroy it as soon as it has it.
        if (--m_depth == 0) {
            ++m_served;
            m_free.notify_all();
        }
    }

private:
    Mutex m_mutex;
    std::condition_variable m_free;
    std::uint64_t m_nextTicket HALVEX_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_served HALVEX_GUARDED_BY(m_mutex) = 0;
    std::thread::id m_owner HALVEX_GUARDED_BY(m_mutex);
    std::size_t m_depth HALVEX_GUARDED_BY(m_mutex) = 0;
};

/// Holds a DeliveryLock from construction to destruction.
class HALVEX_SCOPED_CAPABILITY DeliveryScope {
public:
    explicit DeliveryScope(DeliveryLock& lock) HALVEX_ACQUIRE(lock) : m_lock(lock) {
        m_lock.lock();
    }
    ~DeliveryScope() HALVEX_RELEASE() { m_lock.unlock(); }

    DeliveryScope(const DeliveryScope&) = delete;
    DeliveryScope& operator=(const DeliveryScope&) = delete;

private:
    DeliveryLock& m_lock;
};

} // namespace Halvex::App
