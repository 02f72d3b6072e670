#pragma once

#include <chrono>
#include <optional>

namespace Halvex::Fetch {

/// Ends the program with Interrupted at once when it is told to stop. For the time in which there
/// is nothing to clean up yet. A signal that was ignored by whoever started the program counts too.
void ExitOnSignals();

/// Wakes the thread that waits in Signals::Wait. Thread-safe.
class Wakeup {
public:
    Wakeup();
    ~Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    void Notify() const;

private:
    friend class Signals;
    const int m_descriptor;
};

/// Receives SIGINT and SIGTERM as events: they interrupt nothing any more.
///
/// To be made before any thread is started, which inherits that. One thread at a time, caller
/// synchronises.
class Signals {
public:
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Waits until there is a wake-up, a signal, or the time is over; without a time as long as it
    /// takes. True: there was a signal.
    bool Wait(const Wakeup& wakeup, std::optional<std::chrono::milliseconds> limit);

private:
    int m_descriptor;
};

} // namespace Halvex::Fetch
