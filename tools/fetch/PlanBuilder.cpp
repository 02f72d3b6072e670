#include "PlanBuilder.h"

#include "PathRules.h"
#include "Text.h"
#include "UrlRules.h"

#include <algorithm>
#include <utility>

namespace Halvex::Fetch {

PlanBuilder::PlanBuilder(std::string placePrefix) : m_placePrefix(std::move(placePrefix)) {}

void PlanBuilder::Refuse(std::size_t place, const std::string& reason) {
    m_refusals.push_back({place, PlaceText(place) + ": " + reason});
}

void PlanBuilder::AddBundle(PlannedBundle bundle) {
    bundle.files.clear();
    m_plan.bundles.push_back(std::move(bundle));
}

void PlanBuilder::AddFile(std::size_t place, PlannedFile file) {
    const CheckedPath checked = CheckPath(file.path);
    if (!checked.problem.empty()) {
        Refuse(place, checked.problem);
        return;
    }
    const auto [known, isNew] = m_places.emplace(checked.path, place);
    if (!isNew) {
        Refuse(place, "path " + Quoted(file.path) + " is asked for already, at " +
                          PlaceText(known->second));
        return;
    }
    file.localPath = checked.path;
    if (file.relativeUrl.empty())
        file.relativeUrl = EncodePath(checked.path);
    m_plan.bundles.back().files.push_back(std::move(file));
}

PlanResult PlanBuilder::Finish() {
    RefuseFilesInFilesPlaces();
    std::stable_sort(
        m_refusals.begin(), m_refusals.end(),
        [](const Refusal& left, const Refusal& right) { return left.place < right.place; });
    PlanResult result;
    for (Refusal& refusal : m_refusals)
        result.refusals.push_back(std::move(refusal.text));
    if (result.refusals.empty())
        result.plan = std::move(m_plan);
    return result;
}

std::string PlanBuilder::PlaceText(std::size_t place) const {
    return m_placePrefix + std::to_string(place);
}

void PlanBuilder::RefuseFilesInFilesPlaces() {
    for (const auto& [path, place] : m_places) {
        for (std::size_t slash = path.find('/'); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            const auto folder = m_places.find(path.substr(0, slash));
            if (folder != m_places.end())
                Refuse(place, "path " + Quoted(path) +
                                  " needs a folder where a file is asked for, at " +
                                  PlaceText(folder->second));
        }
    }
}

} // namespace Halvex::Fetch
