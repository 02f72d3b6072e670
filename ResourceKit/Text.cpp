#include "ResourceKit/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Halvex::Kit {

namespace {

/// How many of the bytes that come next are a control character; 0: they begin with another one.
std::size_t ControlCharacterAt(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x20 || byte == 0x7f)
        return 1;
    // From U+0080 to U+009F they are two bytes in UTF-8, of which 0xc2 is always a first one.
    const auto second = static_cast<unsigned char>(text.size() > 1 ? text[1] : '\0');
    return byte == 0xc2 && second >= 0x80 && second < 0xa0 ? 2 : 0;
}

} // namespace

bool HasControlCharacters(std::string_view text) {
    for (; !text.empty(); text.remove_prefix(1)) {
        if (ControlCharacterAt(text) > 0)
            return true;
    }
    return false;
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        const std::size_t length = ControlCharacterAt(text);
        printable += length > 0 ? '?' : text.front();
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return printable;
}

bool IsUtf8(const std::string& text) {
    try {
        nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

std::string Quoted(const std::string& text) {
    return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

} // namespace Halvex::Kit
