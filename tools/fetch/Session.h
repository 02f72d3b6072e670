#pragma once

#include "AvailabilityObserver.h"
#include "IReport.h"
#include "MeteredDownloader.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "ResourceKit/Manifest.h"
#include "Signals.h"
#include "TransferMeter.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Halvex::Fetch {

struct Options;

/// One run: fetches the files of a manifest and reports on them. Used once, by one thread.
class Session {
public:
    /// Borrows all, which must outlive this. Needs a QCoreApplication.
    Session(const Options& options, const Kit::Manifest& manifest, Signals& signals,
            std::vector<IReport*> reports);

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Returns when every file is available or given up, or soon after a signal. Answers the exit
    /// status. When a transfer cannot be brought to its end after a signal, it does not return but
    /// ends the program, with everything reported and cleaned up.
    int Run();

private:
    /// What is kept of a bundle.
    struct Bundle {
        App::IRemoteResource* group = nullptr;
        std::size_t filesDone = 0;
        /// The known sizes of the files that are not done.
        std::uint64_t bytesToGo = 0;
    };

    App::IRemoteResourceScheduler& SchedulerOf(std::size_t bundle) const;
    void ScheduleBundles();
    void Observe();
    /// A bundle of the file alone, whose state is the file's and whose userData its number.
    App::IRemoteResource& RegisterAlone(std::size_t file);
    void Work();
    /// Returns at the end of the work or after a signal; true: after a signal.
    bool WaitForEnd();
    void Abort();
    /// Whether the work has ended within that time.
    bool EndsWithin(std::chrono::milliseconds limit);
    void ReportAvailable();
    void ReportFile(std::size_t file, const App::IRemoteResource::State& state, bool interrupted);
    void ReportProgressIfDue();
    void ReportProgress();
    /// Whether nobody asks more of the file than that its whole bundle is available.
    bool IsToldByBundle(std::size_t file) const;
    int Conclude(bool interrupted);
    std::optional<std::chrono::milliseconds> TimeToProgress() const;

    const Kit::Manifest& m_manifest;
    Signals& m_signals;
    const std::vector<IReport*> m_reports;
    const bool m_wantsProgress;
    const bool m_showsSuccess;
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_lastProgress;

    const Wakeup m_wakeup;
    /// There is nothing more to wait for.
    const Wakeup m_end;
    /// Written by the working thread at its end.
    std::atomic<bool> m_workEnded{false};
    /// Of each file if a report shows success, otherwise of each bundle.
    AvailabilityObserver m_observer;
    TransferMeter m_meter;
    /// Written by Abort, read by checks of files.
    std::atomic<bool> m_aborted{false};
    /// What RegisterAlone has made, by the files' numbers.
    std::unordered_map<std::size_t, App::ResourceDescriptorBundle> m_alone;
    /// Behind all that it calls and borrows, so that it ends before them.
    App::ResourceDownloadManager m_manager;

    /// By their places in the manifest.
    std::vector<Bundle> m_bundles;
    std::vector<bool> m_reported;
    Summary m_summary;
};

} // namespace Halvex::Fetch
