#include "Session.h"

#include "ExitStatus.h"
#include "Options.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "Services.h"

#include <glog/logging.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include <unistd.h>

namespace Halvex::Fetch {

namespace {

using App::IRemoteResource;
using Clock = std::chrono::steady_clock;
using Status = IRemoteResource::DownloadStatus;

/// At most nine in any second, and the last one, which waits for none, makes ten.
constexpr std::chrono::milliseconds kProgressInterval(125);
/// Files that end within it are reported together.
constexpr std::chrono::milliseconds kReportInterval(10);
/// What a transfer gets to notice that it is to end. A client that waits for a silent server may
/// not notice at all.
constexpr std::chrono::seconds kAbortLimit(2);

std::uint64_t SizeOf(const App::ioPath& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path.string(), error);
    return error ? 0 : size;
}

} // namespace

Session::Session(const Options& options, const Kit::Manifest& manifest, Signals& signals,
                 std::vector<IReport*> reports)
    : m_manifest(manifest), m_signals(signals), m_reports(std::move(reports)),
      m_wantsProgress(std::any_of(m_reports.begin(), m_reports.end(),
                                  [](const IReport* report) { return report->WantsProgress(); })),
      m_showsSuccess(std::any_of(m_reports.begin(), m_reports.end(),
                                 [](const IReport* report) { return report->ShowsSuccess(); })),
      m_observer(m_showsSuccess ? manifest.Files().size() : manifest.Bundles().size(), m_wakeup),
      m_meter(manifest.Bundles().size(), manifest.Files().size()),
      m_bundles(manifest.Bundles().size()), m_reported(manifest.Files().size()) {
    App::ResourceDownloadManager::Params params;
    params.useParallelExecutor = true;
    params.threadCount = options.threads;
    m_manager.Init(params,
                   MakeServices(options, manifest, m_meter, [this] { return m_aborted.load(); }));
}

int Session::Run() {
    ScheduleBundles();
    std::thread worker([this] { Work(); });
    bool interrupted = false;
    try {
        // An observer that comes late is told what has become of a file meanwhile.
        Observe();
        ReportProgress();
        interrupted = WaitForEnd();
    } catch (...) {
        // Such as a lack of memory, which whoever called tells of.
        m_aborted = true;
        m_manager.Abort();
        worker.join();
        throw;
    }
    if (interrupted)
        Abort();
    worker.join();
    return Conclude(interrupted);
}

App::IRemoteResourceScheduler& Session::SchedulerOf(std::size_t bundle) const {
    return m_manifest.Bundles()[bundle].startup ? *m_manager.GetInitScheduler()
                                                : *m_manager.GetMainScheduler();
}

void Session::ScheduleBundles() {
    for (std::size_t i = 0; i < m_bundles.size(); ++i) {
        const Kit::Manifest::Bundle& bundle = m_manifest.Bundles()[i];
        m_bundles[i].bytesToGo = bundle.totalBytes.value_or(0);
        m_bundles[i].group =
            SchedulerOf(i).RegisterAutoSchedule(&bundle.descriptors, bundle.priority);
    }
}

void Session::Observe() {
    const IRemoteResource::NotificationParams params = AvailabilityObserver::Params();
    if (m_showsSuccess) {
        for (std::size_t file = 0; file < m_reported.size(); ++file)
            RegisterAlone(file).RegisterEventHandler(&m_observer, params);
    } else {
        for (std::size_t i = 0; i < m_bundles.size(); ++i) {
            const App::ResourceDescriptorBundle& content = m_manifest.Bundles()[i].descriptors;
            // An empty one stays Waiting, although nothing of it is missing.
            if (content.descriptors.empty())
                m_observer.OnStateChanged({}, &content);
            else
                m_bundles[i].group->RegisterEventHandler(&m_observer, params);
        }
    }
}

IRemoteResource& Session::RegisterAlone(std::size_t file) {
    const Kit::Manifest::File& entry = m_manifest.Files()[file];
    const auto [place, isNew] = m_alone.try_emplace(file);
    App::ResourceDescriptorBundle& alone = place->second;
    if (isNew) {
        alone.descriptors.insert(&entry.descriptor);
        alone.userData = file;
    }
    return *SchedulerOf(entry.bundle).Register(&alone);
}

void Session::Work() {
    try {
        // Not ProcessCurrentQueue: it makes sure that no queue has anything left, and starts all
        // threads for that.
        while (!m_observer.AreAllAvailable() && m_manager.ProcessCurrentQueueQuant()) {
        }
    } catch (const std::exception& exception) {
        // Such as threads that cannot be started; what is not done now counts as given up.
        LOG(ERROR) << "the work has ended early: " << exception.what();
    }
    m_workEnded = true;
    m_wakeup.Notify();
    m_end.Notify();
}

bool Session::WaitForEnd() {
    while (!m_workEnded) {
        if (m_signals.Wait(m_wakeup, TimeToProgress()))
            return true;
        ReportAvailable();
        ReportProgressIfDue();
        if (m_signals.Wait(m_end, kReportInterval))
            return true;
    }
    return false;
}

void Session::Abort() {
    m_aborted = true;
    // Waits for the transfers that are under way.
    std::thread aborter([this] { m_manager.Abort(); });
    if (EndsWithin(kAbortLimit)) {
        aborter.join();
        return;
    }
    for (const Kit::Manifest::File& file : m_manifest.Files())
        ::unlink(file.descriptor.tempPath.string().c_str());
    const int status = Conclude(true);
    // Neither thread can be joined, and no destructor may run under their feet.
    ::_exit(status);
}

bool Session::EndsWithin(std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (!m_workEnded) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        m_signals.Wait(m_wakeup, left);
    }
    return true;
}

void Session::ReportAvailable() {
    if (!m_showsSuccess)
        return;
    for (const std::size_t file : m_observer.TakeAvailable())
        ReportFile(file, {Status::Available, IRemoteResource::DownloadError::NoError, 1.0}, false);
}

void Session::ReportFile(std::size_t file, const IRemoteResource::State& state, bool interrupted) {
    m_reported[file] = true;
    const Kit::Manifest::File& entry = m_manifest.Files()[file];
    const bool isAvailable = state.status == Status::Available;
    if (isAvailable) {
        Bundle& bundle = m_bundles[entry.bundle];
        ++bundle.filesDone;
        bundle.bytesToGo -= entry.expected.size.value_or(0);
        ++m_summary.available;
        if (m_meter.HasBegun(file))
            m_summary.bytes += SizeOf(entry.descriptor.localPath);
    } else {
        ++m_summary.failed;
    }
    const FileResult result{m_manifest.Bundles()[entry.bundle].name, entry.path, state,
                            !isAvailable && !interrupted};
    for (IReport* report : m_reports)
        report->OnFileEnded(result);
}

std::optional<std::chrono::milliseconds> Session::TimeToProgress() const {
    if (!m_wantsProgress)
        return std::nullopt;
    const auto left = m_lastProgress + kProgressInterval - Clock::now();
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(left),
                    std::chrono::milliseconds(0));
}

void Session::ReportProgressIfDue() {
    if (m_wantsProgress && Clock::now() - m_lastProgress >= kProgressInterval)
        ReportProgress();
}

void Session::ReportProgress() {
    m_lastProgress = Clock::now();
    if (!m_wantsProgress)
        return;
    std::vector<BundleProgress> bundles;
    for (std::size_t i = 0; i < m_bundles.size(); ++i) {
        const Bundle& bundle = m_bundles[i];
        const Kit::Manifest::Bundle& content = m_manifest.Bundles()[i];
        TransferMeter::Count& count = m_meter.Of(i);
        BundleProgress progress;
        progress.name = content.name;
        progress.filesDone = bundle.filesDone;
        progress.files = content.descriptors.descriptors.size();
        progress.state = bundle.group->GetState();
        progress.bytesReceived = count.received;
        if (content.totalBytes)
            progress.bytesLeft =
                bundle.bytesToGo - std::min<std::uint64_t>(count.underWay, bundle.bytesToGo);
        bundles.push_back(std::move(progress));
    }
    for (IReport* report : m_reports)
        report->OnProgress(bundles);
}

bool Session::IsToldByBundle(std::size_t file) const {
    const Bundle& bundle = m_bundles[m_manifest.Files()[file].bundle];
    return !m_showsSuccess && bundle.group->GetState().status == Status::Available;
}

int Session::Conclude(bool interrupted) {
    ReportAvailable();
    ReportProgress();
    for (std::size_t file = 0; file < m_reported.size(); ++file) {
        if (!m_reported[file] && !IsToldByBundle(file))
            ReportFile(file, RegisterAlone(file).GetState(), interrupted);
    }
    m_summary.seconds = std::chrono::duration<double>(Clock::now() - m_begin).count();
    m_summary.interrupted = interrupted;
    for (IReport* report : m_reports) {
        if (report->ShowsSuccess())
            report->OnSummary(m_summary);
    }
    if (interrupted)
        return Interrupted;
    return m_summary.failed == 0 ? AllAvailable : SomeGivenUp;
}

} // namespace Halvex::Fetch
