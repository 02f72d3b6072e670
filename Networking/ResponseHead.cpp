#include "Networking/ResponseHead.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace Halvex::Networking {

namespace {

/// As many as most servers send: none has to be moved when the next one comes.
constexpr std::size_t kUsualFields = 16;

bool IsBlank(char character) {
    return character == ' ' || character == '\t' || character == '\r' || character == '\n';
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

char LowerCase(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return LowerCase(a) == LowerCase(b); });
}

/// Digits only, nothing before or behind them.
std::optional<std::int64_t> ParseNumber(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.front() == '-')
        return std::nullopt;
    return value;
}

/// What a server has sent, fit for a line of a log.
std::string Printable(std::string_view text) {
    constexpr std::size_t kMostBytes = 200;
    std::string printable(text.substr(0, kMostBytes));
    std::replace_if(
        printable.begin(), printable.end(), [](unsigned char c) { return std::iscntrl(c) != 0; },
        '?');
    return printable;
}

/// A modification time says nothing about changes within its own second, or of a clock that is
/// ahead.
bool IsStrongTime(const std::string& modified, const std::string& date) {
    const time_t modifiedTime = curl_getdate(modified.c_str(), nullptr);
    const time_t responseTime = curl_getdate(date.c_str(), nullptr);
    return modifiedTime != -1 && responseTime != -1 && responseTime - modifiedTime >= 1;
}

} // namespace

void ResponseHead::AddLine(std::string_view line) {
    const bool maybeStatus = !m_begun || (m_complete && m_status < 200);
    if (maybeStatus && line.substr(0, 5) == "HTTP/") {
        *this = ResponseHead();
        m_headers.reserve(kUsualFields);
        m_begun = true;
        m_isHttp1 = line.substr(0, 7) == "HTTP/1.";
        const std::size_t blank = std::min(line.find(' '), line.size());
        m_statusText = Printable(Trimmed(line.substr(blank)));
        const std::string_view code = std::string_view(m_statusText).substr(0, 3);
        m_status = static_cast<std::int32_t>(ParseNumber(code).value_or(0));
        return;
    }
    // What follows a complete head are the trailers of a chunked body.
    if (m_complete)
        return;
    m_begun = true;
    // As curl has it: a line of blanks belongs to the field before it.
    if (line.empty() || line.front() == '\r' || line.front() == '\n') {
        m_complete = true;
        return;
    }
    const std::size_t colon = line.find(':');
    // A name that blanks stand around is not one, for curl neither.
    if (colon != std::string_view::npos)
        m_headers.emplace_back(line.substr(0, colon), Trimmed(line.substr(colon + 1)));
}

std::vector<std::pair<std::string, std::string>> ResponseHead::Cookies() const {
    std::vector<std::pair<std::string, std::string>> cookies;
    for (const auto& [name, value] : m_headers) {
        if (!EqualIgnoringCase(name, "Set-Cookie"))
            continue;
        const std::string_view pair = std::string_view(value).substr(0, value.find(';'));
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos)
            cookies.emplace_back(Trimmed(pair.substr(0, equals)), Trimmed(pair.substr(equals + 1)));
    }
    return cookies;
}

std::string ResponseHead::Find(std::string_view name) const {
    const auto found = std::find_if(m_headers.begin(), m_headers.end(), [name](const auto& header) {
        return EqualIgnoringCase(header.first, name);
    });
    return found == m_headers.end() ? std::string() : found->second;
}

bool ResponseHead::HasBrokenLength() const {
    std::optional<std::int64_t> announced;
    for (const auto& [name, value] : m_headers) {
        if (!EqualIgnoringCase(name, "Content-Length"))
            continue;
        // Several fields of one name may have been joined by commas on their way.
        for (std::string_view rest = value;;) {
            const std::size_t comma = rest.find(',');
            const auto length = ParseNumber(Trimmed(rest.substr(0, comma)));
            if (!length || (announced && *announced != *length))
                return true;
            announced = length;
            if (comma == std::string_view::npos)
                break;
            rest.remove_prefix(comma + 1);
        }
    }
    return false;
}

bool ResponseHead::HasUnknownCoding() const {
    std::size_t codings = 0;
    for (const auto& [name, value] : m_headers) {
        if (!EqualIgnoringCase(name, "Transfer-Encoding"))
            continue;
        if (++codings == 2 || !EqualIgnoringCase(value, "chunked"))
            return true;
    }
    return false;
}

bool ResponseHead::EndsWithConnection() const {
    return m_isHttp1 && Find("Transfer-Encoding").empty() && Find("Content-Length").empty();
}

std::string ResponseHead::StrongValidator() const {
    const std::string tag = Find("ETag");
    if (!tag.empty())
        return tag.front() == '"' ? tag : std::string();
    const std::string modified = Find("Last-Modified");
    return IsStrongTime(modified, Find("Date")) ? modified : std::string();
}

std::optional<ResponseHead::ContentRange> ResponseHead::Range() const {
    const std::string value = Find("Content-Range");
    constexpr std::string_view kUnit = "bytes ";
    const std::size_t dash = value.find('-');
    const std::size_t slash = value.find('/');
    if (!EqualIgnoringCase(std::string_view(value).substr(0, kUnit.size()), kUnit) ||
        dash == std::string::npos || slash == std::string::npos || slash < dash)
        return std::nullopt;
    const std::string_view text = value;
    const auto first = ParseNumber(Trimmed(text.substr(kUnit.size(), dash - kUnit.size())));
    const auto last = ParseNumber(Trimmed(text.substr(dash + 1, slash - dash - 1)));
    const auto total = ParseNumber(Trimmed(text.substr(slash + 1)));
    if (!first || !last || *last < *first || (total && *total <= *last))
        return std::nullopt;
    const std::string length = Find("Content-Length");
    // Without adding 1 to what may be the largest number.
    const bool isWholePart =
        length.empty() || ParseNumber(length).value_or(0) - 1 == *last - *first;
    constexpr std::string_view kManyParts = "multipart/";
    const std::string type = Find("Content-Type");
    const bool isOnePart =
        !EqualIgnoringCase(std::string_view(type).substr(0, kManyParts.size()), kManyParts);
    if (!isWholePart || !isOnePart || HasBrokenLength() || HasUnknownCoding())
        return std::nullopt;
    return ContentRange{*first, *last, total};
}

} // namespace Halvex::Networking
