#include "Networking/BrowserUrl.h"

#include <curl/curl.h>

#include <QtCore/QString>
#include <QtCore/QUrl>

#include <algorithm>
#include <cctype>
#include <memory>
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

/// The end of the scheme; none is there in an address that is relative to another.
std::size_t SchemeEnd(const std::string& url) {
    const std::size_t end = url.find("://");
    return url.find_first_of("/?#") == end + 1 ? end : std::string::npos;
}

/// Where host and port begin and end: behind the scheme, before the path.
struct Authority {
    std::size_t begin;
    std::size_t end;
};

Authority AuthorityOf(const std::string& url) {
    const std::size_t schemeEnd = SchemeEnd(url);
    if (schemeEnd == std::string::npos)
        return {0, 0};
    const std::size_t begin = schemeEnd + 3;
    return {begin, std::min(url.find_first_of("/?#", begin), url.size())};
}

bool IsAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char character) { return static_cast<unsigned char>(character) < 0x80; });
}

void AppendAsSent(std::string& text, std::string_view part) {
    for (std::size_t index = 0; index < part.size(); ++index) {
        if (MustBeEncoded(part.substr(index)))
            AppendEncoded(text, part[index]);
        else
            text += part[index];
    }
}

/// User name and password; only the last @ of an authority ends them.
std::string EncodedUser(std::string_view user) {
    std::string encoded;
    for (std::size_t at = user.find('@'); at != std::string_view::npos; at = user.find('@')) {
        AppendAsSent(encoded, user.substr(0, at));
        AppendEncoded(encoded, '@');
        user.remove_prefix(at + 1);
    }
    AppendAsSent(encoded, user);
    return encoded;
}

/// Host and port as DNS takes them, behind user name and password if there are any.
std::string AsciiAuthority(const std::string& authority) {
    const std::size_t userEnd = authority.rfind('@');
    const std::string hostAndPort = authority.substr(userEnd + 1);
    std::string encoded;
    if (userEnd != std::string::npos)
        encoded = EncodedUser(std::string_view(authority).substr(0, userEnd)) + '@';
    if (IsAscii(hostAndPort))
        return encoded + hostAndPort;
    const std::size_t end = std::min(hostAndPort.find(':'), hostAndPort.size());
    const QByteArray host = QUrl::toAce(QString::fromStdString(hostAndPort.substr(0, end)));
    return encoded + host.toStdString() + hostAndPort.substr(end);
}

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

} // namespace

std::string BrowserUrl(const std::string& url) {
    const Authority authority = AuthorityOf(url);
    const std::string_view text = std::string_view(url).substr(0, url.find('#', authority.end));
    std::string encoded =
        url.substr(0, authority.begin) +
        AsciiAuthority(url.substr(authority.begin, authority.end - authority.begin));
    AppendAsSent(encoded, text.substr(authority.end));
    return encoded;
}

std::string ResolvedUrl(const std::string& base, const std::string& reference) {
    const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
    char* text = nullptr;
    if (!url || curl_url_set(url.get(), CURLUPART_URL, BrowserUrl(base).c_str(), 0) != CURLUE_OK ||
        curl_url_set(url.get(), CURLUPART_URL, BrowserUrl(reference).c_str(),
                     CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
        curl_url_get(url.get(), CURLUPART_URL, &text, CURLU_NO_DEFAULT_PORT) != CURLUE_OK)
        return reference;
    std::string resolved = text;
    curl_free(text);
    return resolved;
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
