#pragma once

#include "Foundation/Export.h"

#include <string>

namespace Halvex::Networking {

/// The address of a resource on the web, kept to the letter.
///
/// Immutable apart from assignment; copied freely.
class HALVEX_EXPORT Url {
public:
    /// Any text; isValid tells whether it can be fetched.
    explicit Url(std::string text = {});

    /// Whether this is an http or https address with a host, a port that is a number up to 65535 if
    /// there is one, and no control characters. Blanks and other bytes that must be encoded are
    /// allowed behind the host: the HTTP clients encode them.
    bool isValid() const;

    /// The text as it was given, valid or not.
    std::string toString() const { return m_text; }

private:
    std::string m_text;
};

} // namespace Halvex::Networking
