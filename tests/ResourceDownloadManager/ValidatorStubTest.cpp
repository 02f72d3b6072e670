#include "ResourceDownloadManager/ValidatorStub.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <memory>

namespace Halvex::App {
namespace {

TEST(ValidatorStub, AcceptsEveryResource) {
    const std::shared_ptr<IValidator> validator = std::make_shared<ValidatorStub>();
    const ResourceDescriptor descriptor;

    EXPECT_EQ(validator->Validate(&descriptor), 0);
}

TEST(ValidatorStub, LeavesTheFileAlone) {
    const Testing::TemporaryFolder folder;
    ResourceDescriptor descriptor;
    descriptor.localPath = folder.Write("file", "content");

    ValidatorStub().Validate(&descriptor);

    EXPECT_EQ(Testing::ReadFile(descriptor.localPath), "content");
    EXPECT_EQ(folder.List(), "file");
}

TEST(ValidatorStub, DoesNotLookAtTheDescriptor) {
    EXPECT_EQ(ValidatorStub().Validate(nullptr), 0);
}

TEST(IValidator, KeepsThePlaceOfItsOperation) {
    EXPECT_EQ(Testing::VirtualSlot(&IValidator::Validate), 1U);
}

} // namespace
} // namespace Halvex::App
