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

constexpr std::chrono::milliseconds kProgressInterval(100);
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

Session::Session(const Options& options, const Catalogue& catalogue, Signals& signals,
                 std::vector<IReport*> reports)
    : m_catalogue(catalogue), m_signals(signals), m_reports(std::move(reports)),
      m_wantsProgress(std::any_of(m_reports.begin(), m_reports.end(),
                                  [](const IReport* report) { return report->WantsProgress(); })),
      m_observer(catalogue.Files().size(), m_wakeup), m_meter(catalogue.Bundles().size()),
      m_validator(std::make_shared<Sha256Validator>(catalogue.Checksums())),
      m_bundles(catalogue.Bundles().size()), m_reported(catalogue.Files().size()) {
    App::ResourceDownloadManager::Params params;
    params.useParallelExecutor = true;
    params.threadCount = options.threads;
    m_manager.Init(params, MakeServices(options, catalogue, m_meter, m_validator));
}

Session::~Session() {
    for (IRemoteResource* file : m_files)
        file->UnregisterEventHandler(&m_observer);
}

int Session::Run() {
    RegisterFiles();
    ScheduleBundles();
    std::thread worker([this] { Work(); });
    ReportProgress();
    const bool interrupted = WaitForEnd();
    if (interrupted)
        Abort();
    worker.join();
    return Conclude(interrupted);
}

App::IRemoteResourceScheduler& Session::SchedulerOf(std::size_t bundle) const {
    return m_catalogue.Bundles()[bundle].plan->startup ? *m_manager.GetInitScheduler()
                                                       : *m_manager.GetMainScheduler();
}

void Session::RegisterFiles() {
    for (const FileEntry& file : m_catalogue.Files()) {
        IRemoteResource* resource = SchedulerOf(file.bundle).Register(&file.alone);
        resource->RegisterEventHandler(&m_observer, FileObserver::Params());
        m_files.push_back(resource);

        Bundle& bundle = m_bundles[file.bundle];
        bundle.bytesToGo += file.plan->size.value_or(0);
        bundle.allSizesKnown = bundle.allSizesKnown && file.plan->size.has_value();
    }
}

void Session::ScheduleBundles() {
    for (std::size_t i = 0; i < m_bundles.size(); ++i) {
        const BundleEntry& entry = m_catalogue.Bundles()[i];
        m_bundles[i].group =
            SchedulerOf(i).RegisterAutoSchedule(&entry.group, entry.plan->priority);
    }
}

void Session::Work() {
    try {
        m_manager.ProcessCurrentQueue();
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
    m_validator->Abort();
    // Waits for the transfers that are under way.
    std::thread aborter([this] { m_manager.Abort(); });
    if (EndsWithin(kAbortLimit)) {
        aborter.join();
        return;
    }
    m_catalogue.RemoveTemporaryFiles();
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
    for (const std::size_t file : m_observer.TakeAvailable())
        ReportFile(file, {Status::Available, IRemoteResource::DownloadError::NoError, 1.0}, false);
}

void Session::ReportFile(std::size_t file, const IRemoteResource::State& state, bool givenUp) {
    m_reported[file] = true;
    const FileEntry& entry = m_catalogue.Files()[file];
    if (state.status == Status::Available) {
        Bundle& bundle = m_bundles[entry.bundle];
        ++bundle.filesDone;
        bundle.bytesToGo -= entry.plan->size.value_or(0);
        ++m_summary.available;
        if (m_observer.WasDownloaded(file))
            m_summary.bytes += SizeOf(entry.descriptor.localPath);
    } else {
        ++m_summary.failed;
    }
    const FileResult result{m_catalogue.Bundles()[entry.bundle].plan->name, entry.plan->path, state,
                            givenUp};
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
        const PlannedBundle& plan = *m_catalogue.Bundles()[i].plan;
        TransferMeter::Count& count = m_meter.Of(i);
        BundleProgress progress;
        progress.name = plan.name;
        progress.filesDone = bundle.filesDone;
        progress.files = plan.files.size();
        progress.state = bundle.group->GetState();
        progress.bytesReceived = count.received;
        if (bundle.allSizesKnown)
            progress.bytesLeft =
                bundle.bytesToGo - std::min<std::uint64_t>(count.underWay, bundle.bytesToGo);
        bundles.push_back(std::move(progress));
    }
    for (IReport* report : m_reports)
        report->OnProgress(bundles);
}

int Session::Conclude(bool interrupted) {
    ReportAvailable();
    ReportProgress();
    for (std::size_t file = 0; file < m_files.size(); ++file) {
        if (m_reported[file])
            continue;
        ReportFile(file, m_files[file]->GetState(), !interrupted);
    }
    m_summary.seconds = std::chrono::duration<double>(Clock::now() - m_begin).count();
    m_summary.interrupted = interrupted;
    for (IReport* report : m_reports)
        report->OnSummary(m_summary);
    if (interrupted)
        return Interrupted;
    return m_summary.failed == 0 ? AllAvailable : SomeGivenUp;
}

} // namespace Halvex::Fetch
