#pragma once

#include "ResourceDownloadManager/IPostProcessor.h"

namespace Halvex::App {

/// Succeeds without touching the file.
class PostProcessorStub : public IPostProcessor {
public:
    PostProcessorStub() = default;
    PostProcessorStub(const PostProcessorStub&) = delete;
    PostProcessorStub& operator=(const PostProcessorStub&) = delete;

    std::int32_t Process(const ResourceDescriptor*) override { return 0; }
};

} // namespace Halvex::App
