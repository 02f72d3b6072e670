#include "ResourceKit/Text.h"

#include <nlohmann/json.hpp>

namespace Halvex::Kit {

bool HasControlCharacters(std::string_view text) {
    // From U+0080 to U+009F they are two bytes in UTF-8, of which 0xc2 is always a first one.
    unsigned char previous = 0;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f || (previous == 0xc2 && byte >= 0x80 && byte < 0xa0))
            return true;
        previous = byte;
    }
    return false;
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
