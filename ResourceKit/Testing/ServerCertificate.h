#pragma once

#include <string>

namespace Halvex::Kit::Testing {

/// What a server shows and holds for TLS, in PEM format.
struct ServerCertificate {
    std::string certificate;
    std::string privateKey;
};

} // namespace Halvex::Kit::Testing
