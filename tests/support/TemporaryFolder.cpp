#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <stdlib.h>
#include <sys/stat.h>

namespace Halvex::Testing {

namespace {

constexpr char kTemporaryFolder[] = "TMPDIR";

} // namespace

TemporaryFolder::TemporaryFolder()
    : TemporaryFolder(std::filesystem::temp_directory_path().string()) {}

TemporaryFolder::TemporaryFolder(const std::string& parent)
    : m_path((std::filesystem::path(parent) / "halvex-test-XXXXXX").string()) {
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

FoldersInMemory::FoldersInMemory() {
    if (const char* before = std::getenv(kTemporaryFolder))
        m_before = before;
    ::setenv(kTemporaryFolder, "/dev/shm", 1);
}

FoldersInMemory::~FoldersInMemory() {
    if (m_before)
        ::setenv(kTemporaryFolder, m_before->c_str(), 1);
    else
        ::unsetenv(kTemporaryFolder);
}

std::string FolderOnAnotherFileSystem() {
    const auto device = [](const std::string& path) {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_dev : 0;
    };
    const dev_t usual = device(std::filesystem::temp_directory_path().string());
    for (const std::string folder : {"/dev/shm", "/tmp", "/var/tmp"}) {
        const dev_t other = device(folder);
        if (other != 0 && other != usual)
            return folder;
    }
    throw std::runtime_error("no folder on a file system of its own was found");
}

std::string ReadFile(const ioPath& path) {
    std::ifstream file(path.string(), std::ios::binary);
    EXPECT_TRUE(file) << "cannot read " << path;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string SomeBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

} // namespace Halvex::Testing
