#include "ResourceDownloadManager/IEventTracer.h"
#include "integration/Application.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <csignal>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::App {
namespace {

using testing::AllOf;
using Testing::Application;
using testing::Ge;
using Testing::GeneratedBytes;
using testing::Le;
using Testing::Outcome;
using Testing::ReadFile;
using Testing::Reply;
using Testing::ScriptedHttpServer;
using Priority = ISchedulableResource::SchedulePriority;

constexpr std::size_t kDownloads = 100'000;
constexpr std::size_t kBundleSize = 1000;
constexpr std::size_t kRounds = kDownloads / kBundleSize;

/// Most files are small; a few are larger than what is read or written at once.
std::size_t SizeOf(std::size_t file) {
    std::mt19937_64 random(file);
    const std::size_t limit = std::size_t{1}
                              << std::array{0, 6, 10, 12, 14, 16, 18}.at(random() % 7);
    return random() % (limit + 1);
}

/// What the server sends when it is asked for one file again and again, and what of that is a
/// fault.
struct Script {
    std::vector<Reply> replies;
    std::vector<bool> isFault;

    void Add(const Reply& reply, bool isAFault) {
        replies.push_back(reply);
        isFault.push_back(isAFault);
    }
};

/// Three kinds of faults, one in a hundred answers; what comes after them is whole.
Script ScriptOf(std::size_t file, std::size_t downloads) {
    const Reply whole = Reply::Generated(SizeOf(file), file);
    // An empty file, too, lacks something then.
    Reply cut = whole;
    cut.Announcing(SizeOf(file) + 1);
    Reply reset = cut;
    const std::array faults{cut, reset.ResetAfter(SizeOf(file) / 2), Reply::Status(503)};
    std::mt19937_64 random(file);
    Script script;
    for (std::size_t download = 0; download < downloads; ++download) {
        if (random() % 100 == 0)
            script.Add(faults.at(random() % faults.size()), true);
        script.Add(whole, false);
    }
    return script;
}

/// How many answers a server has given.
struct Given {
    std::size_t answers = 0;
    std::size_t faults = 0;
};

/// Serves generated files from a process of its own, so that what the server keeps does not count.
class ServerProcess {
public:
    /// Each file is downloaded so many times.
    ServerProcess(std::size_t files, std::size_t downloads) {
        std::array<int, 2> sockets{};
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()) != 0 ||
            (m_process = ::fork()) < 0)
            throw std::runtime_error("cannot make a server process");
        m_socket = sockets.at(0);
        if (m_process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            Serve(files, downloads, sockets.at(1));
        }
        ::close(sockets.at(1));
        m_port = Receive<int>();
    }
    ~ServerProcess() {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
        ::close(m_socket);
    }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    Given GivenSoFar() const {
        EXPECT_EQ(::write(m_socket, "?", 1), 1);
        return Receive<Given>();
    }

private:
    template <typename Value>
    Value Receive() const {
        Value value{};
        EXPECT_EQ(::read(m_socket, &value, sizeof(value)), ssize_t{sizeof(value)});
        return value;
    }

    template <typename Value>
    static void Send(int socket, const Value& value) {
        if (::write(socket, &value, sizeof(value)) != sizeof(value))
            ::_exit(1);
    }

    /// Sends its port, and what it has given whenever it is asked.
    [[noreturn]] static void Serve(std::size_t files, std::size_t downloads, int socket) {
        ScriptedHttpServer server;
        std::vector<std::vector<bool>> isFault;
        for (std::size_t file = 0; file < files; ++file) {
            Script script = ScriptOf(file, downloads);
            server.On("/" + std::to_string(file), std::move(script.replies));
            isFault.push_back(std::move(script.isFault));
        }
        Send(socket, server.Port());
        char question = 0;
        while (::read(socket, &question, 1) == 1)
            Send(socket, GivenBy(server, isFault));
        ::_exit(0);
    }

    static Given GivenBy(const ScriptedHttpServer& server,
                         const std::vector<std::vector<bool>>& isFault) {
        Given given;
        std::vector<std::size_t> next(isFault.size());
        for (const ScriptedHttpServer::Request& request : server.Requests()) {
            const std::size_t file = std::stoul(request.target.substr(1));
            const std::size_t answer = next.at(file)++;
            ++given.answers;
            // The last one, which is repeated, is whole.
            given.faults += answer < isFault[file].size() && isFault[file][answer] ? 1 : 0;
        }
        return given;
    }

    pid_t m_process = -1;
    int m_socket = -1;
    int m_port = 0;
};

/// Counts the attempts to download a file.
class AttemptCounter : public IEventTracer {
public:
    std::size_t Count() const { return m_count; }

    void Trace(Event event, const TraceRecord&) const override {
        if (event == Event::Download)
            ++m_count;
    }
    void TraceString(const std::string&) const override {}

private:
    mutable std::atomic<std::size_t> m_count{0};
};

std::size_t Descriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

double ResidentMegabytes() {
    ::malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    double all = 0;
    double resident = 0;
    file >> all >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

/// An application that downloads 100,000 files, a bundle of a thousand at a time.
class Soak : public testing::Test {
protected:
    struct Bundle {
        IRemoteResource* resource;
        std::vector<std::pair<const ResourceDescriptor*, std::size_t>> files;
    };

    static Application::Dependencies DependenciesWith(std::shared_ptr<IEventTracer> tracer) {
        Application::Dependencies dependencies;
        dependencies.eventTracer = std::move(tracer);
        return dependencies;
    }

    static Application::Params Parameters() {
        Application::Params params;
        params.useParallelExecutor = true;
        return params;
    }

    Bundle AddBundle(const std::string& url, std::size_t firstFile, std::int32_t validationMode) {
        Bundle bundle;
        std::set<const ResourceDescriptor*> descriptors;
        for (std::size_t file = firstFile; file < firstFile + kBundleSize; ++file) {
            ResourceDescriptor& descriptor = m_application.AddFile(url, std::to_string(file));
            descriptor.validationMode = validationMode;
            descriptors.insert(&descriptor);
            bundle.files.emplace_back(&descriptor, file);
        }
        bundle.resource = m_application.Register(std::move(descriptors));
        return bundle;
    }

    /// Downloads the bundle, compares each file with what it is to be, and deletes it.
    void Download(const Bundle& bundle) {
        bundle.resource->Schedule(Priority::Normal);
        m_application.Run();
        EXPECT_EQ(Outcome(bundle.resource->GetState()), "Available NoError");
        for (const auto& [descriptor, file] : bundle.files) {
            EXPECT_TRUE(ReadFile(descriptor->downloadPath) == GeneratedBytes(0, SizeOf(file), file))
                << file;
            EXPECT_TRUE(descriptor->downloadPath.remove());
        }
        EXPECT_EQ(m_application.folder.List(), "");
    }

    /// Looks at the level after a tenth and at the end.
    void LookAtLevel(std::size_t roundsDone) {
        if (roundsDone == kRounds / 10) {
            m_descriptorsAtATenth = Descriptors();
            m_megabytesAtATenth = ResidentMegabytes();
        }
        if (roundsDone != kRounds)
            return;
        const double megabytes = ResidentMegabytes();
        std::cout << "resident MB: " << m_megabytesAtATenth << " after a tenth, " << megabytes
                  << " at the end" << std::endl;
        EXPECT_THAT(megabytes, Le(1.1 * m_megabytesAtATenth));
        EXPECT_EQ(Descriptors(), m_descriptorsAtATenth);
    }

    /// That about one answer in a hundred was a fault, and that each cost one more request.
    void ExpectFaultsWereMadeGood(const ServerProcess& server) const {
        const Given given = server.GivenSoFar();
        const std::size_t retries = m_attempts->Count() - kDownloads;
        std::cout << given.faults << " faults in " << given.answers << " answers, " << retries
                  << " retries" << std::endl;
        EXPECT_THAT(given.faults, AllOf(Ge(kDownloads / 125), Le(kDownloads / 80)));
        EXPECT_EQ(given.answers, kDownloads + given.faults);
        // A reset of a connection that was in use before may be made good by the HTTP client.
        EXPECT_THAT(retries, AllOf(Ge(given.faults / 2), Le(given.faults)));
    }

private:
    const Testing::FoldersInMemory m_inMemory;
    const std::shared_ptr<AttemptCounter> m_attempts = std::make_shared<AttemptCounter>();
    Application m_application{Parameters(), DependenciesWith(m_attempts)};
    std::size_t m_descriptorsAtATenth = 0;
    double m_megabytesAtATenth = 0;
};

} // namespace

TEST_F(Soak, AHundredThousandFilesArriveWholeAndMemoryStays) {
    const ServerProcess server(kDownloads, 1);
    // All at the beginning: what is registered stays for good, and is not what is looked for.
    std::vector<Bundle> bundles;
    while (bundles.size() < kRounds)
        bundles.push_back(AddBundle(server.Url(), bundles.size() * kBundleSize, 2));
    for (std::size_t round = 0; round < kRounds; ++round) {
        Download(bundles[round]);
        ASSERT_FALSE(HasFailure());
        LookAtLevel(round + 1);
    }
    ExpectFaultsWereMadeGood(server);
}

/// The same number of downloads in a process that is small, so that a tenth of its memory is 30
/// bytes per download.
TEST_F(Soak, AThousandFilesArriveWholeAHundredTimesAndMemoryStays) {
    const ServerProcess server(kBundleSize, kRounds);
    const Bundle bundle = AddBundle(server.Url(), 0, 0);
    for (std::size_t round = 0; round < kRounds; ++round) {
        Download(bundle);
        ASSERT_FALSE(HasFailure());
        LookAtLevel(round + 1);
    }
    ExpectFaultsWereMadeGood(server);
}

} // namespace Halvex::App
