#include "support/SystemCalls.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <shared_mutex>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

/// Held by whoever tells the test of a call, and by the test while it begins or ceases to listen.
std::shared_mutex currentCallsMutex;
SystemCalls* currentCalls = nullptr;

std::string NameOf(const char* path) {
    return std::filesystem::path(path).filename().string();
}

std::string NameOf(int descriptor) {
    std::error_code error;
    const auto link = "/proc/self/fd/" + std::to_string(descriptor);
    return std::filesystem::read_symlink(link, error).filename().string();
}

bool IsSocket(const char*) {
    return false;
}

bool IsSocket(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

/// Whether the call is to be made. Not: errno is set, or it has thrown.
bool IsMade(const SystemCalls::Fault& fault) {
    if (fault.kind == SystemCalls::Fault::Kind::Exception)
        std::rethrow_exception(fault.exception);
    if (fault.kind != SystemCalls::Fault::Kind::Error)
        return true;
    errno = fault.error;
    return false;
}

std::size_t Shortened(std::size_t size, const SystemCalls::Fault& fault) {
    return fault.kind == SystemCalls::Fault::Kind::Short ? std::min(size, fault.bytes) : size;
}

/// What the test that is running says to a call; nothing when none listens. It does not hear of
/// sockets: those are its server's, which closes them at any time, on threads of its own.
template <typename File, typename... More>
SystemCalls::Fault Consult(const char* name, File file, More... more) {
    const std::shared_lock lock(currentCallsMutex);
    if (currentCalls == nullptr || IsSocket(file))
        return {};
    std::string files = " " + NameOf(file);
    ((files += " " + std::string(more)), ...);
    return currentCalls->Record(name, files);
}

} // namespace

SystemCalls::SystemCalls() {
    const std::unique_lock lock(currentCallsMutex);
    currentCalls = this;
}

SystemCalls::~SystemCalls() {
    const std::unique_lock lock(currentCallsMutex);
    currentCalls = nullptr;
}

std::vector<std::string> SystemCalls::Made() const {
    const MutexLock lock(m_mutex);
    return m_made;
}

void SystemCalls::Pass(const std::string& name) {
    Add(name, {});
}

void SystemCalls::Fail(const std::string& name, int error) {
    Add(name, {Fault::Kind::Error, error, 0, nullptr});
}

void SystemCalls::Shorten(const std::string& name, std::size_t bytes) {
    Add(name, {Fault::Kind::Short, 0, bytes, nullptr});
}

void SystemCalls::Throw(const std::string& name, std::exception_ptr exception) {
    Add(name, {Fault::Kind::Exception, 0, 0, std::move(exception)});
}

void SystemCalls::Add(const std::string& name, Fault fault) {
    const MutexLock lock(m_mutex);
    m_faults[name].push_back(std::move(fault));
}

void SystemCalls::FailNth(std::size_t n, std::vector<std::string> files, int error) {
    const MutexLock lock(m_mutex);
    m_failsIn = n;
    m_failingFiles = std::move(files);
    m_failingError = error;
}

std::string SystemCalls::FailedNth() const {
    const MutexLock lock(m_mutex);
    return m_failed;
}

void SystemCalls::Watch(std::function<void(const std::string& call)> watcher) {
    const MutexLock lock(m_mutex);
    m_watcher = std::move(watcher);
}

SystemCalls::Fault SystemCalls::Record(const std::string& name, const std::string& files) {
    std::function<void(const std::string&)> watcher;
    {
        const MutexLock lock(m_mutex);
        watcher = m_watcher;
    }
    if (watcher)
        watcher(name + files);
    return NextFault(name, files);
}

SystemCalls::Fault SystemCalls::NextFault(const std::string& name, const std::string& files) {
    const MutexLock lock(m_mutex);
    m_made.push_back(name + files);
    const auto isIn = [&files](const std::string& file) {
        return files.find(" " + file) != std::string::npos;
    };
    const bool touches = std::any_of(m_failingFiles.begin(), m_failingFiles.end(), isIn);
    if (touches && m_failsIn > 0 && --m_failsIn == 0) {
        m_failed = name + files;
        return {Fault::Kind::Error, m_failingError, 0, nullptr};
    }
    std::deque<Fault>& faults = m_faults[name];
    if (faults.empty())
        return {};
    const Fault fault = faults.front();
    faults.pop_front();
    return fault;
}

} // namespace Halvex::Testing

// The linker leads the library's calls of f to __wrap_f, and __real_f to the system's f.
using namespace Halvex::Testing;

int RealOpen(const char* path, int flags, ...) asm("__real_open");
ssize_t RealRead(int descriptor, void* buffer, std::size_t size) asm("__real_read");
ssize_t RealWrite(int descriptor, const void* data, std::size_t size) asm("__real_write");
int RealClose(int descriptor) asm("__real_close");
int RealDataSync(int descriptor) asm("__real_fdatasync");
int RealRename(const char* from, const char* to) asm("__real_rename");
int RealUnlink(const char* path) asm("__real_unlink");
int RealSleep(const timespec* time, timespec* rest) asm("__real_nanosleep");

int WrappedOpen(const char* path, int flags, ...) asm("__wrap_open");
ssize_t WrappedRead(int descriptor, void* buffer, std::size_t size) asm("__wrap_read");
ssize_t WrappedWrite(int descriptor, const void* data, std::size_t size) asm("__wrap_write");
int WrappedClose(int descriptor) asm("__wrap_close");
int WrappedDataSync(int descriptor) asm("__wrap_fdatasync");
int WrappedRename(const char* from, const char* to) asm("__wrap_rename");
int WrappedUnlink(const char* path) asm("__wrap_unlink");
int WrappedSleep(const timespec* time, timespec* rest) asm("__wrap_nanosleep");

int WrappedOpen(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return IsMade(Consult("open", path)) ? RealOpen(path, flags, mode) : -1;
}

ssize_t WrappedRead(int descriptor, void* buffer, std::size_t size) {
    const auto fault = Consult("read", descriptor, std::to_string(size));
    return IsMade(fault) ? RealRead(descriptor, buffer, Shortened(size, fault)) : -1;
}

ssize_t WrappedWrite(int descriptor, const void* data, std::size_t size) {
    const auto fault = Consult("write", descriptor, std::to_string(size));
    return IsMade(fault) ? RealWrite(descriptor, data, Shortened(size, fault)) : -1;
}

int WrappedClose(int descriptor) {
    const auto fault = Consult("close", descriptor);
    const int result = RealClose(descriptor);
    return IsMade(fault) ? result : -1;
}

int WrappedDataSync(int descriptor) {
    return IsMade(Consult("fdatasync", descriptor)) ? RealDataSync(descriptor) : -1;
}

int WrappedRename(const char* from, const char* to) {
    return IsMade(Consult("rename", from, "->", NameOf(to))) ? RealRename(from, to) : -1;
}

int WrappedUnlink(const char* path) {
    return IsMade(Consult("unlink", path)) ? RealUnlink(path) : -1;
}

int WrappedSleep(const timespec* time, timespec* rest) {
    {
        const std::shared_lock lock(currentCallsMutex);
        if (currentCalls != nullptr)
            currentCalls->Record("nanosleep", "");
    }
    return RealSleep(time, rest);
}
