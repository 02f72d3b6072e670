#pragma once

#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceDownloadManager/IValidator.h"

#include <atomic>
#include <string>
#include <unordered_map>

namespace Halvex::Fetch {

/// Accepts the files whose SHA-256 is the expected one. A file with another one is removed, so that
/// nobody takes it for the right one.
///
/// The library validates what may also be found on disk. What is downloaded whatever is there it
/// only post-processes, so this judges in both places.
///
/// Thread-safe. Reads in pieces: its memory does not grow with the file.
class Sha256Validator : public App::IValidator, public App::IPostProcessor {
public:
    /// By descriptor, 64 digits in lower case. A descriptor that is not there is accepted.
    explicit Sha256Validator(
        std::unordered_map<const App::ResourceDescriptor*, std::string> expected);

    /// 0: accepted; 1: rejected, as is a file that cannot be read.
    std::int32_t Validate(const App::ResourceDescriptor* descriptor) override;

    /// The same judgement.
    std::int32_t Process(const App::ResourceDescriptor* descriptor) override;

    /// Makes running and later validations reject soon, for good; no file is removed then.
    void Abort() { m_aborted = true; }

private:
    const std::unordered_map<const App::ResourceDescriptor*, std::string> m_expected;
    /// Written by Abort on any thread, never reset.
    std::atomic<bool> m_aborted{false};
};

} // namespace Halvex::Fetch
