// Joins three texts to paths, each behind a zero byte, and checks what Foundation/ioPath.h says.

#include "Foundation/ioPath.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using Halvex::ioPath;

std::string TakePart(std::string_view& input) {
    const std::size_t end = std::min(input.find('\0'), input.size());
    const std::string part(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return part;
}

std::size_t SeparatorsAtEnd(const std::string& text) {
    return text.size() - (text.find_last_not_of('/') + 1);
}

std::size_t SeparatorsAtBegin(const std::string& text) {
    return std::min(text.find_first_not_of('/'), text.size());
}

void CheckJoined(const std::string& left, const std::string& right) {
    const std::string joined = (ioPath(left) / ioPath(right)).string();
    if (left.empty() || right.empty()) {
        CHECK_EQ(joined, left + right);
        return;
    }
    const std::string_view below = std::string_view(right).substr(SeparatorsAtBegin(right));
    const std::size_t begin = left.size() - SeparatorsAtEnd(left);
    CHECK_EQ(joined.size(), begin + 1 + below.size());
    CHECK_EQ(joined.compare(0, begin, left, 0, begin), 0);
    CHECK_EQ(joined[begin], '/');
    CHECK_EQ(joined.substr(begin + 1), below);
}

void CheckText(const std::string& text) {
    const ioPath path(text);
    CHECK_EQ(path.string(), text);
    CHECK_EQ(path.empty(), text.empty());
    std::ostringstream stream;
    stream << path;
    CHECK_EQ(stream.str(), text);
}

void CheckOrder(const std::string& left, const std::string& right) {
    CHECK_EQ(ioPath(left) == ioPath(right), left == right);
    CHECK_EQ(ioPath(left) != ioPath(right), left != right);
    CHECK_EQ(ioPath(left) < ioPath(right), left < right);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string a = TakePart(input);
    const std::string b = TakePart(input);
    const std::string c(input);
    CheckText(a);
    CheckText(c);
    CheckOrder(a, b);
    CheckJoined(a, b);
    CheckJoined(b, c);
    // It does not matter which two of three are joined first.
    CHECK_EQ(((ioPath(a) / b) / c).string(), (ioPath(a) / (ioPath(b) / c)).string());
    return 0;
}
