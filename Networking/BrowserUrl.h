#pragma once

#include <string>

namespace Halvex::Networking {

/// The address as a browser sends it: blanks, control characters, non-ASCII bytes, a few characters
/// that may not stand in an address and each % that begins no escape are percent-encoded behind the
/// host; the fragment is left out.
std::string BrowserUrl(const std::string& url);

/// The scheme in lower case.
std::string SchemeOf(const std::string& url);

/// What identifies the server: scheme, host and port as they stand in the address, without user
/// name and password, scheme and host in lower case.
std::string OriginOf(const std::string& url);

} // namespace Halvex::Networking
