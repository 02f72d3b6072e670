#include "ResourceKit/UrlRules.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace Halvex::Kit {

namespace {

/// The value of a hexadecimal digit; -1 for any other character.
int DigitValue(char digit) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    const std::size_t value =
        kDigits.find(static_cast<char>(std::tolower(static_cast<unsigned char>(digit))));
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

/// A percent sign that no two digits follow stands for itself.
std::string Decode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isCode = text[i] == '%' && i + 2 < text.size() && DigitValue(text[i + 1]) >= 0 &&
                            DigitValue(text[i + 2]) >= 0;
        if (!isCode) {
            decoded += text[i];
            continue;
        }
        decoded += static_cast<char>(DigitValue(text[i + 1]) * 16 + DigitValue(text[i + 2]));
        i += 2;
    }
    return decoded;
}

bool StandsForItself(char character) {
    static constexpr std::string_view kPlain = "-._~/!$&'()*+,;=:@";
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x80 && (std::isalnum(byte) != 0 || kPlain.find(character) != kPlain.npos);
}

} // namespace

std::string FileNameOf(const std::string& url) {
    const std::string_view text =
        std::string_view(url).substr(0, std::min(url.find('?'), url.find('#')));
    const std::size_t authority = text.find("://");
    if (authority == std::string_view::npos)
        return {};
    const std::size_t slash = text.rfind('/');
    if (slash < authority + 3)
        return {};
    const std::string name = Decode(text.substr(slash + 1));
    // An encoded slash would make a folder of it.
    return name == "." || name == ".." || name.find('/') != std::string::npos ? std::string()
                                                                              : name;
}

bool CanBeABase(const std::string& url) {
    return url.find_first_of("?#") == std::string::npos;
}

std::string EncodePath(const std::string& path) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char character : path) {
        if (StandsForItself(character)) {
            encoded += character;
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        encoded += '%';
        encoded += kDigits[byte >> 4];
        encoded += kDigits[byte & 0xf];
    }
    return encoded;
}

} // namespace Halvex::Kit
