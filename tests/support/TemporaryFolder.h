#pragma once

#include "Foundation/ioPath.h"

#include <optional>
#include <string>

namespace Halvex::Testing {

/// A new folder of its own, removed with all it holds at the end.
class TemporaryFolder {
public:
    TemporaryFolder();
    /// In another folder than that for temporary files.
    explicit TemporaryFolder(const std::string& parent);
    ~TemporaryFolder();

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }
    /// The path of something in the folder.
    ioPath operator/(const std::string& name) const { return ioPath(m_path + "/" + name); }

    /// Makes a file in the folder, and the folders on the way to it.
    ioPath Write(const std::string& name, const std::string& content) const;
    /// The names directly in the folder, sorted, joined by blanks.
    std::string List() const;

private:
    std::string m_path;
};

/// While this lives, temporary folders are made in memory: for what takes thousands of files, and
/// is not to take as long as a disk does. One at a time, while no other thread reads or changes the
/// environment.
class FoldersInMemory {
public:
    FoldersInMemory();
    ~FoldersInMemory();

    FoldersInMemory(const FoldersInMemory&) = delete;
    FoldersInMemory& operator=(const FoldersInMemory&) = delete;

private:
    std::optional<std::string> m_before;
};

/// A folder for everyone on another file system than that of temporary folders. Throws when the
/// machine has none.
std::string FolderOnAnotherFileSystem();

/// The whole content of a file; fails the test when there is none.
std::string ReadFile(const ioPath& path);

/// Bytes that differ from place to place, the same ones for the same seed.
std::string SomeBytes(std::size_t size, unsigned seed = 1);

} // namespace Halvex::Testing
