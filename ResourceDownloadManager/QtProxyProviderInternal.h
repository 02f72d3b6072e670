#pragma once

#include "ResourceDownloadManager/IProxyProvider.h"

#include <QtCore/QList>
#include <QtNetwork/QNetworkProxy>

namespace Halvex::App {

/// The first proxy of the list that QtProxyProvider may use; type None when there is none.
IProxyProvider::Proxy FirstUsableProxy(const QList<QNetworkProxy>& proxies);

} // namespace Halvex::App
