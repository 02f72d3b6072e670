#pragma once

#include <cstdint>

namespace Halvex::App {

struct ResourceDescriptor;

/// Works on a freshly downloaded file, before the validator sees it. Called for resources whose
/// postProcess is not 0.
class IPostProcessor {
public:
    virtual ~IPostProcessor() = default;

    /// 0: success; anything else: the download counts as corrupted. The file is at the descriptor's
    /// downloadPath. Called on worker threads, for several resources at once. Must not throw.
    virtual std::int32_t Process(const ResourceDescriptor* descriptor) = 0;
};

} // namespace Halvex::App
