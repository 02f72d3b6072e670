#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Kit {

/// A value of a JSON document that knows the line it stands on.
struct JsonNode {
    enum class Type {
        Null,
        Boolean,
        Natural, ///< an integer that is not negative and fits in 64 bits
        Number,  ///< any other number
        String,
        Object,
        Array,
    };

    Type type = Type::Null;
    /// Counted from 1; of an object or array where it begins.
    std::size_t line = 1;
    bool boolean = false;
    std::uint64_t natural = 0;
    std::string text;
    /// Of an object, in the order of the document, a key as often as it is there; of an array with
    /// empty keys.
    std::vector<std::pair<std::string, JsonNode>> members;
};

/// What keeps a text from being a JSON document, and the line it stands on.
struct JsonError : std::runtime_error {
    JsonError(std::size_t errorLine, const std::string& what)
        : std::runtime_error(what), line(errorLine) {}
    std::size_t line;
};

/// Reads a document. Throws JsonError for one that is not valid, or nested more than 64 deep.
JsonNode ParseJson(const std::string& text);

} // namespace Halvex::Kit
