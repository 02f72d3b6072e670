#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/IRemoteResourceScheduler.h"
#include "ResourceDownloadManager/RemoteResourceEventHandlerCallback.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceDownloadManager/ResourceDownloadManager.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <QtCore/QCoreApplication>

#include <chrono>
#include <deque>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::Testing {

/// What an application around the library consists of: a manager, the descriptions of its files,
/// and a folder for them.
class Application {
public:
    using Params = App::ResourceDownloadManager::Params;
    using Dependencies = App::ResourceDownloadManager::Dependencies;

    explicit Application(const Params& params, const Dependencies& dependencies = {}) {
        manager.Init(params, dependencies);
    }
    ~Application() { manager.Abort(); }

    /// A file that counts when it is there. In the folder it lies under its own name, whatever
    /// folders it has on the server.
    App::ResourceDescriptor& AddFile(const std::string& baseUrl, const std::string& relativePath) {
        App::ResourceDescriptor& descriptor = m_descriptors.emplace_back();
        descriptor.baseUrl = baseUrl;
        descriptor.relativePath = relativePath;
        descriptor.downloadPath = folder / relativePath.substr(relativePath.rfind('/') + 1);
        descriptor.localPath = descriptor.downloadPath;
        descriptor.tempPath = ioPath(descriptor.downloadPath.string() + ".part");
        descriptor.validationMode = 2;
        return descriptor;
    }

    /// Registers a bundle of these files with the main scheduler.
    App::IRemoteResource* Register(std::set<const App::ResourceDescriptor*> files) {
        return manager.GetMainScheduler()->Register(&AddBundle(std::move(files)));
    }

    /// Registers and schedules it.
    App::IRemoteResource* Schedule(std::set<const App::ResourceDescriptor*> files) {
        return manager.GetMainScheduler()->RegisterAutoSchedule(
            &AddBundle(std::move(files)), App::ISchedulableResource::SchedulePriority::Normal);
    }

    const App::ResourceDescriptorBundle& AddBundle(std::set<const App::ResourceDescriptor*> files) {
        App::ResourceDescriptorBundle& bundle = m_bundles.emplace_back();
        bundle.descriptors = std::move(files);
        return bundle;
    }

    /// Runs all the work on this thread, and delivers what notifications wait for its event loop.
    void Run() {
        manager.ProcessCurrentQueue();
        QCoreApplication::processEvents();
    }

    /// How long Abort takes.
    std::chrono::milliseconds TimedAbort() {
        const auto begin = std::chrono::steady_clock::now();
        manager.Abort();
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - begin);
    }

    TemporaryFolder folder;

private:
    std::deque<App::ResourceDescriptor> m_descriptors;
    std::deque<App::ResourceDescriptorBundle> m_bundles;

public:
    /// Destroyed before the descriptors.
    App::ResourceDownloadManager manager;
};

/// Names the tests whose parameter is whether the parallel executor is used.
inline std::string ExecutorName(const testing::TestParamInfo<bool>& info) {
    return info.param ? "Parallel" : "Blocking";
}

/// How long Abort may take when it is prompt, on a loaded machine.
constexpr std::chrono::seconds kPrompt(5);

/// "Error GeneralError": a state without its progress.
inline std::string Outcome(const App::IRemoteResource::State& state) {
    return App::IRemoteResource::StatusToString(state.status) + ' ' +
           App::IRemoteResource::ErrorToString(state.error);
}

/// Waits until a resource is in a state, while the notifications that wait for this thread's event
/// loop are delivered. False: it is not within the limit.
template <typename Condition>
bool WaitForState(App::IRemoteResource* resource, Condition condition) {
    return WaitUntil([&] {
        QCoreApplication::processEvents();
        return condition(resource->GetState());
    });
}

inline bool WaitForOutcome(App::IRemoteResource* resource, const std::string& outcome) {
    return WaitForState(resource, [&](const auto& state) { return Outcome(state) == outcome; });
}

/// Waits until a transfer has got going.
inline bool WaitForProgress(App::IRemoteResource* resource) {
    return WaitForState(resource, [](const auto& state) { return state.progress > 0; });
}

/// An observer that writes down how the status changes, whatever thread tells it.
class StatusLog {
public:
    explicit StatusLog(App::IRemoteResource* resource) {
        App::IRemoteResource::NotificationParams params;
        params.notifyProgress = false;
        m_observer.SetNotificationParams(params);
        m_observer.SetCallback([this](App::IRemoteResource::State state) {
            const MutexLock lock(m_mutex);
            m_outcomes.push_back(Outcome(state));
            m_threads.push_back(std::this_thread::get_id());
        });
        m_observer.RegisterWithin(resource);
    }

    std::vector<std::string> Outcomes() {
        const MutexLock lock(m_mutex);
        return m_outcomes;
    }

    /// The threads that told it, one per outcome.
    std::vector<std::thread::id> Threads() {
        const MutexLock lock(m_mutex);
        return m_threads;
    }

private:
    Mutex m_mutex;
    std::vector<std::string> m_outcomes HALVEX_GUARDED_BY(m_mutex);
    std::vector<std::thread::id> m_threads HALVEX_GUARDED_BY(m_mutex);
    App::RemoteResourceEventHandlerCallback m_observer;
};

} // namespace Halvex::Testing
