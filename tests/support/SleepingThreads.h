#pragma once

#include <set>
#include <vector>

#include <sys/types.h>

namespace Halvex::Testing {

/// The calling thread, as the kernel names it.
pid_t ThisThread();

/// The threads of this process, those included that a sanitizer adds with the first thread started.
std::set<pid_t> ThreadsOfThisProcess();

/// Whether there was a moment at which all of these threads of this process slept, waiting for
/// something that others do. When they include all who take a lock, none of them was holding it
/// then: who holds a lock for a moment does not sleep. So a worker that is seen asleep after it has
/// found its queue empty is parked, not on its way there.
/// Nor is one that leaves a task queue to another for a moment: a pause is no such sleep.
bool AllSleep(const std::vector<pid_t>& threads);

/// The same with a pause for a sleep: for a thread that looks again and again.
bool AllSleepOrPause(const std::vector<pid_t>& threads);

} // namespace Halvex::Testing
