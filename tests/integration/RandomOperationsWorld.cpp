#include "integration/RandomOperationsWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace Halvex::Testing {

namespace {

using namespace std::chrono_literals;
using App::ResourceDescriptor;

constexpr std::size_t kAcceptedVersions = 2;
constexpr std::size_t kLargestBytes = 100'000;
/// A 206 that fits a body cut here by a reply with this tag.
constexpr std::size_t kResumableCut = 1000;

/// Nothing when there is no file.
std::optional<std::string> ContentOf(const ioPath& path) {
    std::ifstream file(path.string(), std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string PathOnServer(const ResourceDescriptor& file) {
    return "/" + file.relativePath;
}

/// Where the server has a file that never changes.
std::string SteadyPath(const ResourceDescriptor& file) {
    return "/steady/" + file.relativePath;
}

} // namespace

std::vector<Versions> MakeVersions(std::size_t files, std::uint64_t seed) {
    Random random(seed);
    const auto anyBytes = [&random] {
        // More than what a resumed download begins with.
        const std::size_t size = kResumableCut + 1 + random() % kLargestBytes;
        return GeneratedBytes(0, size, random());
    };
    std::vector<Versions> versions(files);
    for (Versions& file : versions) {
        std::generate_n(std::back_inserter(file.accepted), kAcceptedVersions, anyBytes);
        file.refused = anyBytes();
    }
    return versions;
}

World::World(const std::vector<Versions>& versions, bool longStalls, Random& random)
    : m_versions(versions), m_longStalls(longStalls), m_descriptors(versions.size()) {
    for (std::size_t i = 0; i < FileCount(); ++i) {
        Describe(i);
        m_server.On(SteadyPath(File(i)), Reply::Ok(m_versions[i].accepted[0]));
        ChangeAnswers(i, random);
        if (random() % 4 == 0)
            m_folder.Write(File(i).relativePath, m_versions[i].accepted[0]);
    }
    // These two wait for each other.
    m_descriptors[1].tempPath = m_descriptors[0].tempPath;
}

void World::Describe(std::size_t index) {
    ResourceDescriptor& file = m_descriptors[index];
    file.userData = index;
    file.baseUrl = m_server.Url("");
    file.relativePath = "file" + std::to_string(index);
    file.localPath = file.downloadPath = m_folder / file.relativePath;
    file.tempPath = m_folder / (file.relativePath + ".part");
    file.validationMode = static_cast<std::int32_t>(index % 3);
    file.checkOnSchedule = static_cast<std::int32_t>(index / 3 % 2);
    file.postProcess = static_cast<std::int32_t>(index / 6 % 2);
}

void World::GoOffline() const {
    m_markerFolder.Write("offline", "");
}

void World::GoOnline() const {
    std::filesystem::remove(m_marker.string());
}

void World::ChangeAnswers(std::size_t file, Random& random) {
    std::vector<Reply> replies;
    for (std::size_t count = 1 + random() % 3; count > 0; --count)
        replies.push_back(RandomReply(file, random));
    m_server.On(PathOnServer(File(file)), std::move(replies));
}

void World::AnswerWell() {
    for (const ResourceDescriptor& file : m_descriptors)
        m_server.On(PathOnServer(file), Reply::Ok(VersionsOf(file).accepted[0]));
}

Reply World::RandomReply(std::size_t file, Random& random) const {
    const Versions& versions = m_versions[file];
    const std::string& body = versions.accepted[random() % kAcceptedVersions];
    const std::size_t cut = random() % body.size();
    switch (random() % 24) {
    case 0:
    case 1:
    case 2:
        return Reply::Ok(body);
    case 3:
        return Reply::Ok(body).Chunked(1 + random() % 20'000);
    case 4:
        return Reply::Ok(body).WithoutLength();
    case 5:
    case 20:
    case 21:
        return Reply::Ok(versions.refused);
    case 6:
        return Reply::Ok(body).CutAfter(cut);
    case 7:
        return Reply::Ok(body).Chunked(1 + random() % 20'000).CutAfter(cut);
    case 8:
        return Reply::Ok(body).ResetAfter(cut);
    case 9:
        // What is asked for again is of this version or not.
        return Reply::Ok(versions.accepted[0]).Header("ETag", "\"0\"").CutAfter(kResumableCut);
    case 10: {
        const std::string& whole = versions.accepted[0];
        const std::string size = std::to_string(whole.size());
        return Reply::Status(206, whole.substr(kResumableCut))
            .Header("ETag", "\"0\"")
            .Header("Content-Range", "bytes " + std::to_string(kResumableCut) + "-" +
                                         std::to_string(whole.size() - 1) + "/" + size);
    }
    case 11:
    case 22:
    case 23:
        return Reply::Status(404, "nothing here");
    case 12:
        return Reply::Status(503, body);
    case 13:
        return Reply::Ok(body).Drip(body.size() / 10 + 1, 2ms);
    case 14:
        return Reply::Ok(body).Drip(body.size() / 2 + 1, 20ms);
    case 15:
        return Reply::Redirect(SteadyPath(File(file)), 301 + static_cast<int>(random() % 2));
    case 16:
        // Followed fifty times, if this is the last reply.
        return Reply::Redirect(PathOnServer(File(file)));
    case 17:
        return Reply::Raw("");
    case 18:
        return Reply::Raw(body);
    default:
        return m_longStalls ? Reply::Ok(body).StallAt(cut) : Reply::Ok(body).ThenClose();
    }
}

bool World::IsPresent(const ResourceDescriptor& file) {
    return std::filesystem::exists(file.downloadPath.string());
}

bool World::IsWhole(const ResourceDescriptor& file) const {
    const std::optional<std::string> content = ContentOf(file.downloadPath);
    if (!content)
        return false;
    if (IsAccepted(VersionsOf(file), *content))
        return true;
    // To a resource that counts because it is there, what is refused counts all the same.
    const bool isJudged = file.validationMode == 1 && file.checkOnSchedule == 0;
    return !isJudged && *content == VersionsOf(file).refused;
}

std::string World::ContentInWords(const ResourceDescriptor& file) const {
    const std::optional<std::string> content = ContentOf(file.downloadPath);
    if (!content)
        return "absent";
    if (IsAccepted(VersionsOf(file), *content))
        return "accepted";
    return *content == VersionsOf(file).refused ? "refused" : "cut or mixed";
}

void World::ExpectNothingCut() const {
    for (const ResourceDescriptor& file : m_descriptors) {
        EXPECT_NE(ContentInWords(file), "cut or mixed") << file.relativePath;
        EXPECT_FALSE(std::filesystem::exists(file.tempPath.string())) << file.tempPath;
    }
}

std::int32_t World::Validate(const ResourceDescriptor* file) {
    const std::optional<std::string> content = ContentOf(file->localPath);
    return content && IsAccepted(VersionsOf(*file), *content) ? 0 : 1;
}

std::int32_t World::Process(const ResourceDescriptor* file) {
    return Validate(file);
}

const Versions& World::VersionsOf(const ResourceDescriptor& file) const {
    return m_versions[file.userData];
}

bool World::IsAccepted(const Versions& versions, const std::string& content) {
    return std::find(versions.accepted.begin(), versions.accepted.end(), content) !=
           versions.accepted.end();
}

} // namespace Halvex::Testing
