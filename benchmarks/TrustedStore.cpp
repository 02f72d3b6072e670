// Loaded before a program (LD_PRELOAD), has it find the authorities in the file that
// HALVEX_TRUSTED_STORE names where it opens the system's own. So https can be measured with a
// certificate made for the occasion, by programs that cannot be told of one, and without rights.
//
// It needs the C library only: a program in C would take longer to start with that of C++.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

namespace {

const char* Instead(const char* path) {
    const char* const store = std::getenv("HALVEX_TRUSTED_STORE");
    const bool isSystems = std::strcmp(path, "/etc/ssl/certs/ca-certificates.crt") == 0;
    return store != nullptr && isSystems ? store : path;
}

} // namespace

// Debian's programs open it by either name, which are one function in the system's C library.
extern "C" {

__attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
    const auto next = reinterpret_cast<decltype(&fopen64)>(::dlsym(RTLD_NEXT, "fopen64"));
    return next(Instead(path), mode);
}

__attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
    return fopen64(path, mode);
}
}
