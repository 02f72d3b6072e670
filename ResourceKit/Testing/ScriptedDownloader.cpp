#include "ResourceKit/Testing/ScriptedDownloader.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/Testing/Event.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <list>
#include <map>
#include <optional>

namespace Halvex::Kit::Testing {

namespace {

/// How often a download that hangs asks whether it is cancelled: nobody announces that.
constexpr std::chrono::milliseconds kTurn(10);

using Clock = std::chrono::steady_clock;
using Progress = std::pair<std::size_t, std::size_t>;

/// A download that hangs, and what it has been told to do.
struct HangingDownload {
    std::string path;
    std::optional<Progress> progress;
    std::optional<ScriptedDownload> end;
    bool isGone = false;

    bool IsFree() const { return !progress && !end; }
};

struct Script {
    std::vector<ScriptedDownload> downloads;
    std::size_t begun = 0;
};

bool WriteFile(const ioPath& path, const std::string& content) {
    std::ofstream file(path.string(), std::ios::binary);
    file << content;
    file.close();
    return file.good();
}

} // namespace

struct HALVEX_HIDDEN ScriptedDownloader::Impl {
    using Hanging = std::list<std::shared_ptr<HangingDownload>>;

    /// Takes a download from the list of those that hang, however it ends.
    class Membership {
    public:
        Membership(Impl& impl, const std::string& path) : m_impl(impl) {
            const MutexLock lock(m_impl.mutex);
            m_place =
                m_impl.hanging.insert(m_impl.hanging.end(), std::make_shared<HangingDownload>());
            (*m_place)->path = path;
            m_impl.changed.notify_all();
        }
        ~Membership() {
            const MutexLock lock(m_impl.mutex);
            (*m_place)->isGone = true;
            m_impl.hanging.erase(m_place);
            m_impl.changed.notify_all();
        }

        Membership(const Membership&) = delete;
        Membership& operator=(const Membership&) = delete;

        HangingDownload& Download() const { return **m_place; }

    private:
        Impl& m_impl;
        Hanging::iterator m_place;
    };

    std::size_t CountLocked(const std::string& path) const HALVEX_REQUIRES(mutex) {
        return static_cast<std::size_t>(std::count(downloads.begin(), downloads.end(), path));
    }

    /// Records a download. True: it is cancelled before it begins.
    bool IsCancelledFirst(const std::string& path, bool isCancelled) {
        const MutexLock lock(mutex);
        downloads.push_back(path);
        changed.notify_all();
        return aborted || isCancelled;
    }

    ScriptedDownload Next(const std::string& path) {
        const MutexLock lock(mutex);
        const auto found = scripts.find(path);
        if (found == scripts.end())
            return others;
        Script& script = found->second;
        if (script.downloads.empty())
            return ScriptedDownload::Fail();
        return script.downloads[std::min(script.begun++, script.downloads.size() - 1)];
    }

    /// What the download is to go on with.
    ScriptedDownload Hang(const Task& task) {
        const Membership membership(*this, task.descriptor->relativePath);
        HangingDownload& download = membership.Download();
        while (true) {
            std::optional<Progress> progress;
            {
                const auto turnEnd = Clock::now() + kTurn;
                MutexLock lock(mutex);
                while (!aborted && download.IsFree() && lock.WaitUntil(changed, turnEnd)) {
                }
                if (aborted)
                    return ScriptedDownload::Fail(Status::Cancelled);
                if (download.end)
                    return *download.end;
                progress = download.progress;
            }
            if (progress) {
                task.progressCallback(progress->first, progress->second);
                const MutexLock lock(mutex);
                download.progress.reset();
                changed.notify_all();
            }
            if (task.cancellationQuery())
                return ScriptedDownload::Fail(Status::Cancelled);
        }
    }

    /// The first download of a path that hangs and has nothing to do; empty: none came in time.
    std::shared_ptr<HangingDownload> WaitForHangingLocked(MutexLock& lock, const std::string& path)
        HALVEX_REQUIRES(mutex) {
        const auto deadline = Clock::now() + kGenerousLimit;
        while (!FindHangingLocked(path) && lock.WaitUntil(changed, deadline)) {
        }
        return FindHangingLocked(path);
    }

    std::shared_ptr<HangingDownload> FindHangingLocked(const std::string& path) const
        HALVEX_REQUIRES(mutex) {
        const auto found = std::find_if(hanging.begin(), hanging.end(), [&](const auto& download) {
            return download->path == path && download->IsFree();
        });
        return found != hanging.end() ? *found : nullptr;
    }

    mutable Mutex mutex;
    /// Any member has changed.
    std::condition_variable changed;
    std::map<std::string, Script> scripts HALVEX_GUARDED_BY(mutex);
    ScriptedDownload others HALVEX_GUARDED_BY(mutex) = ScriptedDownload::Fail();
    std::vector<std::string> downloads HALVEX_GUARDED_BY(mutex);
    /// Each of them is guarded by the mutex too.
    Hanging hanging HALVEX_GUARDED_BY(mutex);
    bool aborted HALVEX_GUARDED_BY(mutex) = false;
};

ScriptedDownloader::ScriptedDownloader() : m_impl(std::make_unique<Impl>()) {}

ScriptedDownloader::~ScriptedDownloader() = default;

void ScriptedDownloader::On(const std::string& relativePath,
                            std::vector<ScriptedDownload> downloads) {
    const MutexLock lock(m_impl->mutex);
    m_impl->scripts[relativePath] = {std::move(downloads), 0};
}

void ScriptedDownloader::OnOthers(ScriptedDownload download) {
    const MutexLock lock(m_impl->mutex);
    m_impl->others = std::move(download);
}

bool ScriptedDownloader::Report(const std::string& relativePath, std::size_t done,
                                std::size_t total) {
    MutexLock lock(m_impl->mutex);
    const auto download = m_impl->WaitForHangingLocked(lock, relativePath);
    if (!download)
        return false;
    download->progress = {done, total};
    m_impl->changed.notify_all();
    const auto deadline = Clock::now() + kGenerousLimit;
    while (download->progress && !download->isGone && lock.WaitUntil(m_impl->changed, deadline)) {
    }
    return !download->progress;
}

bool ScriptedDownloader::Finish(const std::string& relativePath, ScriptedDownload download) {
    MutexLock lock(m_impl->mutex);
    const auto hanging = m_impl->WaitForHangingLocked(lock, relativePath);
    if (!hanging)
        return false;
    hanging->end = std::move(download);
    m_impl->changed.notify_all();
    return true;
}

std::vector<std::string> ScriptedDownloader::Downloads() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->downloads;
}

std::size_t ScriptedDownloader::DownloadCount(const std::string& relativePath) const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->CountLocked(relativePath);
}

bool ScriptedDownloader::WaitForDownloads(const std::string& relativePath,
                                          std::size_t count) const {
    const auto deadline = Clock::now() + kGenerousLimit;
    MutexLock lock(m_impl->mutex);
    while (m_impl->CountLocked(relativePath) < count && lock.WaitUntil(m_impl->changed, deadline)) {
    }
    return m_impl->CountLocked(relativePath) >= count;
}

bool ScriptedDownloader::IsAborted() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->aborted;
}

App::IResourceDownloader::Status ScriptedDownloader::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    const Task local = std::move(task);
    const App::ResourceDescriptor& descriptor = *local.descriptor;
    if (m_impl->IsCancelledFirst(descriptor.relativePath, local.cancellationQuery()))
        return Status::Cancelled;
    ScriptedDownload download = m_impl->Next(descriptor.relativePath);
    const App::TemporaryFile file(descriptor.tempPath, descriptor.downloadPath);
    if (!file)
        return Status::Failed;
    while (download.m_hangs)
        download = m_impl->Hang(local);
    if (download.m_progress)
        local.progressCallback(download.m_progress->first, download.m_progress->second);
    if (!download.m_content)
        return download.m_status;
    const bool isThere = WriteFile(descriptor.tempPath, *download.m_content) && file.MoveToDest();
    return isThere ? Status::Ok : Status::Failed;
}

void ScriptedDownloader::Abort() {
    const MutexLock lock(m_impl->mutex);
    m_impl->aborted = true;
    m_impl->changed.notify_all();
}

} // namespace Halvex::Kit::Testing
