#include "support/HeldBackWait.h"

#include "support/NextFunction.h"
#include "support/Waiting.h"

#include <atomic>
#include <thread>

#include <pthread.h>

namespace Halvex::Testing {

namespace {

enum class Phase { Off, Armed, Holding };

std::atomic<Phase> phase{Phase::Off};
std::atomic<std::size_t> broadcasts{0};

void HoldBack() {
    Phase expected = Phase::Armed;
    if (!phase.compare_exchange_strong(expected, Phase::Holding))
        return;
    while (phase == Phase::Holding)
        std::this_thread::yield();
}

} // namespace

HeldBackWait::HeldBackWait() {
    phase = Phase::Armed;
}

HeldBackWait::~HeldBackWait() {
    Release();
}

bool HeldBackWait::WaitUntilHeldBack() const {
    return WaitUntil([] { return phase == Phase::Holding; });
}

void HeldBackWait::Release() {
    phase = Phase::Off;
}

std::size_t HeldBackWait::Broadcasts() {
    return broadcasts;
}

} // namespace Halvex::Testing

// These stand in front of the system's functions, or the sanitizer's, for the whole program.

extern "C" __attribute__((visibility("default"))) int pthread_cond_wait(pthread_cond_t* condition,
                                                                        pthread_mutex_t* mutex) {
    static const auto next = Halvex::Testing::NextFunction(&pthread_cond_wait, "pthread_cond_wait");
    Halvex::Testing::HoldBack();
    return next(condition, mutex);
}

extern "C" __attribute__((visibility("default"))) int
pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    static const auto next =
        Halvex::Testing::NextFunction(&pthread_cond_broadcast, "pthread_cond_broadcast");
    const int result = next(condition);
    ++Halvex::Testing::broadcasts;
    return result;
}
