#pragma once

#include "ResourceDownloadManager/IValidator.h"

namespace Halvex::App {

/// Accepts every file without looking at it.
class ValidatorStub : public IValidator {
public:
    ValidatorStub() = default;
    ValidatorStub(const ValidatorStub&) = delete;
    ValidatorStub& operator=(const ValidatorStub&) = delete;

    std::int32_t Validate(const ResourceDescriptor*) override { return 0; }
};

} // namespace Halvex::App
