#pragma once

#include <ResourceDownloadManager/IPostProcessor.h>

/// Puts a file that has been downloaded beside its place into its place, in one step: until then
/// the copy of the last time stays there, and can be used when there is no connection.
class LastCopyKeeper : public Halvex::App::IPostProcessor {
public:
    std::int32_t Process(const Halvex::App::ResourceDescriptor* descriptor) override;
};
