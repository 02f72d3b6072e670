#include "Networking/BrowserUrl.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace Halvex::Networking {

namespace {

bool IsHexDigit(char character) {
    return std::isxdigit(static_cast<unsigned char>(character)) != 0;
}

bool IsEscape(std::string_view text) {
    return text.size() >= 3 && text[0] == '%' && IsHexDigit(text[1]) && IsHexDigit(text[2]);
}

bool MustBeEncoded(std::string_view rest) {
    const auto byte = static_cast<unsigned char>(rest.front());
    if (byte == '%')
        return !IsEscape(rest);
    constexpr std::string_view kNeverPlain = " \"<>\\^`{|}";
    return byte < 0x20 || byte >= 0x7f || kNeverPlain.find(rest.front()) != std::string_view::npos;
}

void AppendEncoded(std::string& text, char character) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(character);
    text += '%';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
}

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char character) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    });
    return text;
}

/// Where host and port begin and end: behind the scheme, before the path.
struct Authority {
    std::size_t begin;
    std::size_t end;
};

Authority AuthorityOf(const std::string& url) {
    const std::size_t schemeEnd = url.find("://");
    const std::size_t begin = schemeEnd == std::string::npos ? 0 : schemeEnd + 3;
    return {begin, std::min(url.find_first_of("/?#", begin), url.size())};
}

} // namespace

std::string BrowserUrl(const std::string& url) {
    const std::size_t pathBegin = AuthorityOf(url).end;
    const std::string_view text = std::string_view(url).substr(0, url.find('#', pathBegin));
    std::string encoded(text.substr(0, pathBegin));
    for (std::size_t index = pathBegin; index < text.size(); ++index) {
        if (MustBeEncoded(text.substr(index)))
            AppendEncoded(encoded, text[index]);
        else
            encoded += text[index];
    }
    return encoded;
}

std::string SchemeOf(const std::string& url) {
    return LowerCase(url.substr(0, url.find("://")));
}

std::string OriginOf(const std::string& url) {
    const Authority authority = AuthorityOf(url);
    const std::string text = url.substr(authority.begin, authority.end - authority.begin);
    const std::size_t userEnd = text.rfind('@');
    return SchemeOf(url) + "://" +
           LowerCase(userEnd == std::string::npos ? text : text.substr(userEnd + 1));
}

} // namespace Halvex::Networking
