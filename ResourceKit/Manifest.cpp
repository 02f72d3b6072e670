#include "ResourceKit/Manifest.h"

#include "ResourceKit/Complaint.h"
#include "ResourceKit/OpenFile.h"
#include "ResourceKit/PathRules.h"

#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>

namespace Halvex::Kit {

namespace {

constexpr std::size_t kPieceBytes = 64 * 1024;

/// Appends the whole of a file to the text.
Complaint Read(const App::ioPath& path, std::string& text) {
    const OpenFile file(path);
    if (file.Error() != 0)
        return std::generic_category().message(file.Error());
    if (!file.Size())
        return "no regular file";
    std::vector<char> piece(kPieceBytes);
    while (true) {
        const ssize_t count = file.Read(piece);
        if (count < 0)
            return std::generic_category().message(errno);
        if (count == 0)
            return std::nullopt;
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
}

} // namespace

// The other functions that make manifests and documents have source files of their own.

ManifestResult Manifest::Load(const App::ioPath& document, const Options& options) {
    std::string text;
    if (const Complaint reason = Read(document, text))
        return {nullptr, {document.string() + ": cannot be read: " + *reason}};
    return Parse(text, document.string(), options);
}

const Manifest::File* Manifest::Find(const App::ResourceDescriptor& descriptor) const {
    if (descriptor.userData >= m_files.size())
        return nullptr;
    const File& file = m_files[descriptor.userData];
    return &file.descriptor == &descriptor ? &file : nullptr;
}

ExpectedFileLookup Manifest::Expected() const {
    return [this](const App::ResourceDescriptor& descriptor) {
        const File* file = Find(descriptor);
        return file != nullptr ? file->expected : ExpectedFile{};
    };
}

std::vector<std::string> Manifest::MakeFolders() const {
    std::set<std::string> folders;
    for (const File& file : m_files)
        folders.insert(FolderOf(file.descriptor.localPath.string()));
    std::vector<std::string> messages;
    // An empty path is the current folder.
    folders.erase(std::string());
    for (const std::string& folder : folders) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error)
            messages.push_back("cannot make folder=" + folder + ": " + error.message());
    }
    return messages;
}

} // namespace Halvex::Kit
