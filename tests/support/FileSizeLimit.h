#pragma once

#include <stdexcept>

#include <signal.h>
#include <sys/resource.h>

namespace Halvex::Testing {

/// While it lives, no file of this process can be written beyond so many bytes: a full disk, for
/// every account.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : m_oldHandler(::signal(SIGXFSZ, SIG_IGN)) {
        if (::getrlimit(RLIMIT_FSIZE, &m_oldLimit) != 0)
            throw std::runtime_error("cannot read the file size limit");
        const rlimit limit{bytes, m_oldLimit.rlim_max};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            throw std::runtime_error("cannot set the file size limit");
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &m_oldLimit);
        ::signal(SIGXFSZ, m_oldHandler);
    }

    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*m_oldHandler)(int);
    rlimit m_oldLimit{};
};

} // namespace Halvex::Testing
