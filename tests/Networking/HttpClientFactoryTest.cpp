#include "Foundation/HttpClientFactory.h"

#include "Networking/CurlHttpClient.h"
#include "Networking/QtHttpClient.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace Halvex::Networking {
namespace {

TEST(HttpClientFactory, NumbersItsTypes) {
    EXPECT_EQ(static_cast<std::int32_t>(HttpClientType::Native), 0);
    EXPECT_EQ(static_cast<std::int32_t>(HttpClientType::Qt), 1);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<HttpClientType>, std::int32_t>));
}

TEST(HttpClientFactory, MakesAClientOverQt) {
    const std::unique_ptr<IHttpClient> client = createHttpClient(HttpClientType::Qt);
    EXPECT_NE(dynamic_cast<QtHttpClient*>(client.get()), nullptr);
}

TEST(HttpClientFactory, MakesANativeClient) {
    const std::unique_ptr<IHttpClient> client = createHttpClient(HttpClientType::Native);
    EXPECT_NE(dynamic_cast<CurlHttpClient*>(client.get()), nullptr);
}

TEST(HttpClientFactory, MakesAClientOfItsOwnForEachCall) {
    EXPECT_NE(createHttpClient(HttpClientType::Qt), createHttpClient(HttpClientType::Qt));
}

TEST(HttpClientFactory, MakesNoneOfAnUnknownType) {
    EXPECT_EQ(createHttpClient(static_cast<HttpClientType>(2)), nullptr);
    EXPECT_EQ(createHttpClient(static_cast<HttpClientType>(-1)), nullptr);
}

} // namespace
} // namespace Halvex::Networking
