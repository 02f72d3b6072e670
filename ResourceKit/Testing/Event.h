#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Halvex::Kit::Testing {

/// How long a test waits for something that is bound to happen: far more than a loaded machine
/// needs.
constexpr std::chrono::seconds kGenerousLimit(60);

/// Something that happens once and that other threads wait for. Thread-safe.
class Event {
public:
    void Set() {
        const std::lock_guard lock(m_mutex);
        m_set = true;
        m_changed.notify_all();
    }

    /// False: it has not happened within the limit.
    bool Wait(std::chrono::milliseconds limit = kGenerousLimit) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [this] { return m_set; });
    }

    bool IsSet() {
        const std::lock_guard lock(m_mutex);
        return m_set;
    }

private:
    /// Guards m_set.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set = false;
};

} // namespace Halvex::Kit::Testing
