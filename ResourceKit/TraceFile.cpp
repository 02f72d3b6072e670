#include "ResourceKit/TraceFile.h"

#include <glog/logging.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Halvex::Kit {

namespace {

constexpr char kBegin[] = "[\n";
constexpr char kSeparator[] = ",\n";
constexpr char kEnd[] = "\n]\n";

constexpr std::size_t kPageBytes = 4096;
/// So much is written without waiting for more, and not later than after so long.
constexpr std::size_t kEnoughBytes = 64 * 1024;
constexpr std::chrono::milliseconds kLongestDelay(100);
constexpr std::size_t kMostPendingBytes = 64 * 1024 * 1024;
constexpr std::size_t kMostKeptBytes = 1024 * 1024;

/// Writes over what is there and beyond. 0, or the system's error number.
int WriteAt(int file, std::uint64_t position, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::pwrite(file, text.data() + done, text.size() - done,
                                       static_cast<off_t>(position + done));
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (count == 0 || errno != EINTR)
            return count == 0 ? ENOSPC : errno;
    }
    return 0;
}

} // namespace

TraceFile::TraceFile(const App::ioPath& path, const std::string& firstElement)
    : m_path(path),
      // Without O_NONBLOCK, opening a pipe would wait for its reader.
      m_file(::open(path.string().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK,
                    0666)) {
    if (m_file < 0) {
        Fail(errno);
        return;
    }
    const std::string text = kBegin + firstElement;
    if (const int error = WriteAt(m_file, 0, text + kEnd)) {
        Fail(error);
        return;
    }
    m_end = text.size();
    try {
        m_writer = std::thread([this, position = m_end] { WriteFrom(position); });
    } catch (const std::system_error& exception) {
        Fail(exception.code().value());
    }
}

TraceFile::~TraceFile() {
    if (m_writer.joinable()) {
        {
            const MutexLock lock(m_mutex);
            m_isEnding = true;
        }
        m_changed.notify_one();
        m_writer.join();
    }
    if (m_file >= 0)
        ::close(m_file);
}

bool TraceFile::Add(const std::string& element) {
    return Add(element, kMostPendingBytes);
}

void TraceFile::AddLast(const std::string& element) {
    Add(element, std::numeric_limits<std::size_t>::max());
}

bool TraceFile::Add(const std::string& element, std::size_t mostPendingBytes) {
    const std::size_t size = element.size() + sizeof(kSeparator) - 1;
    bool wake = false;
    {
        const MutexLock lock(m_mutex);
        if (!m_isGood || m_pending.size() + size > mostPendingBytes)
            return false;
        const std::size_t before = m_pending.size();
        const std::size_t room = kPageBytes - m_end % kPageBytes;
        if (size > room && size <= kPageBytes)
            m_pending.append(room, ' ');
        m_pending.append(kSeparator).append(element);
        m_end += m_pending.size() - before;
        wake = before == 0 || (before < kEnoughBytes && m_pending.size() >= kEnoughBytes);
    }
    if (wake)
        m_changed.notify_one();
    return true;
}

void TraceFile::WriteFrom(std::uint64_t position) {
    std::string text;
    while (TakePending(text)) {
        const std::size_t size = text.size();
        // Over the old end, so that there is a new one as soon as this is done.
        if (const int error = WriteAt(m_file, position, text.append(kEnd))) {
            EndAt(position);
            Fail(error);
            const MutexLock lock(m_mutex);
            std::string().swap(m_pending);
            return;
        }
        position += size;
        // What a burst has taken is not kept for ever.
        if (text.capacity() > kMostKeptBytes)
            std::string().swap(text);
    }
}

/// Waits until there is enough to write, or enough time has passed. False: there is no more.
bool TraceFile::TakePending(std::string& text) {
    MutexLock lock(m_mutex);
    while (!m_isEnding && m_pending.empty())
        lock.Wait(m_changed);
    const auto deadline = std::chrono::steady_clock::now() + kLongestDelay;
    while (!m_isEnding && m_pending.size() < kEnoughBytes && lock.WaitUntil(m_changed, deadline)) {
    }
    // The two take turns, so that their memory need not be got again.
    text.clear();
    text.swap(m_pending);
    return !text.empty();
}

/// Takes back what could be written of the rest. What was there needs no new space.
void TraceFile::EndAt(std::uint64_t position) const {
    const std::string end = kEnd;
    if (WriteAt(m_file, position, end) != 0 ||
        ::ftruncate(m_file, static_cast<off_t>(position + end.size())) != 0)
        LOG(ERROR) << "the end of trace file=" << m_path << " is missing";
}

void TraceFile::Fail(int error) {
    m_isGood = false;
    LOG(ERROR) << "tracing ends, failed to write file=" << m_path << ", errno=" << error << " ("
               << std::generic_category().message(error) << ')';
}

} // namespace Halvex::Kit
