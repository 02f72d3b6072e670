// What the library's own bookkeeping costs, without network and almost without disk.

#include <ResourceDownloadManager/Downloader/IResourceDownloader.h>
#include <ResourceDownloadManager/FileUtils.h>
#include <ResourceDownloadManager/IRemoteResource.h>
#include <ResourceDownloadManager/IRemoteResourceScheduler.h>
#include <ResourceDownloadManager/RemoteResourceEventHandlerCallback.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>
#include <ResourceDownloadManager/ResourceDownloadManager.h>
#include <ResourceDownloadManager/TaskQueue.h>
#include <ResourceKit/EventTracerChrome.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <malloc.h>
#include <unistd.h>

namespace {

using Halvex::App::IRemoteResource;
using Halvex::App::IResourceDownloader;
using Halvex::App::ISchedulableResource;
using Halvex::App::RemoteResourceEventHandlerCallback;
using Halvex::App::ResourceDescriptor;
using Halvex::App::ResourceDescriptorBundle;
using Halvex::App::ResourceDownloadManager;
using Halvex::App::TaskQueue;
using Halvex::Kit::EventTracerChrome;

constexpr auto kNormal = ISchedulableResource::SchedulePriority::Normal;

/// Downloads nothing, and does what it is told instead.
class FakeDownloader : public IResourceDownloader {
public:
    using Action = std::function<void(const Task&)>;

    explicit FakeDownloader(Action action) : m_action(std::move(action)) {}

    Status Exec(Task task) const override {
        const Task local = std::move(task);
        m_action(local);
        return Status::Ok;
    }
    void Abort() override {}

private:
    const Action m_action;
};

void ReportFourTimes(const IResourceDownloader::Task& task) {
    constexpr std::size_t kTotal = 4;
    for (std::size_t done = 1; done <= kTotal; ++done)
        task.progressCallback(done, kTotal);
}

/// A bundle of so many resources that are all downloaded.
struct Resources {
    explicit Resources(std::int64_t count) {
        for (std::int64_t n = 0; n < count; ++n) {
            ResourceDescriptor& descriptor = descriptors.emplace_back();
            descriptor.relativePath = "file" + std::to_string(n);
            bundle.descriptors.insert(&descriptor);
        }
    }

    std::deque<ResourceDescriptor> descriptors;
    ResourceDescriptorBundle bundle;
};

/// Makes all their files, empty, and lets the resources be present.
class Files {
public:
    explicit Files(Resources& resources) {
        if (::mkdtemp(m_folder.data()) == nullptr)
            throw std::runtime_error("cannot make a folder in " + m_folder);
        for (ResourceDescriptor& descriptor : resources.descriptors) {
            descriptor.localPath = m_folder + '/' + descriptor.relativePath;
            descriptor.validationMode = 2;
            const std::ofstream file(descriptor.localPath.string());
        }
    }
    ~Files() { std::filesystem::remove_all(m_folder); }

    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

private:
    std::string m_folder = "/dev/shm/halvex-benchmark-XXXXXX";
};

std::unique_ptr<ResourceDownloadManager> Manager(FakeDownloader::Action action) {
    ResourceDownloadManager::Dependencies dependencies;
    dependencies.resourceDownloader = std::make_shared<FakeDownloader>(std::move(action));
    auto manager = std::make_unique<ResourceDownloadManager>();
    manager->Init({}, dependencies);
    return manager;
}

/// From the registration to the last notification of the bundle's observer.
void TakeOneWayThrough(benchmark::State& state, Resources& resources) {
    for (auto _ : state) {
        state.PauseTiming();
        auto manager = Manager(&ReportFourTimes);
        std::optional<RemoteResourceEventHandlerCallback> observer(std::in_place);
        bool isAvailable = false;
        observer->SetCallback([&](IRemoteResource::State reached) {
            isAvailable = reached.status == IRemoteResource::DownloadStatus::Available;
        });
        state.ResumeTiming();
        IRemoteResource* bundle = manager->GetMainScheduler()->Register(&resources.bundle);
        observer->RegisterWithin(bundle);
        bundle->Schedule(kNormal);
        manager->ProcessCurrentQueue();
        state.PauseTiming();
        if (!isAvailable)
            state.SkipWithError("the bundle has not become available");
        observer.reset();
        manager->Abort();
        manager.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ResourcesThatArePresent(benchmark::State& state) {
    Resources resources(state.range(0));
    const Files files(resources);
    TakeOneWayThrough(state, resources);
}
BENCHMARK(ResourcesThatArePresent)->Arg(1'000)->Arg(10'000)->Arg(100'000);

/// What the system takes of the above.
void FilesThatExist(benchmark::State& state) {
    Resources resources(state.range(0));
    const Files files(resources);
    for (auto _ : state) {
        for (const ResourceDescriptor& descriptor : resources.descriptors)
            benchmark::DoNotOptimize(Halvex::App::FileExists(descriptor.localPath));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(FilesThatExist)->Arg(1'000)->Arg(100'000);

void ResourcesThatAreDownloaded(benchmark::State& state) {
    Resources resources(state.range(0));
    TakeOneWayThrough(state, resources);
}
BENCHMARK(ResourcesThatAreDownloaded)->Arg(1'000)->Arg(10'000)->Arg(100'000);

/// One report of a member that makes no notification due.
void ProgressReport(benchmark::State& state) {
    Resources resources(state.range(0));
    bool isFirst = true;
    const auto manager = Manager([&](const IResourceDownloader::Task& task) {
        if (!std::exchange(isFirst, false))
            return;
        std::size_t done = 0;
        for (auto _ : state)
            task.progressCallback(++done, std::size_t{1} << 50);
    });
    RemoteResourceEventHandlerCallback observer;
    observer.SetCallback([](IRemoteResource::State) {});
    IRemoteResource* bundle = manager->GetMainScheduler()->Register(&resources.bundle);
    observer.RegisterWithin(bundle);
    bundle->Schedule(kNormal);
    manager->ProcessCurrentQueue();
    manager->Abort();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ProgressReport)->Arg(1)->Arg(1'000)->Arg(100'000);

std::size_t AllocatedBytes() {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// What one registered resource takes in memory, beyond its descriptor.
void MemoryOfResources(benchmark::State& state) {
    Resources resources(state.range(0));
    for (auto _ : state) {
        const auto manager = Manager([](const IResourceDownloader::Task&) {});
        const std::size_t before = AllocatedBytes();
        manager->GetMainScheduler()->Register(&resources.bundle);
        const std::size_t bytes = AllocatedBytes() - before;
        state.counters["bytes_per_resource"] =
            static_cast<double>(bytes) / static_cast<double>(state.range(0));
        manager->Abort();
    }
}
BENCHMARK(MemoryOfResources)->Arg(1'000)->Arg(100'000)->Iterations(1);

/// Each thread adds a task and executes one, again and again.
void TaskQueuePairs(benchmark::State& state) {
    static TaskQueue queue;
    for (auto _ : state) {
        queue.AddTask([] {}, TaskQueue::Middle);
        queue.ExecOne();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(TaskQueuePairs)->Threads(1)->Threads(8)->UseRealTime();

/// With so many tasks in the queue.
void AddTaskBehindOthers(benchmark::State& state) {
    TaskQueue queue;
    for (std::int64_t n = 0; n < state.range(0); ++n)
        queue.AddTask([] {}, TaskQueue::Middle);
    for (auto _ : state)
        queue.AddTask([] {}, TaskQueue::Middle);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(AddTaskBehindOthers)->Arg(0)->Arg(100'000)->Iterations(100'000);

/// The thread that writes the events to the file is part of the price.
void TracedEvent(benchmark::State& state) {
    std::string path = "/dev/shm/halvex-benchmark-XXXXXX";
    const int file = ::mkstemp(path.data());
    if (file < 0)
        throw std::runtime_error("cannot make the file " + path);
    ::close(file);
    {
        const EventTracerChrome tracer(path);
        const ResourceDescriptor descriptor;
        const IRemoteResource::State reached;
        for (auto _ : state)
            tracer.Trace(EventTracerChrome::Event::Check, {&descriptor, nullptr, &reached, {}});
    }
    std::filesystem::remove(path);
}
BENCHMARK(TracedEvent)->MeasureProcessCPUTime();

/// From nothing to the first notification.
void InitAndFirstNotification(benchmark::State& state) {
    Resources resources(1);
    for (auto _ : state) {
        ResourceDownloadManager manager;
        ResourceDownloadManager::Dependencies dependencies;
        dependencies.resourceDownloader = std::make_shared<FakeDownloader>(&ReportFourTimes);
        manager.Init({}, dependencies);
        bool isNotified = false;
        RemoteResourceEventHandlerCallback observer;
        observer.SetCallback([&](IRemoteResource::State) { isNotified = true; });
        observer.RegisterWithin(manager.GetMainScheduler()->Register(&resources.bundle));
        manager.ProcessCurrentQueue();
        if (!isNotified)
            state.SkipWithError("the observer has not been notified");
        manager.Abort();
    }
}
BENCHMARK(InitAndFirstNotification)->Unit(benchmark::kMillisecond);

/// Of a manager that has nothing to do.
void AbortOfAnIdleManager(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto manager = Manager([](const IResourceDownloader::Task&) {});
        manager->StartEventLoopThread();
        state.ResumeTiming();
        manager->Abort();
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(AbortOfAnIdleManager)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
