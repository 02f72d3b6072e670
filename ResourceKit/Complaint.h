#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>

namespace Halvex::Kit {

/// Nothing: it is done. Otherwise why it is not, for people.
using Complaint = std::optional<std::string>;

/// "cannot be made: No space left on device", from the error number of the system's last call.
inline Complaint SystemComplaint(const std::string& what) {
    const int error = errno;
    return what + ": " + std::generic_category().message(error);
}

} // namespace Halvex::Kit
