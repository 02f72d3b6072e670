#include "ResourceDownloadManager/DownloadRetrier.h"

#include "Foundation/Mutex.h"

#include <list>
#include <unordered_map>

namespace Halvex::App {

namespace {

constexpr std::uint64_t kRetriesAfterConnectionLoss = 20;
constexpr std::uint64_t kRetriesAfterOtherErrors = 1;
constexpr std::uint64_t kUnstableFromRetries = 3;
constexpr std::uint64_t kLostAboveRetries = 10;

} // namespace

struct HALVEX_HIDDEN DownloadRetrier::Impl {
    /// The next failed resource that has not succeeded since it was queued; null: none.
    ISchedulableResource* TakeNextLocked() HALVEX_REQUIRES(mutex) {
        while (!retryQueue.empty()) {
            ISchedulableResource* resource = retryQueue.front();
            retryQueue.pop_front();
            if (failures.count(resource) != 0)
                return resource;
        }
        return nullptr;
    }

    /// A state changes at most once per retry, so Lost is only ever reached from Unstable.
    void CountRetryLocked() HALVEX_REQUIRES(mutex) {
        ++retries;
        if (retries >= kUnstableFromRetries && connection == ConnectionState::Good)
            connection = ConnectionState::Unstable;
        else if (retries > kLostAboveRetries)
            connection = ConnectionState::Lost;
    }

    Mutex mutex;
    /// In the order in which they are to be retried; the same resource may stand here twice.
    std::list<ISchedulableResource*> retryQueue HALVEX_GUARDED_BY(mutex);
    /// Retries since the last success of any resource.
    std::uint64_t retries HALVEX_GUARDED_BY(mutex) = 0;
    /// Check has answered Wait for the first resource of the queue; it is retried next.
    bool waitPending HALVEX_GUARDED_BY(mutex) = false;
    ConnectionState connection HALVEX_GUARDED_BY(mutex) = ConnectionState::Good;
    /// Failed attempts since the last success, of those whose last attempt has failed.
    std::unordered_map<ISchedulableResource*, std::uint64_t> failures HALVEX_GUARDED_BY(mutex){8};
};

DownloadRetrier::DownloadRetrier() : m_impl(std::make_unique<Impl>()) {}

DownloadRetrier::~DownloadRetrier() = default;

void DownloadRetrier::DownloadFinished(ISchedulableResource* resource,
                                       IRemoteResource::DownloadError error) {
    using DownloadError = IRemoteResource::DownloadError;
    const MutexLock lock(m_impl->mutex);
    if (error == DownloadError::NoError) {
        m_impl->retries = 0;
        m_impl->connection = ConnectionState::Good;
        m_impl->failures.erase(resource);
        return;
    }
    const std::uint64_t failures = ++m_impl->failures[resource];
    const std::uint64_t limit = error == DownloadError::InternetConnectionLost
                                    ? kRetriesAfterConnectionLoss
                                    : kRetriesAfterOtherErrors;
    if (failures <= limit)
        m_impl->retryQueue.push_back(resource);
}

IDownloadRetrier::Result DownloadRetrier::Check() {
    const MutexLock lock(m_impl->mutex);
    ISchedulableResource* resource = m_impl->TakeNextLocked();
    if (resource == nullptr)
        return Result::NothingToRetry;
    if (!m_impl->waitPending && m_impl->connection != ConnectionState::Good) {
        m_impl->waitPending = true;
        m_impl->retryQueue.push_front(resource);
        return Result::Wait;
    }
    m_impl->waitPending = false;
    m_impl->CountRetryLocked();
    resource->Schedule(ISchedulableResource::SchedulePriority::Normal);
    return Result::Retried;
}

IDownloadRetrier::ConnectionState DownloadRetrier::GetState() const {
    const MutexLock lock(m_impl->mutex);
    return m_impl->connection;
}

} // namespace Halvex::App
