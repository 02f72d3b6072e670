#pragma once

#include <cstdint>

namespace Halvex::App {

/// An observer of a task queue.
class ITaskQueueEventHandler {
public:
    enum class QueueEvent : std::int32_t {
        QueueEmpty,    ///< ExecOne has found nothing to run, for the first time since tasks came
        QueueNotEmpty, ///< a task has come to a queue that was announced as empty
    };

    virtual ~ITaskQueueEventHandler() = default;

    /// Called with the queue's lock held, on the thread that called AddTask or ExecOne. Must be
    /// short, must not call the queue, and may take only locks that are never held while calling
    /// the queue.
    virtual void OnQueueEvent(QueueEvent event) = 0;
};

} // namespace Halvex::App
