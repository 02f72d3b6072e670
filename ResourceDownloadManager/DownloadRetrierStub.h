#pragma once

#include "ResourceDownloadManager/IDownloadRetrier.h"

namespace Halvex::App {

/// Never retries.
class DownloadRetrierStub : public IDownloadRetrier {
public:
    DownloadRetrierStub() = default;
    DownloadRetrierStub(const DownloadRetrierStub&) = delete;
    DownloadRetrierStub& operator=(const DownloadRetrierStub&) = delete;

    void DownloadFinished(ISchedulableResource*, IRemoteResource::DownloadError) override {}
    Result Check() override { return Result::NothingToRetry; }
    ConnectionState GetState() const override { return ConnectionState::Good; }
};

} // namespace Halvex::App
