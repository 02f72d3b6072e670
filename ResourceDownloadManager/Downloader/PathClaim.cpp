#include "ResourceDownloadManager/Downloader/PathClaim.h"

#include "Foundation/Mutex.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <set>
#include <system_error>

namespace Halvex::App {

namespace {

constexpr std::chrono::milliseconds kGiveUpQueryInterval(50);

/// The paths in use. One for the process, because downloaders of several managers may share a path.
class ClaimedPaths {
public:
    /// Takes the path, waiting for it until the deadline. False: it is still in use.
    bool Take(const std::string& key, std::chrono::steady_clock::time_point deadline)
        EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        while (m_paths.count(key) != 0) {
            if (!lock.WaitUntil(m_changed, deadline) && m_paths.count(key) != 0)
                return false;
        }
        m_paths.insert(key);
        return true;
    }

    void GiveBack(const std::string& key) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        m_paths.erase(key);
        m_changed.notify_all();
    }

private:
    Mutex m_mutex;
    std::condition_variable m_changed;
    std::set<std::string> m_paths GUARDED_BY(m_mutex);
};

ClaimedPaths& Claimed() {
    // Never destroyed: a worker may outlive the end of main.
    static ClaimedPaths& paths = *new ClaimedPaths;
    return paths;
}

/// The same text for different spellings of one path, ways through linked folders included. The
/// file itself may be a link that somebody has planted: it is replaced, not followed.
std::string KeyOf(const ioPath& path) {
    std::error_code error;
    const std::filesystem::path spelled(path.string());
    const std::filesystem::path folder = std::filesystem::weakly_canonical(
        std::filesystem::absolute(spelled, error).parent_path(), error);
    return (error ? spelled.lexically_normal() : folder / spelled.filename()).string();
}

} // namespace

PathClaim::PathClaim(const ioPath& path, const std::function<bool()>& giveUp) : m_key(KeyOf(path)) {
    m_held = Claimed().Take(m_key, std::chrono::steady_clock::now());
    while (!m_held && !giveUp())
        m_held = Claimed().Take(m_key, std::chrono::steady_clock::now() + kGiveUpQueryInterval);
}

bool PathClaim::IsOn(const ioPath& path) const {
    return KeyOf(path) == m_key;
}

PathClaim::~PathClaim() {
    if (m_held)
        Claimed().GiveBack(m_key);
}

} // namespace Halvex::App
