#include "ProxyPerServer.h"

#include <cstddef>
#include <string_view>
#include <utility>

namespace Halvex::Fetch {

namespace {

std::string_view ServerOf(std::string_view url) {
    constexpr std::string_view kBeforeHost = "://";
    const std::size_t mark = url.find(kBeforeHost);
    if (mark == std::string_view::npos)
        return url;
    return url.substr(0, url.find_first_of("/?#", mark + kBeforeHost.size()));
}

} // namespace

ProxyPerServer::ProxyPerServer(std::shared_ptr<App::IProxyProvider> provider)
    : m_provider(std::move(provider)) {}

App::IProxyProvider::Proxy ProxyPerServer::GetSystemProxy(const std::string& url) const {
    const std::string_view server = ServerOf(url);
    {
        const MutexLock lock(m_mutex);
        const auto known = m_known.find(server);
        if (known != m_known.end())
            return known->second;
    }
    Proxy proxy = m_provider->GetSystemProxy(url);
    const MutexLock lock(m_mutex);
    return m_known.emplace(server, std::move(proxy)).first->second;
}

} // namespace Halvex::Fetch
