#pragma once

#include "Foundation/Mutex.h"
#include "Foundation/ioPath.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

namespace Halvex::Kit {

/// A file with a JSON array that grows, and is a valid document after each write.
///
/// Elements are gathered in memory and written by a thread of its own. One that fits never crosses
/// a page of the file: the system takes a write page by page, and a process that is killed in the
/// middle of one leaves whole elements. Blanks fill the rest of the page.
///
/// Thread-safe.
class TraceFile {
public:
    /// Replaces a file that is there and writes an array of this one element. A failure is logged.
    TraceFile(const App::ioPath& path, const std::string& firstElement);
    /// Writes what has been added by then.
    ~TraceFile();

    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    /// Adds an element, which is one JSON value. False: it is left out, because 64 MiB wait to be
    /// written, or because nothing can be written any more.
    bool Add(const std::string& element);
    /// Adds one however much waits to be written.
    void AddLast(const std::string& element);

    /// False: the file could not be made, or not be written to the end. Quick.
    bool IsGood() const { return m_isGood; }

private:
    bool Add(const std::string& element, std::size_t mostPendingBytes);
    void WriteFrom(std::uint64_t position);
    bool TakePending(std::string& text);
    void EndAt(std::uint64_t position) const;
    void Fail(int error);

    const App::ioPath m_path;
    const int m_file;
    /// Written by whoever writes the file, read by all without the mutex.
    std::atomic<bool> m_isGood{true};

    /// Nothing is written under it.
    Mutex m_mutex;
    std::condition_variable m_changed;
    /// What is to be written next.
    std::string m_pending HALVEX_GUARDED_BY(m_mutex);
    /// Where the pending text ends in the file.
    std::uint64_t m_end HALVEX_GUARDED_BY(m_mutex) = 0;
    bool m_isEnding HALVEX_GUARDED_BY(m_mutex) = false;

    /// None after a failure at the beginning. Declared last: it uses the others.
    std::thread m_writer;
};

} // namespace Halvex::Kit
