#include "ResourceKit/JsonNode.h"

#include "ResourceKit/Text.h"

#include <nlohmann/json.hpp>

#include <iterator>

namespace Halvex::Kit {

namespace {

constexpr std::size_t kDeepestNesting = 64;

/// How far the parser has read.
struct Position {
    const char* next;
    const char* end;
    /// The line of the character that was read last: a line break read behind a number still
    /// belongs to the number's line.
    std::size_t line = 1;
    bool lastWasLineBreak = false;

    void Advance() {
        if (lastWasLineBreak)
            ++line;
        lastWasLineBreak = *next == '\n';
        ++next;
    }
};

/// What the parser reads through: all copies move one shared position.
class Reader {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    explicit Reader(Position* position) : m_position(position) {}

    reference operator*() const { return *m_position->next; }
    Reader& operator++() {
        m_position->Advance();
        return *this;
    }
    /// The one comparison that is made is with the end.
    bool operator==(const Reader&) const { return m_position->next == m_position->end; }
    bool operator!=(const Reader& other) const { return !(*this == other); }

private:
    Position* m_position;
};

/// Makes nodes of the parser's events.
class Builder : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit Builder(const Position& position) : m_position(position) {}

    bool null() override { return Add(JsonNode::Type::Null); }
    bool boolean(bool value) override {
        AddNode(JsonNode::Type::Boolean).boolean = value;
        return true;
    }
    bool number_integer(number_integer_t) override { return Add(JsonNode::Type::Number); }
    bool number_unsigned(number_unsigned_t value) override {
        AddNode(JsonNode::Type::Natural).natural = value;
        return true;
    }
    bool number_float(number_float_t, const string_t&) override {
        return Add(JsonNode::Type::Number);
    }
    bool string(string_t& value) override {
        AddNode(JsonNode::Type::String).text = std::move(value);
        return true;
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return Begin(JsonNode::Type::Object); }
    bool end_object() override { return End(); }
    bool start_array(std::size_t) override { return Begin(JsonNode::Type::Array); }
    bool end_array() override { return End(); }
    bool key(string_t& value) override {
        m_key = std::move(value);
        return true;
    }
    bool parse_error(std::size_t, const std::string& token,
                     const nlohmann::json::exception&) override {
        throw JsonError(m_position.line,
                        "is not valid JSON at " + (token.empty() ? "the end" : Quoted(token)));
    }

    JsonNode Take() { return std::move(m_root); }

private:
    bool Add(JsonNode::Type type) {
        AddNode(type);
        return true;
    }

    JsonNode& AddNode(JsonNode::Type type) {
        JsonNode* node = &m_root;
        if (!m_open.empty()) {
            auto& siblings = m_open.back()->members;
            siblings.emplace_back(std::move(m_key), JsonNode());
            node = &siblings.back().second;
            m_key.clear();
        }
        node->type = type;
        node->line = m_position.line;
        return *node;
    }

    bool Begin(JsonNode::Type type) {
        if (m_open.size() == kDeepestNesting)
            throw JsonError(m_position.line, "is nested too deeply");
        m_open.push_back(&AddNode(type));
        return true;
    }

    bool End() {
        m_open.pop_back();
        return true;
    }

    const Position& m_position;
    JsonNode m_root;
    std::string m_key;
    /// The objects and arrays that have begun, outermost first. None of them moves: a container's
    /// list grows only while its latest member is closed.
    std::vector<JsonNode*> m_open;
};

} // namespace

JsonNode ParseJson(const std::string& text) {
    Position position{text.data(), text.data() + text.size()};
    Builder builder(position);
    nlohmann::json::sax_parse(Reader(&position), Reader(&position), &builder);
    return builder.Take();
}

} // namespace Halvex::Kit
