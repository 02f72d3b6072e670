#pragma once

#include <cstddef>
#include <cstring>

namespace Halvex::Testing {

/// The place of a virtual function in its interface, which those who were built against it rely on.
/// The destructor, declared first, is 0 (and has two entries in the table of functions).
template <typename Function>
std::size_t VirtualSlot(Function function) {
    std::size_t offset = 0;
    static_assert(sizeof(function) >= sizeof(offset));
    std::memcpy(&offset, &function, sizeof(offset));
    return offset / sizeof(void*) - 1;
}

} // namespace Halvex::Testing
