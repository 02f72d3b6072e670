#pragma once

#include "Foundation/Mutex.h"

#include <chrono>
#include <condition_variable>

namespace Halvex::Kit::Testing {

/// How long a test waits for something that is bound to happen: far more than a loaded machine
/// needs.
constexpr std::chrono::seconds kGenerousLimit(60);

/// Something that happens once and that other threads wait for. Thread-safe.
class Event {
public:
    void Set() {
        const MutexLock lock(m_mutex);
        m_set = true;
        m_changed.notify_all();
    }

    /// False: it has not happened within the limit.
    bool Wait(std::chrono::milliseconds limit = kGenerousLimit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        MutexLock lock(m_mutex);
        while (!m_set && lock.WaitUntil(m_changed, deadline)) {
        }
        return m_set;
    }

    bool IsSet() {
        const MutexLock lock(m_mutex);
        return m_set;
    }

private:
    Mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set HALVEX_GUARDED_BY(m_mutex) = false;
};

} // namespace Halvex::Kit::Testing
