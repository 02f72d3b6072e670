#pragma once

#include <cstdint>

namespace Halvex::App {

struct ResourceDescriptor;

/// Judges a file on disk. Called for resources with validationMode 1: when a file is found at the
/// first check, and after each download.
class IValidator {
public:
    virtual ~IValidator() = default;

    /// 1: the file at the descriptor's localPath is rejected; anything else: it is accepted.
    /// Called on worker threads, for several resources at once. Must not throw.
    virtual std::int32_t Validate(const ResourceDescriptor* descriptor) = 0;
};

} // namespace Halvex::App
