#pragma once

#include <string>

#include <dlfcn.h>

namespace Halvex::Testing {

/// What a function of the test program that has taken a system function's name stands in front of:
/// the sanitizer's, which has a second name where it is linked into the program, or the system's.
template <typename Function>
Function* NextFunction(Function*, const std::string& name) {
    void* sanitizers = ::dlsym(RTLD_DEFAULT, ("__interceptor_" + name).c_str());
    return reinterpret_cast<Function*>(sanitizers != nullptr ? sanitizers
                                                             : ::dlsym(RTLD_NEXT, name.c_str()));
}

} // namespace Halvex::Testing
