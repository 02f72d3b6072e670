#include "FetchProcess.h"
#include "support/Sanitizers.h"
#include "support/ScriptedHttpServer.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::Testing {
namespace {

using nlohmann::json;

constexpr std::uint64_t kSize = 600'000;

/// The calls of the system that have to do with a file or a socket, as far as they change one or
/// give or take its bytes.
constexpr std::array<std::uint64_t, 30> kCallsThatMatter = {
    SYS_openat,   SYS_read,    SYS_pread64,  SYS_readv,      SYS_write,      SYS_pwrite64,
    SYS_writev,   SYS_close,   SYS_fsync,    SYS_fdatasync,  SYS_ftruncate,  SYS_unlinkat,
    SYS_renameat, SYS_mkdirat, SYS_fchmod,   SYS_fcntl,      SYS_newfstatat, SYS_lseek,
    SYS_socket,   SYS_connect, SYS_sendto,   SYS_recvfrom,   SYS_sendmsg,    SYS_recvmsg,
    SYS_bind,     SYS_ppoll,   SYS_shutdown, SYS_setsockopt, SYS_getsockopt, SYS_getsockname,
};

#ifdef SYS_open
/// The older forms, which not every processor has.
constexpr std::array<std::uint64_t, 6> kOlderCalls = {SYS_open,  SYS_unlink, SYS_rename,
                                                      SYS_mkdir, SYS_stat,   SYS_poll};
#else
constexpr std::array<std::uint64_t, 1> kOlderCalls = {SYS_renameat2};
#endif

bool Matters(std::uint64_t call) {
    const auto is = [call](std::uint64_t other) {
        return call == other;
    };
    return std::any_of(kCallsThatMatter.begin(), kCallsThatMatter.end(), is) ||
           std::any_of(kOlderCalls.begin(), kOlderCalls.end(), is);
}

/// halvex-fetch under a watch that kills it when it is about to make a certain call.
class DoomedFetch {
public:
    /// Counts the calls that matter from the one on that opens the last argument, the manifest. The
    /// n-th, counted from 1, is never made.
    DoomedFetch(const std::vector<std::string>& arguments, std::size_t n)
        : m_manifest(arguments.back()), m_callsLeft(n) {
        std::vector<char*> command{const_cast<char*>(HALVEX_FETCH_PROGRAM)};
        for (const std::string& argument : arguments)
            command.push_back(const_cast<char*>(argument.c_str()));
        command.push_back(nullptr);
        // A check for leaks cannot be made of a process that is watched.
        char* environment[] = {const_cast<char*>("ASAN_OPTIONS=detect_leaks=0"), nullptr};
        m_process = ::fork();
        if (m_process < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (m_process > 0)
            return;
        // Only what is safe after the fork of a program with threads.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::setpgid(0, 0);
        const int null = ::open("/dev/null", O_RDWR);
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            ::dup2(null, stream);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        ::execve(HALVEX_FETCH_PROGRAM, command.data(), environment);
        ::_exit(127);
    }
    ~DoomedFetch() {
        if (m_process > 0) {
            ::kill(m_process, SIGKILL);
            ::waitpid(m_process, nullptr, __WALL);
        }
    }

    DoomedFetch(const DoomedFetch&) = delete;
    DoomedFetch& operator=(const DoomedFetch&) = delete;

    /// Whether this process may watch another one at all.
    static bool IsAllowed() {
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
        int status = 1;
        return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
    }

    /// Runs it to its end. True: it was killed as told; false: it made fewer calls.
    bool IsKilled() {
        int status = 0;
        ::waitpid(m_process, &status, __WALL);
        Command(PTRACE_SETOPTIONS, m_process,
                PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
        Command(PTRACE_SYSCALL, m_process, 0);
        while (true) {
            const pid_t thread = ::waitpid(-m_process, &status, __WALL);
            if (thread < 0)
                throw std::system_error(errno, std::generic_category(), "waitpid");
            if (WIFSTOPPED(status)) {
                GoOn(thread, status);
                continue;
            }
            if (thread != m_process)
                continue;
            m_process = -1;
            return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && m_callsLeft == 0;
        }
    }

private:
    /// A thread that has been killed meanwhile is no error.
    static void Command(__ptrace_request request, pid_t thread, unsigned long data) {
        if (::ptrace(request, thread, nullptr, data) != 0 && errno != ESRCH)
            throw std::system_error(errno, std::generic_category(), "ptrace");
    }

    void GoOn(pid_t thread, int status) {
        constexpr int kSystemCall = SIGTRAP | 0x80;
        const int signal = WSTOPSIG(status);
        if (signal == kSystemCall)
            TakeCall(thread);
        // A new thread begins with a stop of its own.
        const bool isOurs = signal == kSystemCall || signal == SIGTRAP || signal == SIGSTOP;
        Command(PTRACE_SYSCALL, thread, isOurs ? 0 : static_cast<unsigned long>(signal));
    }

    void TakeCall(pid_t thread) {
        __ptrace_syscall_info call{};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof(call), &call) <= 0 ||
            call.op != PTRACE_SYSCALL_INFO_ENTRY)
            return;
        if (call.entry.nr == SYS_openat && TextAt(thread, call.entry.args[1]) == m_manifest)
            m_counts = true;
        if (m_counts && m_callsLeft > 0 && Matters(call.entry.nr) && --m_callsLeft == 0)
            ::kill(m_process, SIGKILL);
    }

    /// The text at an address of the process, as far as the manifest's path is long.
    std::string TextAt(pid_t thread, std::uint64_t address) const {
        std::string text(m_manifest.size(), '\0');
        iovec here{text.data(), text.size()};
        iovec there{reinterpret_cast<void*>(address), text.size()}; // NOLINT(*-int-to-ptr)
        const ssize_t count = ::process_vm_readv(thread, &here, 1, &there, 1, 0);
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return text;
    }

    const std::string m_manifest;
    std::size_t m_callsLeft;
    bool m_counts = false;
    pid_t m_process = -1;
};

TEST(HalvexFetchThatIsKilled, LeavesAWholeFileOrNoneAndTheNextRunEndsWhole) {
    if (!DoomedFetch::IsAllowed())
        GTEST_SKIP() << "this process may not watch another one";
    const std::string whole = GeneratedBytes(0, kSize);
    ScriptedHttpServer server;
    server.On("/file.bin", Reply::Generated(kSize));
    const TemporaryFolder input;
    const TemporaryFolder output;
    const json manifest = {{"baseUrl", server.Url("")},
                           {"bundles", {{{"name", "all"}, {"files", {{{"path", "file.bin"}}}}}}}};
    const std::vector<std::string> arguments{
        "-o", output.Path(), "-j", "1", input.Write("manifest.json", manifest.dump()).string()};
    const ioPath destination = output / "file.bin";

    // The start of a process takes the sanitizers a second.
    constexpr std::size_t kStep = kSanitized ? 9 : 1;
    std::size_t killed = 0;
    std::size_t withoutFile = 0;
    for (std::size_t call = 1; DoomedFetch(arguments, call).IsKilled(); call += kStep) {
        SCOPED_TRACE(call);
        ++killed;
        if (!destination.exists())
            ++withoutFile;
        else
            EXPECT_TRUE(ReadFile(destination) == whole);
        FetchProcess::Setup setup;
        setup.arguments = arguments;
        EXPECT_EQ(FetchProcess(setup).Wait().status, 0);
        EXPECT_TRUE(ReadFile(destination) == whole);
        EXPECT_THAT(output.List(), testing::MatchesRegex("(\\.halvex-[0-9-]+ )?file.bin"));
        for (const auto& entry : std::filesystem::directory_iterator(output.Path()))
            std::filesystem::remove(entry.path());
    }
    EXPECT_TRUE(ReadFile(destination) == whole);
    EXPECT_GT(killed * kStep, 40U);
    EXPECT_GT(withoutFile * kStep, 20U);
    RecordProperty("killed", static_cast<int>(killed));
}

} // namespace
} // namespace Halvex::Testing
