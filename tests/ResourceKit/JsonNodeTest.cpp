#include "ResourceKit/JsonNode.h"

#include <gtest/gtest.h>

namespace Halvex::Kit {
namespace {

using Type = JsonNode::Type;

std::size_t LineOfError(const std::string& text) {
    try {
        ParseJson(text);
    } catch (const JsonError& error) {
        return error.line;
    }
    return 0;
}

TEST(JsonNode, KeepsValuesAndTheirOrder) {
    const JsonNode root = ParseJson(R"({"b": [1, -1, 1.5, null, true], "a": "t\n"})");
    ASSERT_EQ(root.members.size(), 2U);
    EXPECT_EQ(root.members[0].first, "b");
    const auto& list = root.members[0].second.members;
    ASSERT_EQ(list.size(), 5U);
    EXPECT_EQ(list[0].second.type, Type::Natural);
    EXPECT_EQ(list[0].second.natural, 1U);
    EXPECT_EQ(list[1].second.type, Type::Number);
    EXPECT_EQ(list[2].second.type, Type::Number);
    EXPECT_EQ(list[3].second.type, Type::Null);
    EXPECT_EQ(list[4].second.type, Type::Boolean);
    EXPECT_TRUE(list[4].second.boolean);
    EXPECT_EQ(root.members[1].second.text, "t\n");
}

TEST(JsonNode, KeepsAKeyAsOftenAsItIsThere) {
    EXPECT_EQ(ParseJson(R"({"a": 1, "a": 2})").members.size(), 2U);
}

TEST(JsonNode, KnowsTheLineOfEachValue) {
    const JsonNode root = ParseJson("{\n\"a\":\n\"x\",\n\"b\": 12\n,\"c\": {\n}}");
    EXPECT_EQ(root.line, 1U);
    EXPECT_EQ(root.members[0].second.line, 3U);
    EXPECT_EQ(root.members[1].second.line, 4U) << "the number ends at the line break";
    EXPECT_EQ(root.members[2].second.line, 5U);
}

TEST(JsonNode, TellsTheLineOfAMistake) {
    EXPECT_EQ(LineOfError("{\n\"a\": 1\n\"b\": 2}"), 3U);
    EXPECT_EQ(LineOfError(""), 1U);
    EXPECT_EQ(LineOfError("{\n\n"), 2U);
    EXPECT_EQ(LineOfError("[1]\nx"), 2U);
}

TEST(JsonNode, RefusesDeepNestingInsteadOfRunningOutOfStack) {
    EXPECT_EQ(LineOfError(std::string(64, '[') + std::string(64, ']')), 0U);
    EXPECT_EQ(LineOfError(std::string(65, '[') + std::string(65, ']')), 1U);
    EXPECT_EQ(LineOfError(std::string(1'000'000, '[')), 1U);
}

} // namespace
} // namespace Halvex::Kit
