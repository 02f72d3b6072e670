// Reads its input as a manifest, behind a first byte that says whether addresses are needed. There
// is either a plan that can be carried out or a clean refusal.

#include "Foundation/Url.h"
#include "Manifest.h"
#include "PathRules.h"
#include "Text.h"

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace {

using namespace Halvex::Fetch;

void CheckFile(const PlannedFile& file, bool addressesNeeded) {
    CHECK_EQ(CheckPath(file.localPath).path, file.localPath);
    CHECK_NE(file.localPath, "");
    CHECK(!HasControlCharacters(file.path));
    CHECK(file.sha256.empty() ||
          (file.sha256.size() == 64 &&
           file.sha256.find_first_not_of("0123456789abcdef") == std::string::npos));
    if (addressesNeeded) {
        const std::string url =
            file.baseUrl.empty() ? file.relativeUrl : file.baseUrl + "/" + file.relativeUrl;
        CHECK(Halvex::Networking::Url(url).isValid()) << url;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const bool addressesNeeded = *data % 2 != 0;
    const std::string document(reinterpret_cast<const char*>(data) + 1, size - 1);
    const PlanResult result = ReadManifest(document, "m", addressesNeeded);
    for (const std::string& refusal : result.refusals) {
        CHECK_EQ(refusal.rfind("m:", 0), 0U) << refusal;
        CHECK(!HasControlCharacters(refusal)) << refusal;
    }
    if (!result.refusals.empty())
        return 0;
    std::set<std::string> paths;
    for (const PlannedBundle& bundle : result.plan.bundles) {
        CHECK(!bundle.name.empty() && !HasControlCharacters(bundle.name));
        for (const PlannedFile& file : bundle.files) {
            CheckFile(file, addressesNeeded);
            CHECK(paths.insert(file.localPath).second) << file.localPath;
        }
    }
    // No file stands where another one needs a folder.
    for (const std::string& path : paths) {
        for (std::size_t end = path.find('/'); end != std::string::npos;
             end = path.find('/', end + 1))
            CHECK_EQ(paths.count(path.substr(0, end)), 0U) << path;
    }
    return 0;
}
