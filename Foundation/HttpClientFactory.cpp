#include "Foundation/HttpClientFactory.h"

#include "Networking/CurlHttpClient.h"
#include "Networking/QtHttpClient.h"

namespace Halvex::Networking {

std::unique_ptr<IHttpClient> createHttpClient(HttpClientType type) {
    switch (type) {
    case HttpClientType::Native:
        return std::make_unique<CurlHttpClient>();
    case HttpClientType::Qt:
        return std::make_unique<QtHttpClient>();
    }
    return nullptr;
}

} // namespace Halvex::Networking
