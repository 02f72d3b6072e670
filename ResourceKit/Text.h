#pragma once

#include <string>
#include <string_view>

namespace Halvex::Kit {

/// Whether the text has a character that would command a terminal instead of being shown.
bool HasControlCharacters(std::string_view text);

/// The text with a question mark for each of them, for a log line.
std::string Printable(std::string_view text);

/// Whether the text is UTF-8 throughout.
bool IsUtf8(const std::string& text);

/// The text in double quotes, with everything escaped that cannot be shown.
std::string Quoted(const std::string& text);

} // namespace Halvex::Kit
