#pragma once

#include "ResourceKit/Testing/ServerCertificate.h"
#include "support/KitTesting.h"

#include <string>

namespace Halvex::Testing {

using Kit::Testing::ServerCertificate;

/// A certificate authority that no system trusts, and what it has signed. All is valid until the
/// year 2100 but for what is said to be otherwise.
namespace TestAuthority {

/// The authority's own certificate, for those who are to trust it.
std::string Certificate();

/// For 127.0.0.1 and localhost.
ServerCertificate ForLoopback();
/// For other.example.
ServerCertificate ForAnotherHost();
/// For 127.0.0.1 and localhost, until the year 2001.
ServerCertificate Expired();
/// For 127.0.0.1 and localhost, not signed by the authority.
ServerCertificate SelfSigned();

} // namespace TestAuthority

} // namespace Halvex::Testing
