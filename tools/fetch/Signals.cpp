#include "Signals.h"

#include "ExitStatus.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Halvex::Fetch {

namespace {

constexpr std::array kStopSignals = {SIGINT, SIGTERM};

void Exit(int) {
    ::_exit(Interrupted);
}

int Checked(int descriptor) {
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category());
    return descriptor;
}

sigset_t StopSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : kStopSignals)
        ::sigaddset(&signals, signal);
    return signals;
}

int MakeSignalDescriptor() {
    const sigset_t signals = StopSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return Checked(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace

void ExitOnSignals() {
    struct sigaction action {};
    action.sa_handler = Exit;
    for (const int signal : kStopSignals)
        ::sigaction(signal, &action, nullptr);
    // A reader that has gone, such as head, must not end a download: what it no longer reads is
    // lost, and nothing else.
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
}

Wakeup::Wakeup() : m_descriptor(Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

Wakeup::~Wakeup() {
    ::close(m_descriptor);
}

void Wakeup::Notify() const {
    // Fails only when the counter is full, and then the waiting thread is woken anyway.
    [[maybe_unused]] const int result = ::eventfd_write(m_descriptor, 1);
}

Signals::Signals() : m_descriptor(MakeSignalDescriptor()) {}

Signals::~Signals() {
    ::close(m_descriptor);
}

bool Signals::Wait(const Wakeup& wakeup, std::optional<std::chrono::milliseconds> limit) {
    std::array<pollfd, 2> sources = {{{m_descriptor, POLLIN, 0}, {wakeup.m_descriptor, POLLIN, 0}}};
    const int timeout = limit ? static_cast<int>(limit->count()) : -1;
    if (::poll(sources.data(), sources.size(), timeout) <= 0)
        return false;
    eventfd_t ignored = 0;
    if (sources[1].revents != 0)
        ::eventfd_read(wakeup.m_descriptor, &ignored);
    signalfd_siginfo received{};
    return sources[0].revents != 0 &&
           ::read(m_descriptor, &received, sizeof(received)) == sizeof(received);
}

} // namespace Halvex::Fetch
