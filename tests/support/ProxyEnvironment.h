#pragma once

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// The environment's proxy settings are those given, and no others, while this lives. One at a
/// time, while no other thread reads or changes the environment.
class ProxyEnvironment {
public:
    struct Variable {
        std::string name;
        std::string value;
    };

    explicit ProxyEnvironment(const std::vector<Variable>& settings) {
        for (const char* name : kNames) {
            if (const char* value = std::getenv(name))
                m_before.push_back({name, value});
        }
        Replace(settings);
    }
    ~ProxyEnvironment() { Replace(m_before); }

    ProxyEnvironment(const ProxyEnvironment&) = delete;
    ProxyEnvironment& operator=(const ProxyEnvironment&) = delete;

private:
    static constexpr std::array<const char*, 10> kNames{
        "http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "ftp_proxy",
        "FTP_PROXY",  "all_proxy",  "ALL_PROXY",   "no_proxy",    "NO_PROXY"};

    static void Replace(const std::vector<Variable>& settings) {
        for (const char* name : kNames)
            ::unsetenv(name);
        for (const Variable& variable : settings)
            ::setenv(variable.name.c_str(), variable.value.c_str(), 1);
    }

    std::vector<Variable> m_before;
};

} // namespace Halvex::Testing
