#include "ResourceKit/PathRules.h"

#include "ResourceKit/Text.h"

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>

namespace Halvex::Kit {

namespace {

/// The end of a text, which the system counts as well, not included.
constexpr std::size_t kLongestPath = PATH_MAX - 1;

CheckedPath Refused(const std::string& path, const char* reason) {
    return {{}, "path " + Quoted(path) + ' ' + reason};
}

/// Cuts off and returns what stands before the first slash.
std::string_view TakePart(std::string_view& rest) {
    const std::size_t slash = rest.find('/');
    const std::string_view part = rest.substr(0, slash);
    rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
    return part;
}

} // namespace

CheckedPath CheckPath(const std::string& path) {
    if (path.empty())
        return Refused(path, "is empty");
    if (path.size() > kLongestPath)
        return {{},
                "path of " + std::to_string(path.size()) + " bytes is too long, the system takes " +
                    std::to_string(kLongestPath)};
    if (HasControlCharacters(path))
        return Refused(path, "has a control character");
    if (path.front() == '/')
        return Refused(path, "is absolute");

    std::string normal;
    std::string_view part;
    for (std::string_view rest = path; !rest.empty();) {
        part = TakePart(rest);
        if (part == "..")
            return Refused(path, "leads out of the output folder");
        if (part.empty() || part == ".")
            continue;
        normal += normal.empty() ? "" : "/";
        normal += part;
    }
    if (path.back() == '/' || part == ".")
        return Refused(path, "names a folder, not a file");
    return {normal, {}};
}

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {};
    // The root's slash is its name.
    return path.substr(0, std::max<std::size_t>(slash, 1));
}

} // namespace Halvex::Kit
