#include "ResourceKit/Manifest.h"

#include "Foundation/Url.h"
#include "ResourceKit/FileCheck.h"
#include "ResourceKit/ManifestBuilder.h"
#include "ResourceKit/PathRules.h"
#include "ResourceKit/Text.h"
#include "ResourceKit/UrlRules.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace Halvex::Kit {

namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

/// Collects what lies in a folder.
class FolderReader {
public:
    explicit FolderReader(fs::path folder) : m_folder(std::move(folder)) {}

    /// The entries of all files, in the order of their paths.
    ordered_json Read() {
        std::error_code error;
        m_canonical = fs::canonical(m_folder, error);
        if (error)
            m_mistakes.push_back(m_folder.string() + ": cannot be read: " + error.message());
        else
            ListFolder(m_folder, {});
        std::sort(m_paths.begin(), m_paths.end());
        ordered_json files = ordered_json::array();
        for (const std::string& path : m_paths)
            ReadFile(path, files);
        return files;
    }

    std::vector<std::string> TakeMistakes() { return std::move(m_mistakes); }

private:
    /// The path is the folder's below the first one.
    void ListFolder(const fs::path& folder, const fs::path& path) {
        std::error_code error;
        fs::directory_iterator entry(folder, error);
        while (!error && entry != fs::directory_iterator()) {
            ListEntry(*entry, path / entry->path().filename());
            entry.increment(error);
        }
        if (error)
            m_mistakes.push_back(folder.string() + ": cannot be read: " + error.message());
    }

    void ListEntry(const fs::directory_entry& entry, const fs::path& path) {
        std::error_code ignored;
        if (entry.is_symlink(ignored) && !IsLinkToAFileInside(entry))
            Refuse(path.string(), "is a link that does not lead to a file in the folder");
        else if (entry.is_directory(ignored))
            ListFolder(entry.path(), path);
        else
            m_paths.push_back(path.string());
    }

    bool IsLinkToAFileInside(const fs::directory_entry& link) const {
        std::error_code error;
        const fs::path target = fs::canonical(link.path(), error);
        return !error && fs::is_regular_file(target, error) &&
               *target.lexically_relative(m_canonical).begin() != "..";
    }

    void ReadFile(const std::string& path, ordered_json& files) {
        const CheckedPath checked = CheckPath(path);
        if (!checked.problem.empty()) {
            m_mistakes.push_back(checked.problem);
            return;
        }
        if (!IsUtf8(path)) {
            Refuse(path, "is no UTF-8");
            return;
        }
        const fs::path file = m_folder / path;
        const FileFinding finding = CheckFile(file.string(), {});
        if (finding.verdict != FileFinding::Verdict::Good) {
            Refuse(path, "is " + finding.message);
            return;
        }
        std::error_code error;
        const std::uintmax_t size = fs::file_size(file, error);
        const std::optional<std::string> sha256 = Sha256OfFile(file.string());
        if (error || !sha256) {
            Refuse(path, "cannot be read to its end");
            return;
        }
        files.push_back({{"path", path}, {"size", size}, {"sha256", *sha256}});
    }

    void Refuse(const std::string& path, const std::string& reason) {
        m_mistakes.push_back("path " + Quoted(path) + ' ' + reason);
    }

    const fs::path m_folder;
    fs::path m_canonical;
    std::vector<std::string> m_paths;
    std::vector<std::string> m_mistakes;
};

} // namespace

ManifestDocument Manifest::Create(const App::ioPath& folder, const std::string& baseUrl) {
    // JSON is UTF-8.
    if (!baseUrl.empty() && (!Networking::Url(baseUrl).isValid() || !IsUtf8(baseUrl)))
        return {{}, {"baseUrl " + Quoted(baseUrl) + " is no http or https address"}};
    if (!CanBeABase(baseUrl))
        return {{}, {"baseUrl " + Quoted(baseUrl) + " has a query or a fragment"}};
    FolderReader reader(folder.string().empty() ? "." : folder.string());
    ordered_json bundle = {{"name", kOnlyBundleName}, {"files", reader.Read()}};
    ManifestDocument document;
    document.mistakes = reader.TakeMistakes();
    if (!document.mistakes.empty())
        return document;
    ordered_json root = ordered_json::object();
    if (!baseUrl.empty())
        root["baseUrl"] = baseUrl;
    root["bundles"] = ordered_json::array({std::move(bundle)});
    document.text = root.dump(2) + '\n';
    return document;
}

} // namespace Halvex::Kit
