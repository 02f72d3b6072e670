#include "ResourceKit/Manifest.h"

#include "Foundation/Url.h"
#include "ResourceKit/ManifestBuilder.h"
#include "ResourceKit/Text.h"
#include "ResourceKit/UrlRules.h"

#include <string_view>
#include <utility>

namespace Halvex::Kit {

namespace {

/// A builder with the one bundle that all addresses go to.
ManifestBuilder MakeBuilder(std::string placePrefix, const Manifest::Options& options) {
    ManifestBuilder builder(std::move(placePrefix), options);
    Manifest::Bundle bundle;
    bundle.name = kOnlyBundleName;
    builder.AddBundle(std::move(bundle));
    return builder;
}

void AddUrl(ManifestBuilder& builder, std::size_t place, std::string url, std::string name) {
    if (!Networking::Url(url).isValid()) {
        builder.Refuse(place, Quoted(url) + " is no http or https address");
        return;
    }
    if (name.empty()) {
        builder.Refuse(place, Quoted(url) + " has no name for its file");
        return;
    }
    ManifestBuilder::File file;
    file.path = std::move(name);
    file.url = std::move(url);
    builder.AddFile(place, std::move(file));
}

/// Cuts off and returns the first line, without its end.
std::string_view TakeLine(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

void AddLine(ManifestBuilder& builder, std::size_t place, std::string_view line) {
    const std::size_t tab = line.find('\t');
    std::string url(line.substr(0, tab));
    std::string name =
        tab == std::string_view::npos ? FileNameOf(url) : std::string(line.substr(tab + 1));
    AddUrl(builder, place, std::move(url), std::move(name));
}

} // namespace

ManifestResult Manifest::ParseUrlList(const std::string& list, const std::string& name,
                                      const Options& options) {
    ManifestBuilder builder = MakeBuilder(name + ':', options);
    std::size_t place = 0;
    for (std::string_view rest = list; !rest.empty();) {
        const std::string_view line = TakeLine(rest);
        ++place;
        if (!line.empty())
            AddLine(builder, place, line);
    }
    return builder.Finish();
}

ManifestResult Manifest::FromUrls(const std::vector<std::string>& urls, const Options& options) {
    ManifestBuilder builder = MakeBuilder("address ", options);
    for (std::size_t i = 0; i < urls.size(); ++i)
        AddUrl(builder, i + 1, urls[i], FileNameOf(urls[i]));
    return builder.Finish();
}

} // namespace Halvex::Kit
