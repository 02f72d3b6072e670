// Reads its input as a manifest, behind a first byte that says whether addresses are needed. There
// is either a manifest that can be carried out or a clean refusal.

#include "Foundation/Url.h"
#include "ResourceKit/Manifest.h"
#include "ResourceKit/PathRules.h"
#include "ResourceKit/Text.h"

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace {

using namespace Halvex::Kit;

/// The file's path, after it was checked.
std::string CheckFile(const Manifest::File& file, bool addressesNeeded) {
    const Halvex::App::ResourceDescriptor& descriptor = file.descriptor;
    const std::string path = descriptor.localPath.string();
    CHECK_EQ(CheckPath(path).path, path);
    CHECK_NE(path, "");
    CHECK(!HasControlCharacters(file.path));
    CHECK(descriptor.tempPath != descriptor.localPath);
    const std::string& sha256 = file.expected.sha256;
    CHECK(sha256.empty() ||
          (sha256.size() == 64 && sha256.find_first_not_of("0123456789abcdef") == sha256.npos));
    if (addressesNeeded) {
        const std::string url = descriptor.baseUrl.empty()
                                    ? descriptor.relativePath
                                    : descriptor.baseUrl + "/" + descriptor.relativePath;
        CHECK(Halvex::Networking::Url(url).isValid()) << url;
    } else {
        CHECK_EQ(descriptor.relativePath, path);
    }
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const bool addressesNeeded = *data % 2 != 0;
    const std::string document(reinterpret_cast<const char*>(data) + 1, size - 1);
    Manifest::Options options;
    options.fromFolder = !addressesNeeded;
    const ManifestResult result = Manifest::Parse(document, "m", options);
    CHECK_NE(result.mistakes.empty(), result.manifest == nullptr);
    for (const std::string& mistake : result.mistakes) {
        CHECK_EQ(mistake.rfind("m:", 0), 0U) << mistake;
        CHECK(!HasControlCharacters(mistake)) << mistake;
    }
    if (!result.manifest)
        return 0;
    std::set<std::string> paths;
    for (const Manifest::Bundle& bundle : result.manifest->Bundles())
        CHECK(!bundle.name.empty() && !HasControlCharacters(bundle.name));
    for (const Manifest::File& file : result.manifest->Files())
        CHECK(paths.insert(CheckFile(file, addressesNeeded)).second) << file.path;
    // No file stands where another one needs a folder.
    for (const std::string& path : paths) {
        for (std::size_t end = path.find('/'); end != std::string::npos;
             end = path.find('/', end + 1))
            CHECK_EQ(paths.count(path.substr(0, end)), 0U) << path;
    }
    return 0;
}
