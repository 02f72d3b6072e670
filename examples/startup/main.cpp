// Starts as soon as the files are there that it cannot do without, and fetches the rest meanwhile:
//   halvex-example-startup MANIFEST FOLDER SECONDS
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>
#include <ResourceKit/Manifest.h>
#include <ResourceKit/PostProcessorInstall.h>
#include <ResourceKit/ResourceWatch.h>
#include <ResourceKit/ValidatorSha256.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace Halvex::App;
using namespace Halvex::Kit;

namespace {

using Answer = ResourceWatch::Answer;
using Resources = std::vector<IRemoteResource*>;

/// What every start-up file must be for the application to go on: the least of the answers.
Answer WaitForAll(const Resources& resources, ResourceWatch::Deadline deadline) {
    Answer worst = Answer::Available;
    for (IRemoteResource* resource : resources) {
        const Answer answer =
            ResourceWatch::WaitUntilAvailable(resource, deadline, ResourceWatch::Errors::AreFinal);
        worst = std::max(worst, answer);
    }
    return worst;
}

/// Runs the event loop, which keeps a window alive, until there is an answer for each.
void RunUntilAnswered(const Resources& resources, ResourceWatch::Deadline deadline) {
    QEventLoop loop;
    std::atomic<std::size_t> waitedFor{resources.size()};
    std::deque<ResourceWatch> watches;
    for (IRemoteResource* resource : resources) {
        // The function is called on a thread of the watch: what it wants done here is queued.
        watches.emplace_back(resource, deadline, ResourceWatch::Errors::MayPass, [&](Answer) {
            if (--waitedFor == 0)
                QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
        });
    }
    if (!resources.empty())
        loop.exec();
}

bool CanStart(Answer answer) {
    switch (answer) {
    case Answer::Available:
        std::cout << "Starting." << std::endl;
        return true;
    case Answer::StaleUsable:
        std::cout << "Starting with the files of last time." << std::endl;
        return true;
    case Answer::Missing:
        std::cout << "This takes too long. Try again later." << std::endl;
        return false;
    case Answer::GivenUp:
        break;
    }
    std::cout << "Cannot start without a connection the first time." << std::endl;
    return false;
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " MANIFEST FOLDER SECONDS\n";
        return 2;
    }
    Manifest::Options options;
    options.folder = argv[2];
    options.keepsOldCopies = true; // so that there is something to start with when offline
    const ManifestResult result = Manifest::Load(argv[1], options);
    for (const std::string& mistake : result.mistakes)
        std::cerr << mistake << "\n";
    if (!result.manifest)
        return 2;
    const Manifest& manifest = *result.manifest;
    manifest.MakeFolders();

    ResourceDownloadManager::Dependencies services;
    services.validator = std::make_shared<ValidatorSha256>(manifest.Expected());
    services.postProcessor = std::make_shared<PostProcessorInstall>(manifest.Expected());
    ResourceDownloadManager::Params params;
    params.useParallelExecutor = true;
    ResourceDownloadManager manager;
    manager.Init(params, services);

    // Both before the thread starts: it serves the start-up files first, whatever the order here.
    Resources startUp;
    Resources others;
    for (const Manifest::Bundle& bundle : manifest.Bundles()) {
        const auto scheduler =
            bundle.startup ? manager.GetInitScheduler() : manager.GetMainScheduler();
        (bundle.startup ? startUp : others)
            .push_back(scheduler->RegisterAutoSchedule(&bundle.descriptors, bundle.priority));
    }
    manager.StartEventLoopThread();

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[3]));
    const bool starts = CanStart(WaitForAll(startUp, deadline));
    if (starts) {
        // An application shows its window now; this one waits for the rest.
        RunUntilAnswered(others, deadline);
    }
    manager.Abort();
    return starts ? 0 : 1;
}
