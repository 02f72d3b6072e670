#pragma once

#include "support/Waiting.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

namespace Halvex::Testing {

/// Ends the process, and says so, when a test that has one lives too long. For tests of code that
/// blocks for as long as it likes: a thread that hangs in it cannot be ended otherwise.
class TimeLimit {
public:
    /// Longer than any single wait of a test, which then fails first and says what it waited for.
    explicit TimeLimit(std::chrono::seconds limit = kGenerousLimit + std::chrono::seconds(30))
        : m_thread([this, limit] {
              if (m_over.Wait(limit))
                  return;
              std::cerr << "the test hangs: it has not ended after " << limit.count() << " s"
                        << std::endl;
              std::abort();
          }) {}
    ~TimeLimit() {
        m_over.Set();
        m_thread.join();
    }

    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

private:
    Event m_over;
    std::thread m_thread;
};

} // namespace Halvex::Testing
