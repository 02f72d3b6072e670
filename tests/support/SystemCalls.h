#pragma once

#include "Foundation/Mutex.h"

#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// The system calls that the library makes on files while it lives, in order, and the place to put
/// faults into them. Those on sockets are a test server's and left out. Covers open, read, write,
/// close, fdatasync, rename, unlink and nanosleep in programs that link HalvexTestSystemCalls.
///
/// Thread-safe. One at a time.
class SystemCalls {
public:
    SystemCalls();
    ~SystemCalls();

    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    /// The calls made, each with the names of its files, without their folders: "open a",
    /// "write a 5" (the bytes asked for), "rename a -> b".
    std::vector<std::string> Made() const;

    /// What becomes of the calls of one name, each of these for one more call, in order. Later ones
    /// are made as usual.
    void Pass(const std::string& name);
    /// It fails with the error number without being made; close closes all the same.
    void Fail(const std::string& name, int error);
    /// The n-th call from now on, counted from 1, that touches a file whose name begins with one of
    /// these fails as above.
    void FailNth(std::size_t n, std::vector<std::string> files, int error);
    /// That call, as Made tells it; empty: there have not been so many.
    std::string FailedNth() const;
    /// It reads or writes so many bytes only.
    void Shorten(const std::string& name, std::size_t bytes);
    /// It throws. For calls that may: open, read, write, close.
    void Throw(const std::string& name, std::exception_ptr exception);

    /// Told of each call, as Made tells it, before it is made, on the thread that makes it.
    void Watch(std::function<void(const std::string& call)> watcher);

    /// What a call is told to do; for the functions that stand in for the system's.
    struct Fault {
        enum class Kind { None, Error, Short, Exception };
        Kind kind = Kind::None;
        int error = 0;
        std::size_t bytes = 0;
        std::exception_ptr exception;
    };
    Fault Record(const std::string& name, const std::string& files);

private:
    void Add(const std::string& name, Fault fault);
    Fault NextFault(const std::string& name, const std::string& files);

    mutable Mutex m_mutex;
    std::vector<std::string> m_made HALVEX_GUARDED_BY(m_mutex);
    std::map<std::string, std::deque<Fault>> m_faults HALVEX_GUARDED_BY(m_mutex);
    std::vector<std::string> m_failingFiles HALVEX_GUARDED_BY(m_mutex);
    int m_failingError HALVEX_GUARDED_BY(m_mutex) = 0;
    /// 0: none is to fail any more.
    std::size_t m_failsIn HALVEX_GUARDED_BY(m_mutex) = 0;
    std::string m_failed HALVEX_GUARDED_BY(m_mutex);
    std::function<void(const std::string&)> m_watcher HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Testing
