#pragma once

#include "Foundation/Export.h"
#include "ResourceDownloadManager/IProxyProvider.h"

namespace Halvex::App {

/// The operating system's proxy settings, as Qt reports them.
///
/// Gives the first HTTP or SOCKS 5 proxy that needs no user name and no password, or none.
///
/// Thread-safe; holds no data.
class HALVEX_EXPORT QtProxyProvider : public IProxyProvider {
public:
    Proxy GetSystemProxy(const std::string& url) const override;
};

} // namespace Halvex::App
