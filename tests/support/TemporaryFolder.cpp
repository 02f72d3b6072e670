#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <vector>

#include <stdlib.h>

namespace Halvex::Testing {

TemporaryFolder::TemporaryFolder()
    : m_path((std::filesystem::temp_directory_path() / "halvex-test-XXXXXX").string()) {
    if (::mkdtemp(m_path.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary folder");
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ioPath TemporaryFolder::Write(const std::string& name, const std::string& content) const {
    const ioPath path = *this / name;
    std::filesystem::create_directories(std::filesystem::path(path.string()).parent_path());
    std::ofstream file(path.string(), std::ios::binary);
    file << content;
    file.close();
    EXPECT_TRUE(file) << "cannot write " << path;
    return path;
}

std::string TemporaryFolder::List() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    std::string list;
    for (const std::string& name : names)
        list += (list.empty() ? "" : " ") + name;
    return list;
}

std::string ReadFile(const ioPath& path) {
    std::ifstream file(path.string(), std::ios::binary);
    EXPECT_TRUE(file) << "cannot read " << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string SomeBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

} // namespace Halvex::Testing
