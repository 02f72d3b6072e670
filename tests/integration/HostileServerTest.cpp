#include "Networking/CurlHttpClient.h"
#include "Networking/QtHttpClient.h"
#include "ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h"
#include "integration/Application.h"
#include "integration/HostileBehaviours.h"
#include "support/MemoryPeak.h"
#include "support/TestAuthority.h"

#include <gmock/gmock.h>

#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <set>
#include <string>

namespace Halvex::App {
namespace {

using namespace std::chrono_literals;
using Networking::IHttpClient;
using Testing::AllBehaviours;
using testing::AllOf;
using testing::AnyOfArray;
using Testing::Application;
using Testing::Behaviour;
using Testing::Bounds;
using Testing::BoundsOf;
using Testing::End;
using testing::Ge;
using Testing::GeneratedBytes;
using testing::IsEmpty;
using Testing::kStallLimit;
using Testing::kTimeout;
using testing::Le;
using testing::Lt;
using Testing::MemoryPeak;
using testing::Not;
using Testing::Outcome;
using Testing::Outcomes;
using Testing::Pace;
using Testing::ReadFile;
using Testing::Scene;
using testing::SizeIs;
using Testing::TemporaryFolder;
using Testing::WaitUntil;
namespace TestAuthority = Testing::TestAuthority;

/// Lets another client reach the limits that a pace is about soon, and all others too late for it.
class ImpatientClient : public IHttpClient {
public:
    ImpatientClient(std::unique_ptr<IHttpClient> client, Pace pace)
        : m_client(std::move(client)), m_pace(pace) {}

    Networking::Response get(const Networking::Request& request,
                             const Networking::Options& options) override {
        const std::chrono::milliseconds tooLate = 2 * BoundsOf(m_pace).most;
        const bool timesOut =
            m_pace == Pace::Timeout || m_pace == Pace::TimeoutAtLast || m_pace == Pace::LateTimeout;
        Networking::Options hurried = options;
        if (m_pace != Pace::ConnectLimit)
            hurried.connectTimeout = static_cast<std::int32_t>(tooLate / 1s);
        hurried.lowSpeedTime = (m_pace == Pace::StallLimit ? kStallLimit : tooLate).count();
        hurried.timeout = std::chrono::microseconds(timesOut ? kTimeout : tooLate).count();
        return m_client->get(request, hurried);
    }
    Networking::Response post(const Networking::Request&, const Networking::MultiPart&,
                              const Networking::Options&) override {
        return {};
    }
    Networking::Response post(const Networking::Request&, const std::string&,
                              const Networking::Options&) override {
        return {};
    }

private:
    const std::unique_ptr<IHttpClient> m_client;
    const Pace m_pace;
};

enum class Client { Native, Qt };

struct Row {
    Client client;
    const Behaviour* behaviour;
};

void PrintTo(const Row& row, std::ostream* stream) {
    *stream << row.behaviour->name;
}

class HostileServer : public testing::TestWithParam<Row> {
protected:
    HostileServer() {
        m_behaviour.prepare(m_scene);
        if (m_scene.trusts)
            TrustTheAuthority();
        Application::Dependencies dependencies;
        dependencies.resourceDownloader =
            std::make_shared<ResourceDownloaderHttp>(MakeClient(), nullptr, nullptr);
        m_application = std::make_unique<Application>(Application::Params{}, dependencies);
        if (m_scene.fetchesAnotherBefore) {
            const ResourceDescriptor& first = m_application->AddFile(m_scene.baseUrl, "first");
            EXPECT_EQ(Download(first), "Available NoError");
            m_requestsBefore = m_scene.RequestCount();
        }
    }
    ~HostileServer() override { QSslConfiguration::setDefaultConfiguration(m_sslBefore); }

    std::string Download(const ResourceDescriptor& file) {
        const auto priority = ISchedulableResource::SchedulePriority::Normal;
        ResourceDownloadManager& manager = m_application->manager;
        const auto scheduler =
            m_scene.retries ? manager.GetMainScheduler() : manager.GetInitScheduler();
        IRemoteResource* resource =
            scheduler->RegisterAutoSchedule(&m_application->AddBundle({&file}), priority);
        m_application->Run();
        return Outcome(resource->GetState());
    }

    /// Fails the test when the state and the file do not fit together.
    End EndOf(const std::string& outcome, const ResourceDescriptor& file) const {
        const bool exists = FileExists(file.downloadPath);
        if (outcome == "Available NoError" && exists)
            return m_scene.generatedSize > 0 ? EndWithGenerated(file.downloadPath)
                                             : EndWith(ReadFile(file.downloadPath));
        EXPECT_FALSE(exists) << outcome;
        if (outcome == "Error GeneralError")
            return End::Failed;
        if (outcome == "Error InternetConnectionLost")
            return End::Lost;
        EXPECT_EQ(outcome, "Error Cancelled");
        return End::Cancelled;
    }

    const Outcomes& Expected() const {
        return m_client == Client::Native ? m_behaviour.native : m_behaviour.qt;
    }

    const Client m_client = GetParam().client;
    const Behaviour& m_behaviour = *GetParam().behaviour;
    Scene m_scene;
    std::unique_ptr<Application> m_application;
    std::size_t m_requestsBefore = 0;

private:
    static bool FileExists(const ioPath& path) { return std::ifstream(path.string()).good(); }

    End EndWith(const std::string& content) const {
        if (content == m_scene.whole)
            return End::Whole;
        if (content.empty())
            return End::Empty;
        if (content == m_scene.decoded)
            return End::Decoded;
        return m_scene.whole.compare(0, content.size(), content) == 0 ? End::Cut : End::Other;
    }

    /// The same for what is too large for the memory.
    End EndWithGenerated(const ioPath& path) const {
        std::ifstream file(path.string(), std::ios::binary);
        std::string piece(1024 * 1024, '\0');
        std::uint64_t size = 0;
        while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())) ||
               file.gcount() > 0) {
            piece.resize(static_cast<std::size_t>(file.gcount()));
            if (piece != GeneratedBytes(size, piece.size()))
                return End::Other;
            size += piece.size();
        }
        if (size == m_scene.generatedSize)
            return End::Whole;
        return size < m_scene.generatedSize ? End::Cut : End::Other;
    }

    std::unique_ptr<IHttpClient> MakeClient() {
        std::unique_ptr<IHttpClient> client;
        if (m_client == Client::Qt)
            client = std::make_unique<Networking::QtHttpClient>();
        else if (m_scene.trusts)
            client = std::make_unique<Networking::CurlHttpClient>(m_authority.string());
        else
            client = std::make_unique<Networking::CurlHttpClient>();
        return std::make_unique<ImpatientClient>(std::move(client), Expected().pace);
    }

    void TrustTheAuthority() {
        QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
        trusting.setCaCertificates(
            QSslCertificate::fromPath(QString::fromStdString(m_authority.string()), QSsl::Pem));
        QSslConfiguration::setDefaultConfiguration(trusting);
    }

    const TemporaryFolder m_authorityFolder;
    const ioPath m_authority =
        m_authorityFolder.Write("authority.pem", TestAuthority::Certificate());
    const QSslConfiguration m_sslBefore = QSslConfiguration::defaultConfiguration();
};

std::vector<Row> Rows() {
    std::vector<Row> rows;
    for (const Behaviour& behaviour : AllBehaviours()) {
        rows.push_back({Client::Native, &behaviour});
        rows.push_back({Client::Qt, &behaviour});
    }
    return rows;
}

std::string NameOf(const testing::TestParamInfo<Row>& info) {
    const bool isNative = info.param.client == Client::Native;
    return info.param.behaviour->name + (isNative ? "_Native" : "_Qt");
}

TEST_P(HostileServer, EndsADownloadAsItsRowSays) {
    const ResourceDescriptor& file = m_application->AddFile(m_scene.baseUrl, m_scene.path);
    const Bounds bounds = BoundsOf(Expected().pace);
    const MemoryPeak memory;
    const auto begin = std::chrono::steady_clock::now();
    const std::string outcome = Download(file);
    // libcurl counts whole milliseconds, a begun one too.
    const auto elapsed =
        std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);

    EXPECT_THAT(EndOf(outcome, file), AnyOfArray(Expected().ends));
    EXPECT_FALSE(std::ifstream(file.tempPath.string()).good());
    // A request that the client has given up may still be on its way.
    const auto requests = [this] {
        return m_scene.RequestCount() - m_requestsBefore;
    };
    WaitUntil([&] { return requests() >= Expected().fewestRequests; });
    EXPECT_THAT(requests(), AllOf(Ge(Expected().fewestRequests), Le(Expected().mostRequests)));
    EXPECT_THAT(elapsed.count(), AllOf(Ge(bounds.least.count()), Lt(bounds.most.count())));
    EXPECT_THAT(memory.Growth(), Lt(bounds.memoryBytes));
}

INSTANTIATE_TEST_SUITE_P(Rows, HostileServer, testing::ValuesIn(Rows()), &NameOf);

TEST(HostileBehaviours, ExpectSomethingDefinite) {
    std::set<std::string> words;
    for (const Behaviour& behaviour : AllBehaviours()) {
        SCOPED_TRACE(behaviour.name);
        EXPECT_TRUE(words.insert(behaviour.group + behaviour.words).second);
        for (const Outcomes& outcomes : {behaviour.native, behaviour.qt}) {
            const std::set<End> ends(outcomes.ends.begin(), outcomes.ends.end());
            EXPECT_THAT(ends, Not(IsEmpty()));
            EXPECT_EQ(ends.size(), outcomes.ends.size());
            EXPECT_LE(outcomes.fewestRequests, outcomes.mostRequests);
        }
        // What the native client does never depends on what it happens to see first.
        EXPECT_THAT(behaviour.native.ends, SizeIs(1));
        EXPECT_EQ(behaviour.native.fewestRequests, behaviour.native.mostRequests);
    }
}

TEST(ReliabilityDocument, ShowsTheTableAsItIs) {
    const std::string begin = "<!-- behaviours -->\n";
    const std::string end = "<!-- /behaviours -->\n";
    std::ifstream file(HALVEX_SOURCE_FOLDER "/docs/reliability.md");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::size_t from = text.find(begin);
    const std::size_t to = text.find(end);
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos && from < to);
    EXPECT_TRUE(text.substr(from + begin.size(), to - from - begin.size()) ==
                Testing::BehavioursInMarkdown())
        << "between the two marks belongs:\n"
        << Testing::BehavioursInMarkdown();
}

} // namespace
} // namespace Halvex::App
