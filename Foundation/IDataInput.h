#pragma once

#include "Foundation/IRefCountable.h"

#include <cstddef>
#include <cstdint>

namespace Halvex::Core {

/// A source of bytes, read from its beginning to its end.
///
/// One thread at a time, caller synchronises. Closed when the last owner lets go.
class IDataInput : public IRefCountable {
public:
    /// The size of the whole source in bytes. May throw Halvex::Exception.
    virtual std::uint64_t Size() = 0;
    /// Reads the next bytes into the buffer and returns how many: fewer than size only at the end.
    /// May throw Halvex::Exception.
    virtual std::size_t Read(void* buffer, std::size_t size) = 0;
};

} // namespace Halvex::Core
