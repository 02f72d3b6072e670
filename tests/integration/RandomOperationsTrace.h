#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IEventTracer.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// Marks the calling thread as one of the application's while it lives: what is scheduled on any
/// other thread is a retry.
class ApplicationThread {
public:
    ApplicationThread();
    ~ApplicationThread();

    ApplicationThread(const ApplicationThread&) = delete;
    ApplicationThread& operator=(const ApplicationThread&) = delete;
};

/// Writes down what the schedulers do with some descriptors, each of which has a relative path of
/// its own.
///
/// Thread-safe. Each thread writes into a list of its own, and the lists are put in order by a
/// counter that synchronises nothing: a lock here would bring the library's own threads in order,
/// and so hide from the thread sanitizer what it is to find.
class TraceRecorder : public App::IEventTracer {
    struct Downloads;

public:
    struct Record {
        /// In the order of their happening, where one thing happened before the other.
        std::uint64_t number;
        Event event;
        const App::ResourceDescriptor* descriptor;
        const App::ResourceDescriptorBundle* bundle;
        App::IRemoteResource::State state;
        std::string text;
        bool onApplicationThread;
    };
    using Records = std::vector<Record>;

    explicit TraceRecorder(const std::vector<const App::ResourceDescriptor*>& descriptors);

    void Trace(Event event, const TraceRecord& record) const override;
    void TraceString(const std::string&) const override {}

    /// Whether no check is queued or under way.
    bool IsDrained() const;

    /// What each thread wrote. Not while anything is traced.
    std::vector<Records> ByThread() const;

    /// A time in which no thread but perhaps the calling one downloads a file.
    class Quiet {
    public:
        /// Begins it.
        Quiet(const TraceRecorder& recorder, const App::ResourceDescriptor& descriptor);
        /// Whether it has lasted until now.
        bool Lasts() const;

    private:
        const Downloads& m_downloads;
        const std::uint64_t m_begunBefore;
        const bool m_wasQuiet;
    };

private:
    struct Downloads {
        std::atomic<std::uint64_t> begun{0};
        std::atomic<std::uint64_t> ended{0};
    };

    Records& OfThisThread() const;
    Downloads& DownloadsOf(const std::string& relativePath) const;

    /// Tells recorders apart that have had the same address.
    const std::uint64_t m_identity;
    mutable std::atomic<std::uint64_t> m_next{0};
    mutable std::atomic<std::uint64_t> m_checksScheduled{0};
    mutable std::atomic<std::uint64_t> m_checksEnded{0};
    /// By relative path.
    mutable std::map<std::string, Downloads> m_downloads;
    mutable Mutex m_mutex;
    mutable std::list<Records> m_byThread HALVEX_GUARDED_BY(m_mutex);
};

/// What happened to one descriptor in all.
struct History {
    std::size_t FailuresOf(App::IRemoteResource::DownloadError error) const {
        const auto found = failures.find(error);
        return found != failures.end() ? found->second : 0;
    }

    std::size_t checks = 0;
    std::size_t downloads = 0;
    std::map<App::IRemoteResource::DownloadError, std::size_t> failures;
    std::size_t retries = 0;
    /// Failures after which the policy allows no retry, as far as one can tell: without those that
    /// were under way at once.
    std::size_t unretriedFailures = 0;
    /// Ends of checks that were compared with what the checks had brought about.
    std::size_t outcomes = 0;
    /// The state at the end of the last check to end.
    App::IRemoteResource::State state;
    /// Whether another check of the descriptor was under way at some time during the last one.
    bool lastCheckOverlapped = false;
};

/// Steps that have begun and ended.
struct StepsEnded {
    std::size_t checks = 0;
    std::size_t downloads = 0;
    std::size_t statusNotifications = 0;
    std::size_t progressNotifications = 0;
};

/// Fails the test unless each step that ends had begun on the same thread, the innermost first, and
/// each step that had begun has ended.
StepsEnded ExpectEndsFitBeginnings(const std::vector<TraceRecorder::Records>& byThread);

/// Follows each descriptor through a trace. Fails the test where a download is not owed to a
/// scheduling, a check ends in another state than the one it brought about, or a resource is
/// retried more often than the policy allows; those in neverRetried not at all.
std::map<const App::ResourceDescriptor*, History>
FollowDescriptors(const std::vector<const App::ResourceDescriptor*>& descriptors,
                  const std::vector<const App::ResourceDescriptor*>& neverRetried,
                  const std::vector<TraceRecorder::Records>& byThread);

} // namespace Halvex::Testing
