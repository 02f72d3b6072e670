#include "ResourceDownloadManager/ParallelExecutor.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/ITaskQueue.h"
#include "ResourceDownloadManager/ITaskQueueEventHandler.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace Halvex::App {

struct HALVEX_HIDDEN ParallelExecutor::Impl : ITaskQueueEventHandler {
    explicit Impl(std::size_t threadCount) : workers(threadCount) {}

    void OnQueueEvent(QueueEvent event) override HALVEX_EXCLUDES(stateMutex) {
        if (event != QueueEvent::QueueNotEmpty)
            return;
        const MutexLock lock(stateMutex);
        ++announcements;
        tasksAvailable = true;
        stateChanged.notify_all();
    }

    Result Exec(ITaskQueue& queue) HALVEX_EXCLUDES(execMutex, stateMutex) {
        const MutexLock call(execMutex);
        JoinLeftoversLocked();
        executedAny.store(Result::NothingExecuted, std::memory_order_relaxed);
        SetActiveWorkers(workers.size());
        queue.RegisterEventHandler(this);
        StartWorkersLocked(queue);
        JoinWorkersLocked();
        queue.UnregisterEventHandler(this);
        return executedAny.load(std::memory_order_relaxed);
    }

    void Abort() HALVEX_EXCLUDES(execMutex, stateMutex) {
        aborted.exchange(true);
        stateChanged.notify_all();
        // A worker between its test of aborted and its wait misses a single broadcast.
        while (!execMutex.try_lock()) {
            stateChanged.notify_all();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        execMutex.unlock();
    }

    void JoinLeftovers() HALVEX_EXCLUDES(execMutex, stateMutex) {
        const MutexLock call(execMutex);
        JoinLeftoversLocked();
    }

    void SetActiveWorkers(std::size_t count) HALVEX_EXCLUDES(stateMutex) {
        const MutexLock lock(stateMutex);
        activeWorkers = count;
    }

    void StartWorkersLocked(ITaskQueue& queue) HALVEX_REQUIRES(execMutex) {
        std::size_t started = 0;
        try {
            for (std::thread& worker : workers) {
                // The workers of an aborted executor would end at once. A manager that is being
                // aborted comes here once for each resource that waits to be retried.
                if (aborted)
                    return;
                worker = std::thread([this, &queue] { Work(queue); });
                ++started;
            }
        } catch (...) {
            leftoverQueue = &queue;
            // Those that run must not wait for the others to go idle.
            const MutexLock lock(stateMutex);
            activeWorkers -= workers.size() - started;
            stateChanged.notify_all();
            throw;
        }
    }

    /// Joins the workers of a call that could not start them all.
    void JoinLeftoversLocked() HALVEX_REQUIRES(execMutex) HALVEX_EXCLUDES(stateMutex) {
        {
            // Abort had no call to wait for and broadcast only once, which a worker between its
            // test of aborted and its wait has missed. None is there while the lock is held.
            const MutexLock lock(stateMutex);
            stateChanged.notify_all();
        }
        JoinWorkersLocked();
        if (leftoverQueue != nullptr)
            std::exchange(leftoverQueue, nullptr)->UnregisterEventHandler(this);
    }

    void JoinWorkersLocked() HALVEX_REQUIRES(execMutex) {
        for (std::thread& worker : workers) {
            if (worker.joinable())
                worker.join();
        }
    }

    void Work(ITaskQueue& queue) noexcept {
        while (!aborted) {
            const std::uint64_t announcementsSeen = announcements;
            if (queue.ExecOne())
                executedAny.store(Result::TasksExecuted, std::memory_order_relaxed);
            else if (!WaitForTasks(announcementsSeen))
                return;
        }
    }

    /// Parks a worker that has found the queue empty, unless tasks have been announced since it
    /// looked. True: there are tasks again; false: all workers are idle, or the executor is
    /// aborted.
    bool WaitForTasks(std::uint64_t announcementsSeen) HALVEX_EXCLUDES(stateMutex) {
        MutexLock lock(stateMutex);
        if (announcements != announcementsSeen)
            return true;
        --activeWorkers;
        tasksAvailable = false;
        stateChanged.notify_all();
        while (!aborted && activeWorkers != 0 && !tasksAvailable)
            lock.Wait(stateChanged);
        if (!tasksAvailable)
            return false;
        ++activeWorkers;
        return true;
    }

    /// Set when the queue announces tasks, cleared by a worker that finds it empty. Not reset
    /// between calls.
    bool tasksAvailable HALVEX_GUARDED_BY(stateMutex) = false;
    /// Written under stateMutex. A worker reads it before it looks into the queue, so that it does
    /// not park on a task that came between its look and its wait.
    std::atomic<std::uint64_t> announcements{0};
    Mutex stateMutex;
    std::condition_variable stateChanged;
    /// The workers that are not parked.
    std::size_t activeWorkers HALVEX_GUARDED_BY(stateMutex) = 0;
    std::vector<std::thread> workers HALVEX_GUARDED_BY(execMutex);
    /// What the workers of a call that could not start them all still drain; null: there are none.
    ITaskQueue* leftoverQueue HALVEX_GUARDED_BY(execMutex) = nullptr;
    /// Held for the whole of a call of ExecQueue. Outside the queue's lock and stateMutex.
    Mutex execMutex;
    /// Written by Abort without a lock, so that it never waits to say so; never reset.
    std::atomic<bool> aborted{false};
    /// Written by all workers, always with the same value; read when they have been joined. A
    /// member, because workers left over from a call that could not start them all outlive the
    /// call.
    std::atomic<Result> executedAny{Result::NothingExecuted};
};

ParallelExecutor::ParallelExecutor(std::size_t threadCount)
    : m_impl(std::make_unique<Impl>(threadCount)) {}

ParallelExecutor::~ParallelExecutor() {
    ParallelExecutor::Abort();
}

IExecutor::Result ParallelExecutor::ExecQueue(ITaskQueue& queue) {
    return m_impl->Exec(queue);
}

void ParallelExecutor::Abort() {
    m_impl->Abort();
    m_impl->JoinLeftovers();
}

} // namespace Halvex::App
