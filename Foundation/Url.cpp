#include "Foundation/Url.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

namespace Halvex::Networking {

namespace {

bool IsControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == b;
    });
}

/// An empty port is the scheme's own.
bool IsPort(std::string_view text) {
    int value = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9')
            return false;
        value = value * 10 + (digit - '0');
        if (value > 65535)
            return false;
    }
    return true;
}

bool IsHost(std::string_view text) {
    return !text.empty() && text.find_first_of(" \"<>\\^`{|}[]") == std::string_view::npos;
}

/// What may stand in brackets, as far as its characters tell.
bool IsAddress(std::string_view text) {
    return IsHost(text) && std::none_of(text.begin(), text.end(), [](char character) {
               return static_cast<unsigned char>(character) >= 0x80;
           });
}

/// host, host:port, [address] or [address]:port
bool IsHostAndPort(std::string_view text) {
    if (!text.empty() && text.front() == '[') {
        const std::size_t end = text.find(']');
        if (end == std::string_view::npos || !IsAddress(text.substr(1, end - 1)))
            return false;
        const std::string_view rest = text.substr(end + 1);
        return rest.empty() || (rest.front() == ':' && IsPort(rest.substr(1)));
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return IsHost(text);
    return IsHost(text.substr(0, colon)) && IsPort(text.substr(colon + 1));
}

} // namespace

Url::Url(std::string text) : m_text(std::move(text)) {}

bool Url::isValid() const {
    if (std::any_of(m_text.begin(), m_text.end(), IsControl))
        return false;
    const std::string_view text = m_text;
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string_view::npos)
        return false;
    const std::string_view scheme = text.substr(0, schemeEnd);
    if (!EqualIgnoringCase(scheme, "http") && !EqualIgnoringCase(scheme, "https"))
        return false;
    const std::size_t begin = schemeEnd + 3;
    const std::string_view authority =
        text.substr(begin, std::min(text.find_first_of("/?#", begin), text.size()) - begin);
    const std::size_t userEnd = authority.rfind('@');
    return IsHostAndPort(userEnd == std::string_view::npos ? authority
                                                           : authority.substr(userEnd + 1));
}

} // namespace Halvex::Networking
