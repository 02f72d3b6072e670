#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IDownloadRetrier.h"

#include <memory>

namespace Halvex::App {

/// The retry policy: a resource whose connection was lost is tried again up to 20 times, one that
/// failed in another way once, in the order in which they failed. A success resets the count of its
/// resource.
///
/// The connection looks Unstable from the third retry since the last success of any resource, and
/// Lost from the eleventh. While it does not look Good, Check answers Wait and Retried in turn.
///
/// Thread-safe. Resources that were reported must outlive it. Check calls Schedule with the
/// retrier's lock held: Schedule must not call the retrier back on the same thread.
class HALVEX_EXPORT DownloadRetrier : public IDownloadRetrier {
public:
    DownloadRetrier();
    ~DownloadRetrier() override;

    DownloadRetrier(const DownloadRetrier&) = delete;
    DownloadRetrier& operator=(const DownloadRetrier&) = delete;

    void DownloadFinished(ISchedulableResource* resource,
                          IRemoteResource::DownloadError error) override;
    Result Check() override;
    ConnectionState GetState() const override;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

} // namespace Halvex::App
