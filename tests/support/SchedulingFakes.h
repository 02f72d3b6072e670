#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/IDownloadRetrier.h"
#include "ResourceDownloadManager/IEventTracer.h"
#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/ITaskQueue.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Testing {

/// A state in three words: "Dowloading NoError 0.5".
inline std::string Describe(const App::IRemoteResource::State& state) {
    std::ostringstream text;
    text << App::IRemoteResource::StatusToString(state.status) << ' '
         << App::IRemoteResource::ErrorToString(state.error) << ' ';
    if (std::isnan(state.progress))
        text << "nan";
    else
        text << state.progress;
    return text.str();
}

/// The parts that a trace record has: "a.bin bundle Waiting NoError 0 \"text\"".
inline std::string Describe(const App::IEventTracer::TraceRecord& record) {
    std::string text;
    const auto append = [&text](const std::string& word) {
        text += (text.empty() ? "" : " ") + word;
    };
    if (record.descriptor != nullptr)
        append(record.descriptor->relativePath);
    if (record.bundle != nullptr)
        append("bundle");
    if (record.state != nullptr)
        append(Describe(*record.state));
    if (!record.text.empty())
        append('"' + record.text + '"');
    return text;
}

/// The calls that several fakes receive, in one order. Thread-safe.
class CallRecorder {
public:
    using Calls = std::vector<std::string>;

    void Add(std::string call) {
        const MutexLock lock(m_mutex);
        m_calls.push_back(std::move(call));
    }

    /// The calls since the last time.
    Calls Take() {
        const MutexLock lock(m_mutex);
        return std::exchange(m_calls, {});
    }

private:
    Mutex m_mutex;
    Calls m_calls HALVEX_GUARDED_BY(m_mutex);
};

/// Keeps its tasks, in the order of coming, until the test runs them. Thread-safe.
///
/// Unlike the kit's ManualTaskQueue it writes into the recorder that all fakes share, which shows
/// the order of the calls between them, and runs a function of the test's inside AddTask.
class FakeTaskQueue : public App::ITaskQueue {
public:
    FakeTaskQueue(CallRecorder& recorder, std::string name)
        : m_recorder(recorder), m_name(std::move(name)) {}

    /// Called inside AddTask.
    std::function<void()> onAddTask = [] {
    };

    /// The oldest task, whatever the priorities.
    bool ExecOne() override {
        Task task;
        {
            const MutexLock lock(m_mutex);
            if (m_tasks.empty())
                return false;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
        return true;
    }

    void AddTask(Task task, Priority priority) override {
        m_recorder.Add("AddTask " + m_name + ' ' + std::to_string(priority));
        onAddTask();
        const MutexLock lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }

    void RegisterEventHandler(App::ITaskQueueEventHandler*) override {}
    void UnregisterEventHandler(App::ITaskQueueEventHandler*) override {}

    void ExecAll() {
        while (ExecOne()) {
        }
    }

    std::size_t Pending() {
        const MutexLock lock(m_mutex);
        return m_tasks.size();
    }

    /// Lets the newest task be the next, as when threads add them the other way round.
    void Reverse() {
        const MutexLock lock(m_mutex);
        std::reverse(m_tasks.begin(), m_tasks.end());
    }

private:
    CallRecorder& m_recorder;
    const std::string m_name;
    Mutex m_mutex;
    std::deque<Task> m_tasks HALVEX_GUARDED_BY(m_mutex);
};

class FakeTracer : public App::IEventTracer {
public:
    explicit FakeTracer(CallRecorder& recorder) : m_recorder(recorder) {}

    /// Called with each record, after it has been recorded.
    std::function<void(Event, const TraceRecord&)> onTrace = [](Event, const TraceRecord&) {
    };

    void Trace(Event event, const TraceRecord& record) const override {
        static const std::array<std::string, 11> kNames{"CheckScheduled",
                                                        "Check",
                                                        "/Check",
                                                        "ValidatorCheck",
                                                        "RegisterValidator",
                                                        "StatusNotification",
                                                        "/StatusNotification",
                                                        "ProgressNotification",
                                                        "/ProgressNotification",
                                                        "Download",
                                                        "/Download"};
        m_recorder.Add("Trace " + kNames.at(static_cast<std::size_t>(event)) + ' ' +
                       Describe(record));
        onTrace(event, record);
    }
    void TraceString(const std::string& text) const override {
        m_recorder.Add("TraceString " + text);
    }

private:
    CallRecorder& m_recorder;
};

/// Answers Ok unless told otherwise.
class FakeDownloader : public App::IResourceDownloader {
public:
    explicit FakeDownloader(CallRecorder& recorder) : m_recorder(recorder) {}

    std::function<Status(const Task&)> onExec = [](const Task&) {
        return Status::Ok;
    };

    Status Exec(Task task) const override {
        const Task local = std::move(task);
        m_recorder.Add("Exec " + local.descriptor->relativePath);
        return onExec(local);
    }
    void Abort() override {}

private:
    CallRecorder& m_recorder;
};

/// Accepts unless told otherwise.
class FakeValidator : public App::IValidator {
public:
    explicit FakeValidator(CallRecorder& recorder) : m_recorder(recorder) {}

    std::function<std::int32_t(const App::ResourceDescriptor*)> onValidate =
        [](const App::ResourceDescriptor*) {
            return 0;
        };

    std::int32_t Validate(const App::ResourceDescriptor* descriptor) override {
        m_recorder.Add("Validate " + descriptor->relativePath);
        return onValidate(descriptor);
    }

private:
    CallRecorder& m_recorder;
};

/// Succeeds unless told otherwise.
class FakePostProcessor : public App::IPostProcessor {
public:
    explicit FakePostProcessor(CallRecorder& recorder) : m_recorder(recorder) {}

    std::function<std::int32_t(const App::ResourceDescriptor*)> onProcess =
        [](const App::ResourceDescriptor*) {
            return 0;
        };

    std::int32_t Process(const App::ResourceDescriptor* descriptor) override {
        m_recorder.Add("Process " + descriptor->relativePath);
        return onProcess(descriptor);
    }

private:
    CallRecorder& m_recorder;
};

class FakeRetrier : public App::IDownloadRetrier {
public:
    explicit FakeRetrier(CallRecorder& recorder) : m_recorder(recorder) {}

    std::function<void(App::ISchedulableResource*)> onFinished = [](App::ISchedulableResource*) {
    };

    void DownloadFinished(App::ISchedulableResource* resource,
                          App::IRemoteResource::DownloadError error) override {
        m_recorder.Add("DownloadFinished " + App::IRemoteResource::ErrorToString(error));
        onFinished(resource);
    }
    Result Check() override { return Result::NothingToRetry; }
    ConnectionState GetState() const override { return ConnectionState::Good; }

private:
    CallRecorder& m_recorder;
};

/// Remembers what it was told. Thread-safe.
///
/// Unlike the kit's RecordingEventHandler it runs a function of the test's inside OnStateChanged,
/// where tests note the order in which several observers are called, call back or block.
class FakeObserver : public App::IRemoteResourceEventHandler {
public:
    using State = App::IRemoteResource::State;

    /// Called inside OnStateChanged.
    std::function<void(State)> onStateChanged = [](State) {
    };

    void OnStateChanged(State state, const App::ResourceDescriptorBundle* bundle) override {
        {
            const MutexLock lock(m_mutex);
            m_heard.push_back(Describe(state));
            m_bundles.push_back(bundle);
        }
        onStateChanged(state);
    }

    /// The states since the last time.
    std::vector<std::string> Take() {
        const MutexLock lock(m_mutex);
        return std::exchange(m_heard, {});
    }

    std::vector<const App::ResourceDescriptorBundle*> Bundles() {
        const MutexLock lock(m_mutex);
        return m_bundles;
    }

private:
    Mutex m_mutex;
    std::vector<std::string> m_heard HALVEX_GUARDED_BY(m_mutex);
    std::vector<const App::ResourceDescriptorBundle*> m_bundles HALVEX_GUARDED_BY(m_mutex);
};

/// One of each service that a scheduler works with, all recording into one list.
struct FakeServices {
    CallRecorder recorder;
    std::shared_ptr<FakeDownloader> downloader = std::make_shared<FakeDownloader>(recorder);
    std::shared_ptr<FakeTaskQueue> checks = std::make_shared<FakeTaskQueue>(recorder, "checks");
    std::shared_ptr<FakeTaskQueue> notifications =
        std::make_shared<FakeTaskQueue>(recorder, "notifications");
    std::shared_ptr<FakePostProcessor> postProcessor =
        std::make_shared<FakePostProcessor>(recorder);
    std::shared_ptr<FakeValidator> validator = std::make_shared<FakeValidator>(recorder);
    std::shared_ptr<FakeTracer> tracer = std::make_shared<FakeTracer>(recorder);
    std::shared_ptr<FakeRetrier> retrier = std::make_shared<FakeRetrier>(recorder);
};

} // namespace Halvex::Testing
