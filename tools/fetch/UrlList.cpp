#include "UrlList.h"

#include "Foundation/Url.h"
#include "PlanBuilder.h"
#include "Text.h"
#include "UrlRules.h"

#include <string_view>
#include <utility>

namespace Halvex::Fetch {

namespace {

/// A builder with the one bundle that all addresses go to.
PlanBuilder MakeBuilder(std::string placePrefix) {
    PlanBuilder builder(std::move(placePrefix));
    PlannedBundle bundle;
    bundle.name = kUrlBundleName;
    builder.AddBundle(std::move(bundle));
    return builder;
}

void AddUrl(PlanBuilder& builder, std::size_t place, const std::string& url, std::string name) {
    if (!Networking::Url(url).isValid()) {
        builder.Refuse(place, Quoted(url) + " is no http or https address");
        return;
    }
    if (name.empty()) {
        builder.Refuse(place, Quoted(url) + " does not end in a file's name");
        return;
    }
    PlannedFile file;
    file.path = std::move(name);
    file.relativeUrl = url;
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

void AddLine(PlanBuilder& builder, std::size_t place, std::string_view line) {
    const std::size_t tab = line.find('\t');
    const std::string url(line.substr(0, tab));
    const std::string name =
        tab == std::string_view::npos ? FileNameOf(url) : std::string(line.substr(tab + 1));
    AddUrl(builder, place, url, name);
}

} // namespace

PlanResult ReadUrlList(const std::string& list, const std::string& name) {
    PlanBuilder builder = MakeBuilder(name + ':');
    std::size_t place = 0;
    for (std::string_view rest = list; !rest.empty();) {
        const std::string_view line = TakeLine(rest);
        ++place;
        if (!line.empty())
            AddLine(builder, place, line);
    }
    return builder.Finish();
}

PlanResult PlanUrls(const std::vector<std::string>& urls) {
    PlanBuilder builder = MakeBuilder("address ");
    for (std::size_t i = 0; i < urls.size(); ++i)
        AddUrl(builder, i + 1, urls[i], FileNameOf(urls[i]));
    return builder.Finish();
}

} // namespace Halvex::Fetch
