#pragma once

#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"

#include <functional>

namespace Halvex::Fetch {

/// A downloader that does what the test says. One thread at a time.
class FakeDownloader : public App::IResourceDownloader {
public:
    Status Exec(Task task) const override {
        ++calls;
        return onExec(task);
    }
    void Abort() override { ++aborts; }

    std::function<Status(const Task&)> onExec = [](const Task&) {
        return Status::Ok;
    };
    mutable int calls = 0;
    int aborts = 0;
};

} // namespace Halvex::Fetch
