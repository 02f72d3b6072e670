#include "ResourceDownloadManager/QtProxyProvider.h"

#include "ResourceDownloadManager/QtProxyProviderInternal.h"

#include <QtCore/QUrl>

namespace Halvex::App {

IProxyProvider::Proxy FirstUsableProxy(const QList<QNetworkProxy>& proxies) {
    using Type = IProxyProvider::Proxy::Type;
    for (const QNetworkProxy& proxy : proxies) {
        if (!proxy.user().isEmpty() || !proxy.password().isEmpty())
            continue;
        if (proxy.type() == QNetworkProxy::HttpProxy)
            return {Type::Http, proxy.hostName().toStdString(), proxy.port()};
        if (proxy.type() == QNetworkProxy::Socks5Proxy)
            return {Type::Socks5, proxy.hostName().toStdString(), proxy.port()};
    }
    return {};
}

IProxyProvider::Proxy QtProxyProvider::GetSystemProxy(const std::string& url) const {
    const QNetworkProxyQuery query(QUrl(QString::fromStdString(url)),
                                   QNetworkProxyQuery::UrlRequest);
    return FirstUsableProxy(QNetworkProxyFactory::systemProxyForQuery(query));
}

} // namespace Halvex::App
