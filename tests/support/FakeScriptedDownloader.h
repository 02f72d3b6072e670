#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/SleepingThreads.h"
#include "support/Waiting.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Testing {

/// Downloads nothing: each download does what the script says. Records what it was asked for, by
/// the relative paths of the descriptors. Thread-safe.
///
/// It stands beside the kit's ScriptedDownloader, whose downloads complete, fail or hang, for tests
/// that need more: a function of their own as the body of a download, which asks the task, tells
/// progress without a pause or throws; the threads of the downloads; how often it was aborted; or a
/// success that is silent and leaves no file.
class FakeScriptedDownloader : public App::IResourceDownloader {
public:
    /// The body of a download. Runs on the thread of the download, at once for several of them.
    using Script = std::function<Status(const Task&)>;

    FakeScriptedDownloader() { SetStatus(Status::Ok); }

    void SetScript(Script script) {
        const MutexLock lock(m_mutex);
        m_script = std::move(script);
    }

    /// Every download ends at once, in this way.
    void SetStatus(Status status) {
        SetScript([status](const Task&) { return status; });
    }

    /// The relative paths of the downloads begun so far, in order.
    std::vector<std::string> Downloads() const {
        const MutexLock lock(m_mutex);
        return m_downloads;
    }

    std::size_t DownloadCount() const {
        const MutexLock lock(m_mutex);
        return m_downloads.size();
    }

    std::size_t DownloadCount(const std::string& relativePath) const {
        const std::vector<std::string> downloads = Downloads();
        return static_cast<std::size_t>(
            std::count(downloads.begin(), downloads.end(), relativePath));
    }

    /// False: there have not been so many downloads within the limit.
    bool WaitForDownloads(std::size_t count) const {
        return WaitUntil([&] { return DownloadCount() >= count; });
    }

    /// The threads that the downloads ran on.
    std::set<pid_t> DownloadThreads() const {
        const MutexLock lock(m_mutex);
        return m_threads;
    }

    std::size_t AbortCount() const { return m_aborts; }
    /// For scripts that block until Abort is called.
    bool WaitForAbort() { return m_aborted.Wait(); }

    Status Exec(Task task) const override {
        const Task local = std::move(task);
        Script script;
        {
            const MutexLock lock(m_mutex);
            m_downloads.push_back(local.descriptor->relativePath);
            m_threads.insert(ThisThread());
            script = m_script;
        }
        return script(local);
    }

    void Abort() override {
        m_aborted.Set();
        ++m_aborts;
    }

private:
    mutable Mutex m_mutex;
    Script m_script HALVEX_GUARDED_BY(m_mutex);
    mutable std::vector<std::string> m_downloads HALVEX_GUARDED_BY(m_mutex);
    mutable std::set<pid_t> m_threads HALVEX_GUARDED_BY(m_mutex);
    Event m_aborted;
    std::atomic<std::size_t> m_aborts{0};
};

} // namespace Halvex::Testing
