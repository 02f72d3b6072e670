#pragma once

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IProxyProvider.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Halvex::Fetch {

/// Another provider's answers, each asked for once per server. On Linux Qt reads them from the
/// environment, which stays the same while the program runs, and asking for each file costs a
/// twentieth of the CPU time of a small one.
///
/// Thread-safe, as the other provider must be.
class ProxyPerServer : public App::IProxyProvider {
public:
    /// Shares the other provider. A few threads that come first may each ask it.
    explicit ProxyPerServer(std::shared_ptr<App::IProxyProvider> provider);

    Proxy GetSystemProxy(const std::string& url) const override;

private:
    const std::shared_ptr<App::IProxyProvider> m_provider;
    mutable Mutex m_mutex;
    /// By what stands before the path in an address.
    mutable std::map<std::string, Proxy, std::less<>> m_known HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Fetch
