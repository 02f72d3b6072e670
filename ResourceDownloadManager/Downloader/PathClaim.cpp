#include "ResourceDownloadManager/Downloader/PathClaim.h"

#include "Foundation/Mutex.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <set>

#include <sys/stat.h>

namespace Halvex::App {

namespace {

constexpr std::chrono::milliseconds kGiveUpQueryInterval(50);

/// The paths in use. One for the process, because downloaders of several managers may share a path.
class ClaimedPaths {
public:
    /// Takes the path, waiting for it until the deadline. False: it is still in use.
    bool Take(const std::string& key, std::chrono::steady_clock::time_point deadline)
        HALVEX_EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        while (m_paths.count(key) != 0) {
            if (!lock.WaitUntil(m_changed, deadline) && m_paths.count(key) != 0)
                return false;
        }
        m_paths.insert(key);
        return true;
    }

    void GiveBack(const std::string& key) HALVEX_EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        m_paths.erase(key);
        m_changed.notify_all();
    }

private:
    Mutex m_mutex;
    std::condition_variable m_changed;
    std::set<std::string> m_paths HALVEX_GUARDED_BY(m_mutex);
};

ClaimedPaths& Claimed() {
    // Never destroyed: a worker may outlive the end of main.
    static ClaimedPaths& paths = *new ClaimedPaths;
    return paths;
}

std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// Empty: there is no such folder.
std::string KeyByFolder(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0)
        return {};
    return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) + '/' + NameOf(path);
}

/// The same text for different spellings of one path, ways through linked folders included. The
/// file itself may be a link that somebody has planted: it is replaced, not followed.
std::string KeyOf(const std::string& path) {
    // As it stands first: behind a link, ".." is not what it seems.
    std::string key = KeyByFolder(path);
    if (!key.empty())
        return key;
    const std::string normal = std::filesystem::path(path).lexically_normal().string();
    key = KeyByFolder(normal);
    return key.empty() ? normal : key;
}

} // namespace

PathClaim::PathClaim(const ioPath& path, const std::function<bool()>& giveUp)
    : m_key(KeyOf(path.string())) {
    m_held = Claimed().Take(m_key, std::chrono::steady_clock::now());
    while (!m_held && !giveUp())
        m_held = Claimed().Take(m_key, std::chrono::steady_clock::now() + kGiveUpQueryInterval);
}

bool PathClaim::IsOn(const ioPath& path) const {
    // Another name is another path, wherever it is; that saves a look at the disk.
    const std::string name = NameOf(path.string());
    const bool mayBe = m_key.size() >= name.size() &&
                       m_key.compare(m_key.size() - name.size(), name.size(), name) == 0;
    return mayBe && KeyOf(path.string()) == m_key;
}

PathClaim::~PathClaim() {
    if (m_held)
        Claimed().GiveBack(m_key);
}

} // namespace Halvex::App
