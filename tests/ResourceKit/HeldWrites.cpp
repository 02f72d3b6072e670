#include "HeldWrites.h"

#include "support/NextFunction.h"

#include <gtest/gtest.h>

#include <atomic>

#include <unistd.h>

namespace Halvex::Testing {

namespace {

/// Set and cleared by the test, read by whoever writes.
std::atomic<HeldWrites*> current{nullptr};

} // namespace

HeldWrites::HeldWrites() {
    current = this;
}

HeldWrites::~HeldWrites() {
    current = nullptr;
}

void HeldWrites::Pass() {
    HeldWrites* const held = current;
    if (held == nullptr)
        return;
    held->m_begun.Set();
    EXPECT_TRUE(held->m_released.Wait()) << "nobody has released a write";
}

} // namespace Halvex::Testing

/// Stands in front of the system's function, or the sanitizer's, for the whole program.
extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int file, const void* bytes,
                                                                 size_t size, off_t offset) {
    static const auto next = Halvex::Testing::NextFunction(&pwrite, "pwrite");
    Halvex::Testing::HeldWrites::Pass();
    return next(file, bytes, size, offset);
}
