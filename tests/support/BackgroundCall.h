#pragma once

#include "support/SleepingThreads.h"
#include "support/Waiting.h"

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace Halvex::Testing {

/// A call made on a thread of its own, so that a test can see whether it blocks. Its end waits for
/// the call to return.
class BackgroundCall {
public:
    explicit BackgroundCall(std::function<void()> call)
        : m_call(std::move(call)), m_thread([this] {
              m_threadId = ThisThread();
              m_call();
              m_returned = true;
          }) {}
    ~BackgroundCall() { m_thread.join(); }

    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;

    /// Waits until the call either sleeps or has returned. True: it sleeps.
    bool Blocks() {
        return WaitUntil([this] {
                   const pid_t thread = m_threadId;
                   return m_returned || (thread != 0 && AllSleepOrPause({thread}));
               }) &&
               !m_returned;
    }

    /// Waits until the call has returned. False: it has not within the limit.
    bool Returns() {
        return WaitUntil([this] { return m_returned.load(); });
    }

private:
    const std::function<void()> m_call;
    std::atomic<pid_t> m_threadId{0};
    std::atomic<bool> m_returned{false};
    std::thread m_thread;
};

} // namespace Halvex::Testing
