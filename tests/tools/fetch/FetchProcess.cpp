#include "FetchProcess.h"

#include "support/Waiting.h"

#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

int Open(const ioPath& path, int flags) {
    const int descriptor = ::open(path.string().c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor < 0)
        throw std::runtime_error("cannot open " + path.string());
    return descriptor;
}

/// Becomes the program. Between fork and here only calls that are safe in a copy of one thread.
[[noreturn]] void Become(char* const* arguments, const int (&streams)[3], const rlimit* openFiles) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 0; i < 3; ++i)
        ::dup2(streams[i], i);
    if (openFiles != nullptr)
        ::setrlimit(RLIMIT_NOFILE, openFiles);
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

bool EndsWithinTheLimit(pid_t process) {
    constexpr std::chrono::milliseconds kLimit = kGenerousLimit;
    pollfd ended{static_cast<int>(::syscall(SYS_pidfd_open, process, 0)), POLLIN, 0};
    const int count = ::poll(&ended, 1, static_cast<int>(kLimit.count()));
    ::close(ended.fd);
    return count == 1;
}

} // namespace

FetchProcess::FetchProcess(const Setup& setup) {
    std::vector<std::string> words{HALVEX_FETCH_PROGRAM};
    words.insert(words.end(), setup.arguments.begin(), setup.arguments.end());
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    constexpr int kNew = O_WRONLY | O_CREAT;
    const ioPath input = m_folder.Write("in", setup.input);
    const int in = Open(setup.inputPath.empty() ? input : ioPath(setup.inputPath), O_RDONLY);
    const ioPath output = setup.outputPath.empty() ? m_folder / "out" : ioPath(setup.outputPath);
    const int out = setup.terminal ? *setup.terminal : Open(output, kNew);
    const int err = setup.terminal ? ::dup(*setup.terminal) : Open(m_folder / "err", kNew);
    const int streams[] = {in, out, err};
    m_process = ::fork();
    if (m_process == 0)
        Become(arguments.data(), streams, setup.openFiles ? &*setup.openFiles : nullptr);
    for (const int stream : streams)
        ::close(stream);
    if (m_process < 0)
        throw std::runtime_error("cannot fork");
}

FetchProcess::~FetchProcess() {
    if (m_process < 0)
        return;
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
}

void FetchProcess::Signal(int signal) const {
    ::kill(m_process, signal);
}

FetchProcess::Result FetchProcess::Wait() {
    const auto begin = std::chrono::steady_clock::now();
    Result result;
    if (EndsWithinTheLimit(m_process)) {
        int status = 0;
        rusage usage{};
        ::wait4(std::exchange(m_process, -1), &status, 0, &usage);
        result.peakBytes = std::int64_t{usage.ru_maxrss} * 1024;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    result.time = std::chrono::steady_clock::now() - begin;
    if ((m_folder / "out").exists())
        result.out = ReadFile(m_folder / "out");
    if ((m_folder / "err").exists())
        result.err = ReadFile(m_folder / "err");
    return result;
}

} // namespace Halvex::Testing
