#include "Foundation/SystemError.h"

#include "Foundation/Exception.h"

#include <cerrno>
#include <system_error>

namespace Halvex {

std::string SystemErrorText(int errorNumber) {
    return std::to_string(errorNumber) + " (" + std::generic_category().message(errorNumber) + ")";
}

void ThrowSystemError(int errorNumber) {
    throw Exception() << ErrorDetails(SystemErrorText(errorNumber));
}

const char* CheckedSystemPath(const std::string& path) {
    if (path.find('\0') != std::string::npos)
        ThrowSystemError(EINVAL);
    return path.c_str();
}

} // namespace Halvex
