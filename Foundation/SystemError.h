#pragma once

#include <string>

namespace Halvex {

/// The details text of a system error number: "2 (No such file or directory)".
std::string SystemErrorText(int errorNumber);

/// Throws a Halvex::Exception that carries the text of the error number as ErrorDetails.
[[noreturn]] void ThrowSystemError(int errorNumber);

/// The text as the system takes it. Throws a Halvex::Exception (invalid argument) for a text with a
/// zero byte in it, which the system would silently cut there and so take for another file.
const char* CheckedSystemPath(const std::string& path);

} // namespace Halvex
