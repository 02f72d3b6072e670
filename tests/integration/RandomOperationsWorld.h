#pragma once

#include "ResourceDownloadManager/IPostProcessor.h"
#include "ResourceDownloadManager/IValidator.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace Halvex::Testing {

using Random = std::mt19937_64;

/// What the server may have at one path: versions that the application accepts, and one that its
/// validator and its post-processor refuse.
struct Versions {
    std::vector<std::string> accepted;
    std::string refused;
};

/// Of so many files. The same seed gives the same bytes.
std::vector<Versions> MakeVersions(std::size_t files, std::uint64_t seed);

/// Files, on disk and on a server that does with them what it likes.
///
/// Thread-safe, apart from construction and destruction. Also judges files for the library.
class World : public App::IValidator, public App::IPostProcessor {
public:
    /// One file per element, whose versions must outlive this. With longStalls the server may fall
    /// silent until it is left alone.
    World(const std::vector<Versions>& versions, bool longStalls, Random& random);

    std::size_t FileCount() const { return m_descriptors.size(); }
    const App::ResourceDescriptor& File(std::size_t index) const { return m_descriptors[index]; }
    const ioPath& OfflineMarker() const { return m_marker; }
    void GoOffline() const;
    void GoOnline() const;

    /// Has the server answer requests for one file in another way from now on.
    void ChangeAnswers(std::size_t file, Random& random);
    /// Has it send whole and accepted files only.
    void AnswerWell();

    /// Whether there is something at the destination.
    static bool IsPresent(const App::ResourceDescriptor& file);
    /// Whether what is there is one whole version, and one that may be there in an available
    /// resource.
    bool IsWhole(const App::ResourceDescriptor& file) const;
    /// What is at the destination.
    std::string ContentInWords(const App::ResourceDescriptor& file) const;
    /// Fails the test if a destination has anything but a whole version, or if a temporary file is
    /// left. Not while anything is downloaded.
    void ExpectNothingCut() const;

    std::int32_t Validate(const App::ResourceDescriptor* file) override;
    std::int32_t Process(const App::ResourceDescriptor* file) override;

private:
    void Describe(std::size_t index);
    const Versions& VersionsOf(const App::ResourceDescriptor& file) const;
    static bool IsAccepted(const Versions& versions, const std::string& content);
    Reply RandomReply(std::size_t file, Random& random) const;

    const std::vector<Versions>& m_versions;
    const bool m_longStalls;
    const TemporaryFolder m_folder;
    const TemporaryFolder m_markerFolder;
    const ioPath m_marker = m_markerFolder / "offline";
    ScriptedHttpServer m_server;
    std::vector<App::ResourceDescriptor> m_descriptors;
};

} // namespace Halvex::Testing
