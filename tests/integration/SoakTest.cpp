#include "integration/Application.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
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
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::App {
namespace {

using Testing::Application;
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

/// Three kinds of faults, one in a hundred answers; what comes after them is whole.
std::vector<Reply> Replies(std::size_t file, std::size_t requests) {
    const Reply whole = Reply::Generated(SizeOf(file), file);
    Reply cut = whole;
    Reply reset = whole;
    const std::array faults{cut.Announcing(SizeOf(file) + 1), reset.ResetAfter(SizeOf(file) / 2),
                            Reply::Status(503)};
    std::mt19937_64 random(file);
    std::vector<Reply> replies;
    for (std::size_t request = 0; request < requests; ++request) {
        if (random() % 100 == 0)
            replies.push_back(faults.at(random() % faults.size()));
        replies.push_back(whole);
    }
    return replies;
}

/// Serves generated files from a process of its own, so that what the server keeps does not count.
class ServerProcess {
public:
    /// Each file is asked for so many times.
    ServerProcess(std::size_t files, std::size_t requests) {
        std::array<int, 2> pipe{};
        if (::pipe(pipe.data()) != 0 || (m_process = ::fork()) < 0)
            throw std::runtime_error("cannot make a server process");
        if (m_process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            Serve(files, requests, pipe.at(1));
        }
        ::close(pipe.at(1));
        EXPECT_EQ(::read(pipe.at(0), &m_port, sizeof(m_port)), ssize_t{sizeof(m_port)});
        ::close(pipe.at(0));
    }
    ~ServerProcess() {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

private:
    [[noreturn]] static void Serve(std::size_t files, std::size_t requests, int output) {
        ScriptedHttpServer server;
        for (std::size_t file = 0; file < files; ++file)
            server.On("/" + std::to_string(file), Replies(file, requests));
        const int port = server.Port();
        if (::write(output, &port, sizeof(port)) != sizeof(port))
            ::_exit(1);
        for (;;)
            ::pause();
    }

    pid_t m_process = -1;
    int m_port = 0;
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

/// Makes temporary folders in memory.
class FoldersInMemory {
public:
    FoldersInMemory() { ::setenv("TMPDIR", "/dev/shm", 1); }
    ~FoldersInMemory() { ::unsetenv("TMPDIR"); }

    FoldersInMemory(const FoldersInMemory&) = delete;
    FoldersInMemory& operator=(const FoldersInMemory&) = delete;
};

/// An application that downloads 100,000 files, a bundle of a thousand at a time.
class Soak : public testing::Test {
protected:
    struct Bundle {
        IRemoteResource* resource;
        std::vector<std::pair<const ResourceDescriptor*, std::size_t>> files;
    };

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

    const FoldersInMemory m_inMemory;
    Application m_application{Parameters()};

private:
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
}

} // namespace Halvex::App
