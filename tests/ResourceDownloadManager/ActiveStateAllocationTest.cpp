#include "ResourceDownloadManager/ActiveState.h"
#include "ResourceDownloadManager/EventTracerStub.h"
#include "ResourceDownloadManager/IRemoteResourceEventHandler.h"
#include "ResourceDownloadManager/TaskQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

/// How often the program has asked for memory.
std::atomic<std::size_t> allocations{0};

} // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace Halvex::App {
namespace {

class NamedHandler : public IRemoteResourceEventHandler {
public:
    void OnStateChanged(IRemoteResource::State, const ResourceDescriptorBundle*) override {}
};

/// A resource that is being downloaded, with two bundles above it, each observed.
class ActiveStateAllocationTest : public testing::Test {
protected:
    ActiveStateAllocationTest() {
        for (ActiveState* bundle : {&one, &other}) {
            item.AddParent(*bundle);
            bundle->AddHandler(&handler, [](IRemoteResource::State) {}, {});
        }
        item.SetProgress(0, 1'000'000);
    }

    std::size_t AllocationsOf(std::uint64_t progress) {
        const std::size_t before = allocations;
        item.SetProgress(progress, 1'000'000);
        return allocations - before;
    }

    const std::shared_ptr<ITaskQueue> queue = std::make_shared<TaskQueue>();
    const std::shared_ptr<IEventTracer> tracer = std::make_shared<EventTracerStub>();
    NamedHandler handler;
    ActiveState one{nullptr, nullptr, *queue, *tracer};
    ActiveState other{nullptr, nullptr, *queue, *tracer};
    ActiveState item{nullptr, nullptr, *queue, *tracer};
};

TEST_F(ActiveStateAllocationTest, AChangeThatIsDueForNobodyTakesNoMemory) {
    EXPECT_EQ(AllocationsOf(1), 0u);
    EXPECT_EQ(AllocationsOf(2), 0u);
}

TEST_F(ActiveStateAllocationTest, AChangeThatIsDueDoes) {
    EXPECT_GT(AllocationsOf(500'000), 0u);
}

} // namespace
} // namespace Halvex::App
