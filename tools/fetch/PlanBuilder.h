#pragma once

#include "Plan.h"

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

namespace Halvex::Fetch {

/// Collects a plan entry by entry, and every mistake with the place where it stands.
///
/// One thread at a time, caller synchronises.
class PlanBuilder {
public:
    /// A place is the prefix and a number: "list.txt:" for lines, "argument " for arguments.
    explicit PlanBuilder(std::string placePrefix);

    /// Notes a mistake.
    void Refuse(std::size_t place, const std::string& reason);

    /// Adds a bundle; its own list of files is ignored. The files that follow belong to it.
    void AddBundle(PlannedBundle bundle);

    /// Adds a file to the latest bundle, unless its path is refused. Fills in localPath, and the
    /// address if there is none: the local path below baseUrl.
    void AddFile(std::size_t place, PlannedFile file);

    /// The plan, or the mistakes in the order of their places. To be called once, at the end: only
    /// then can it be told which files stand in the place of others' folders.
    PlanResult Finish();

private:
    struct Refusal {
        std::size_t place;
        std::string text;
    };

    std::string PlaceText(std::size_t place) const;
    void RefuseFilesInFilesPlaces();

    const std::string m_placePrefix;
    Plan m_plan;
    std::vector<Refusal> m_refusals;
    /// By local path: where the file was asked for.
    std::unordered_map<std::string, std::size_t> m_places;
};

} // namespace Halvex::Fetch
