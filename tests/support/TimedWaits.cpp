#include "support/TimedWaits.h"

#include "Foundation/Mutex.h"
#include "support/NextFunction.h"
#include "support/SleepingThreads.h"

#include <ctime>
#include <map>

#include <pthread.h>

namespace Halvex::Testing {

namespace {

struct TimedWaits {
    Mutex mutex;
    std::map<pid_t, std::chrono::nanoseconds> latest HALVEX_GUARDED_BY(mutex);
};

TimedWaits& Recorded() {
    // Never destroyed: threads may wait until the very end.
    static TimedWaits& waits = *new TimedWaits;
    return waits;
}

std::chrono::nanoseconds ToDuration(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void Record(clockid_t clock, const timespec& deadline) {
    timespec now{};
    ::clock_gettime(clock, &now);
    const MutexLock lock(Recorded().mutex);
    Recorded().latest[ThisThread()] = ToDuration(deadline) - ToDuration(now);
}

} // namespace

std::chrono::nanoseconds LatestTimedWait(pid_t thread) {
    const MutexLock lock(Recorded().mutex);
    return Recorded().latest[thread];
}

} // namespace Halvex::Testing

/// Stands in front of the system's function, or the sanitizer's, for the whole program.
extern "C" __attribute__((visibility("default"))) int
pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                       const timespec* deadline) {
    static const auto next =
        Halvex::Testing::NextFunction(&pthread_cond_clockwait, "pthread_cond_clockwait");
    Halvex::Testing::Record(clock, *deadline);
    return next(condition, mutex, clock, deadline);
}
