#pragma once

#include <string>

namespace Halvex::Networking {

/// The address as a browser sends it: blanks, control characters, non-ASCII bytes, a few characters
/// that may not stand in an address and each % that begins no escape are percent-encoded behind the
/// host; a host outside ASCII takes its DNS form; the fragment is left out. Also for an address
/// without scheme and host, which is relative to another.
std::string BrowserUrl(const std::string& url);

/// Where a reference on the page at a base address leads, as a browser would go there; the
/// reference itself when that cannot be told.
std::string ResolvedUrl(const std::string& base, const std::string& reference);

/// The scheme in lower case.
std::string SchemeOf(const std::string& url);

/// What identifies the server: scheme, host and port as they stand in the address, without user
/// name and password, scheme and host in lower case.
std::string OriginOf(const std::string& url);

} // namespace Halvex::Networking
