#pragma once

#include "Foundation/IRefCountable.h"

#include <cstddef>

namespace Halvex::Core {

/// A sink of bytes, written from its beginning to its end.
///
/// One thread at a time, caller synchronises. Closed when the last owner lets go.
class IDataOutput : public IRefCountable {
public:
    /// Appends the bytes and returns how many were written; fewer than size means that it failed.
    virtual std::size_t Write(const void* data, std::size_t size) noexcept = 0;
};

} // namespace Halvex::Core
