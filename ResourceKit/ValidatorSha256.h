#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceKit/ExpectedFileLookup.h"

namespace Halvex::Kit {

/// Accepts the files that are as they are expected to be: the size is compared first, and the
/// SHA-256 only when the size is right. Serves resources with validationMode 1.
///
/// A file of another size or content is removed, so that nobody takes it for the right one later:
/// neither an application that looks for it, nor checkOnSchedule. Left alone is
///
/// - a file whose resource has another downloadPath: it is the old copy, which PostProcessorInstall
///   keeps until there is a better one;
/// - one that has taken the name of the file that was read, as another check of the same resource
///   may have it, unless it takes it in the very moment of the removal;
/// - what cannot be read, such as a folder, and what the query has saved from being read.
///
/// Each rejection gets one WARNING line with the path and the finding, such as "short: 10 bytes
/// instead of 12"; a file that is left unread because of the query is rejected in silence.
///
/// Immutable; safe from any thread. Reads in pieces: memory does not grow with the file.
///
///     ResourceDownloadManager::Dependencies services;
///     services.validator = std::make_shared<ValidatorSha256>(manifest->Expected());
class HALVEX_EXPORT ValidatorSha256 : public App::IValidator {
public:
    /// The query is asked during a check on the checking thread, must be thread-safe and not throw:
    /// once it answers true, checks end soon. An application that aborts the manager wants that,
    /// because Abort waits for checks that are under way. An empty one is never asked.
    explicit ValidatorSha256(ExpectedFileLookup expected, StopQuery stop = {});

    /// 0: the file at localPath is accepted; 1: it is rejected.
    std::int32_t Validate(const App::ResourceDescriptor* descriptor) override;

private:
    const ExpectedFileLookup m_expected;
    const StopQuery m_stop;
};

} // namespace Halvex::Kit
