#include "ResourceDownloadManager/ResourceItem.h"

#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/FileUtils.h"
#include "ResourceDownloadManager/IDownloadRetrier.h"
#include "ResourceDownloadManager/IEventTracer.h"
#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceDownloadManager/ITaskQueue.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <utility>

namespace Halvex::App {

namespace {

using DownloadError = IRemoteResource::DownloadError;
using Event = IEventTracer::Event;

constexpr std::int32_t kRejected = 1;

/// The values of ResourceDescriptor::validationMode that make a difference.
constexpr std::int32_t kAlwaysDownload = 0;
constexpr std::int32_t kValidate = 1;
constexpr std::int32_t kExistenceSuffices = 2;

ITaskQueue::Priority ToQueuePriority(ISchedulableResource::SchedulePriority priority) {
    switch (priority) {
    case ISchedulableResource::SchedulePriority::High:
        return ITaskQueue::Higher;
    case ISchedulableResource::SchedulePriority::Normal:
        return ITaskQueue::Middle;
    case ISchedulableResource::SchedulePriority::Low:
        break;
    }
    return ITaskQueue::Lower;
}

} // namespace

ResourceItem::ResourceItem(const ResourceDescriptor* descriptor, const ItemServices& services)
    : m_state(descriptor, nullptr, *services.notificationQueue, *services.tracer),
      m_descriptor(descriptor), m_services(services) {}

void ResourceItem::Schedule(SchedulePriority priority) {
    const MutexLock lock(m_mutex);
    ScheduleUncheckedLocked(priority);
}

void ResourceItem::ScheduleIfNeeded(SchedulePriority priority) {
    const MutexLock lock(m_mutex);
    if (!m_scheduled || priority > m_scheduledPriority)
        ScheduleUncheckedLocked(priority);
}

void ResourceItem::Prefetch() const {
    __builtin_prefetch(&m_descriptor->checkOnSchedule);
}

void ResourceItem::ScheduleUncheckedLocked(SchedulePriority priority) {
    const std::uint64_t errorCount = m_state.ErrorCount();
    if (m_descriptor->checkOnSchedule == 1 && IsPresent()) {
        const bool isAvailable = SetAvailable(errorCount, &ResourceItem::IsPresent);
        if (isAvailable && m_descriptor->validationMode == kExistenceSuffices)
            return;
    }
    m_scheduledPriority = priority;
    m_scheduled = true;
    Trace(Event::CheckScheduled);
    m_services.checkQueue->AddTask([this] { Check(); }, ToQueuePriority(priority));
}

/// Two checks may run at once, and the download of one removes or replaces the file that the other
/// has found or fetched. If it fails, its error must not be overwritten by what was true before.
bool ResourceItem::SetAvailable(std::uint64_t errorCount, bool (ResourceItem::*isSo)() const) {
    while (!m_state.SetAvailable(errorCount)) {
        errorCount = m_state.ErrorCount();
        if (!(this->*isSo)())
            return false;
    }
    return true;
}

void ResourceItem::Check() {
    Trace(Event::Check);
    const std::uint64_t errorCount = m_state.ErrorCount();
    if (IsAlreadyAvailable())
        SetAvailable(errorCount, &ResourceItem::IsAcceptable);
    else
        StartDownload();
    m_firstCheck = false;
    Trace(Event::CheckEnd);
}

bool ResourceItem::IsAlreadyAvailable() {
    if (m_descriptor->validationMode == kAlwaysDownload)
        return false;
    // What has been checked once is trusted without touching the disk again.
    if (!m_firstCheck && m_state.GetState().status == IRemoteResource::DownloadStatus::Available)
        return true;
    return IsAcceptable();
}

bool ResourceItem::IsPresent() const {
    return FileExists(m_descriptor->localPath);
}

bool ResourceItem::IsAcceptable() const {
    return IsPresent() && (m_descriptor->validationMode == kExistenceSuffices || IsValid());
}

/// What was fetched may have been made into what is at the local path, or be waiting for that.
bool ResourceItem::IsThere() const {
    return IsPresent() || FileExists(m_descriptor->downloadPath);
}

bool ResourceItem::IsFetched() const {
    return IsThere() && (m_descriptor->validationMode != kValidate || IsValid());
}

bool ResourceItem::IsValid() const {
    return m_services.validator->Validate(m_descriptor) != kRejected;
}

void ResourceItem::StartDownload() {
    const std::string& path = m_descriptor->relativePath;
    m_services.tracer->Trace(Event::Download, {nullptr, nullptr, nullptr, path});
    m_state.SetProgress(0, 1);
    const DownloadError outcome = Download();
    if (outcome != DownloadError::NoError)
        m_state.SetError(outcome);
    m_services.retrier->DownloadFinished(this, outcome);
    m_services.tracer->Trace(
        Event::DownloadEnd,
        {nullptr, nullptr, nullptr, path + ", err:" + IRemoteResource::ErrorToString(outcome)});
}

DownloadError ResourceItem::Download() {
    const std::uint64_t errorCount = m_state.ErrorCount();
    IResourceDownloader::Task task;
    task.descriptor = m_descriptor;
    task.progressCallback = [this](std::size_t done, std::size_t total) {
        m_state.SetProgress(done, total);
    };
    switch (m_services.downloader->Exec(std::move(task))) {
    case IResourceDownloader::Status::Failed:
        return DownloadError::GeneralError;
    case IResourceDownloader::Status::NetworkFailure:
        return DownloadError::InternetConnectionLost;
    case IResourceDownloader::Status::Cancelled:
        return DownloadError::Cancelled;
    case IResourceDownloader::Status::Ok:
        break;
    }
    const DownloadError outcome = JudgeDownload();
    if (outcome != DownloadError::NoError)
        return outcome;
    if (SetAvailable(errorCount, &ResourceItem::IsFetched))
        return DownloadError::NoError;
    return IsThere() ? DownloadError::Corrupted : DownloadError::GeneralError;
}

DownloadError ResourceItem::JudgeDownload() const {
    if (m_descriptor->postProcess != 0 && m_services.postProcessor->Process(m_descriptor) != 0)
        return DownloadError::Corrupted;
    if (m_descriptor->validationMode == kValidate && !IsValid())
        return DownloadError::Corrupted;
    return DownloadError::NoError;
}

void ResourceItem::Trace(Event event) {
    IRemoteResource::State snapshot;
    m_services.tracer->Trace(event, m_state.GetTraceRecord(snapshot));
}

} // namespace Halvex::App
