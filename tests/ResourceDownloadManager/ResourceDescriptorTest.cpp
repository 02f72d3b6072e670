#include "ResourceDownloadManager/ResourceDescriptor.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace Halvex::App {
namespace {

TEST(ResourceDescriptor, HasItsFieldsInOrder) {
    const ResourceDescriptor descriptor;
    const auto& [userData, localPath, tempPath, downloadPath, idPrefix, idSuffix, relativePath,
                 baseUrl, postProcess, validationMode, checkOnSchedule] = descriptor;
    EXPECT_EQ(&userData, &descriptor.userData);
    EXPECT_EQ(&localPath, &descriptor.localPath);
    EXPECT_EQ(&tempPath, &descriptor.tempPath);
    EXPECT_EQ(&downloadPath, &descriptor.downloadPath);
    EXPECT_EQ(&idPrefix, &descriptor.idPrefix);
    EXPECT_EQ(&idSuffix, &descriptor.idSuffix);
    EXPECT_EQ(&relativePath, &descriptor.relativePath);
    EXPECT_EQ(&baseUrl, &descriptor.baseUrl);
    EXPECT_EQ(&postProcess, &descriptor.postProcess);
    EXPECT_EQ(&validationMode, &descriptor.validationMode);
    EXPECT_EQ(&checkOnSchedule, &descriptor.checkOnSchedule);
}

TEST(ResourceDescriptor, BeginsWithEightBytesForTheApplication) {
    const ResourceDescriptor descriptor;
    EXPECT_EQ(static_cast<const void*>(&descriptor.userData), &descriptor);
    EXPECT_EQ(sizeof(descriptor.userData), 8U);
}

TEST(ResourceDescriptor, ItsNumbersHave32Bits) {
    EXPECT_TRUE((std::is_same_v<decltype(ResourceDescriptor::postProcess), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(ResourceDescriptor::validationMode), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(ResourceDescriptor::checkOnSchedule), std::int32_t>));
}

TEST(ResourceDescriptor, IsEmptyByDefault) {
    const ResourceDescriptor descriptor;
    EXPECT_EQ(descriptor.userData, 0U);
    EXPECT_TRUE(descriptor.localPath.empty());
    EXPECT_TRUE(descriptor.tempPath.empty());
    EXPECT_TRUE(descriptor.downloadPath.empty());
    EXPECT_EQ(descriptor.idPrefix, "");
    EXPECT_EQ(descriptor.idSuffix, "");
    EXPECT_EQ(descriptor.relativePath, "");
    EXPECT_EQ(descriptor.baseUrl, "");
}

TEST(ResourceDescriptor, IsNeitherProcessedNorValidatedNorCheckedEarlyByDefault) {
    const ResourceDescriptor descriptor;
    EXPECT_EQ(descriptor.postProcess, 0);
    EXPECT_EQ(descriptor.validationMode, 0);
    EXPECT_EQ(descriptor.checkOnSchedule, 0);
}

TEST(ResourceDescriptorBundle, BeginsWithItsDescriptors) {
    const ResourceDescriptorBundle bundle;
    const auto& [descriptors, userData] = bundle;
    EXPECT_EQ(static_cast<const void*>(&descriptors), &bundle);
    EXPECT_EQ(&userData, &bundle.userData);
}

TEST(ResourceDescriptorBundle, IsEmptyByDefault) {
    const ResourceDescriptorBundle bundle;
    EXPECT_TRUE(bundle.descriptors.empty());
    EXPECT_EQ(bundle.userData, 0U);
}

TEST(ResourceDescriptorBundle, OrdersItsDescriptorsByAddress) {
    const ResourceDescriptor descriptors[3];
    const ResourceDescriptorBundle bundle{{&descriptors[2], &descriptors[0], &descriptors[1]}, 0};
    const ResourceDescriptor* expected = descriptors;
    for (const ResourceDescriptor* descriptor : bundle.descriptors)
        EXPECT_EQ(descriptor, expected++);
}

} // namespace
} // namespace Halvex::App
