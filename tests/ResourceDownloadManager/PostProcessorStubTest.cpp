#include "ResourceDownloadManager/PostProcessorStub.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <memory>

namespace Halvex::App {
namespace {

TEST(PostProcessorStub, SucceedsForEveryResource) {
    const std::shared_ptr<IPostProcessor> postProcessor = std::make_shared<PostProcessorStub>();
    const ResourceDescriptor descriptor;

    EXPECT_EQ(postProcessor->Process(&descriptor), 0);
}

TEST(PostProcessorStub, LeavesTheFileAlone) {
    const Testing::TemporaryFolder folder;
    ResourceDescriptor descriptor;
    descriptor.downloadPath = folder.Write("file", "content");

    PostProcessorStub().Process(&descriptor);

    EXPECT_EQ(Testing::ReadFile(descriptor.downloadPath), "content");
    EXPECT_EQ(folder.List(), "file");
}

TEST(PostProcessorStub, DoesNotLookAtTheDescriptor) {
    EXPECT_EQ(PostProcessorStub().Process(nullptr), 0);
}

TEST(IPostProcessor, KeepsThePlaceOfItsOperation) {
    EXPECT_EQ(Testing::VirtualSlot(&IPostProcessor::Process), 1U);
}

} // namespace
} // namespace Halvex::App
