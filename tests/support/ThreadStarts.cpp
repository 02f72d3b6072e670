#include "support/ThreadStarts.h"

#include "support/NextFunction.h"

#include <atomic>
#include <cerrno>
#include <limits>

#include <pthread.h>

namespace Halvex::Testing {

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

std::atomic<std::size_t> startsLeft{kUnlimited};

bool MayStart() {
    std::size_t left = startsLeft;
    while (left != kUnlimited && left != 0 && !startsLeft.compare_exchange_weak(left, left - 1)) {
    }
    return left != 0;
}

} // namespace

LimitedThreadStarts::LimitedThreadStarts(std::size_t limit) {
    startsLeft = limit;
}

LimitedThreadStarts::~LimitedThreadStarts() {
    startsLeft = kUnlimited;
}

} // namespace Halvex::Testing

/// Stands in front of the system's function, or the sanitizer's, for the whole program.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
               void* argument) noexcept {
    static const auto next = Halvex::Testing::NextFunction(&pthread_create, "pthread_create");
    return Halvex::Testing::MayStart() ? next(thread, attributes, routine, argument) : EAGAIN;
}
