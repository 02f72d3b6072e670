#include "Networking/IHttpClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <type_traits>

namespace Halvex::Networking {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// The place of a virtual function in the table that its class's users are compiled against: what
/// a pointer to it holds, plus one, on this platform.
template <typename Function>
std::size_t Slot(Function function) {
    std::size_t word = 0;
    std::memcpy(&word, &function, sizeof(word));
    return (word - 1) / sizeof(void*);
}

TEST(Request, IsEmptyByDefault) {
    const Request request;
    EXPECT_EQ(request.url.toString(), "");
    EXPECT_TRUE(request.headers.empty());
    EXPECT_TRUE(request.cookies.empty());
}

TEST(Request, HoldsAnAddressHeadersAndCookiesInThisOrder) {
    const Request request{Url("http://a"), {{"header", "1"}}, {{"cookie", "2"}}};
    EXPECT_EQ(request.url.toString(), "http://a");
    EXPECT_EQ(request.headers, (Pairs{{"header", "1"}}));
    EXPECT_EQ(request.cookies, (Pairs{{"cookie", "2"}}));
}

TEST(Options, AreZeroAndEmptyByDefault) {
    const Options options;
    EXPECT_EQ(options.lowSpeedLimit, 0);
    EXPECT_EQ(options.connectTimeout, 0);
    EXPECT_EQ(options.timeout, 0);
    EXPECT_FALSE(options.resume.first);
    EXPECT_EQ(options.resume.second, 0);
    EXPECT_EQ(options.lowSpeedTime, 0);
    EXPECT_EQ(options.proxy, "");
    EXPECT_FALSE(options.cancellationQuery);
    EXPECT_FALSE(options.progressCallback);
    EXPECT_FALSE(options.dataCallback);
}

TEST(Options, KeepTheirOrder) {
    std::string calls;
    const Options options{1,
                          2,
                          3,
                          {true, 4},
                          5,
                          "proxy",
                          [&] { return !(calls += "query ").empty(); },
                          [&](std::size_t, std::size_t) { calls += "progress "; },
                          [&](const std::string& piece) {
                              calls += piece;
                          }};
    EXPECT_EQ(options.lowSpeedLimit, 1);
    EXPECT_EQ(options.connectTimeout, 2);
    EXPECT_EQ(options.timeout, 3);
    EXPECT_TRUE(options.resume.first);
    EXPECT_EQ(options.resume.second, 4);
    EXPECT_EQ(options.lowSpeedTime, 5);
    EXPECT_EQ(options.proxy, "proxy");
    options.cancellationQuery();
    options.progressCallback(0, 0);
    options.dataCallback("data");
    EXPECT_EQ(calls, "query progress data");
}

TEST(Options, HaveTheirWidths) {
    EXPECT_EQ(sizeof(Options::lowSpeedLimit), 4u);
    EXPECT_EQ(sizeof(Options::connectTimeout), 4u);
    EXPECT_EQ(sizeof(Options::resume.second), 4u);
    EXPECT_EQ(sizeof(Options::lowSpeedTime), 8u);
    EXPECT_TRUE((std::is_same_v<decltype(Options::timeout), std::int64_t>));
}

TEST(Response, IsNothingSentByDefault) {
    const Response response;
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(response.body, "");
    EXPECT_TRUE(response.headers.empty());
    EXPECT_TRUE(response.cookies.empty());
    EXPECT_EQ(response.errorCode, 1001);
    EXPECT_EQ(response.errorText, "");
    EXPECT_EQ(response.effectiveUrl, "");
    EXPECT_EQ(response.contentType, "");
}

TEST(Response, KeepsItsOrder) {
    const Response response{1,     "body", {{"header", "1"}}, {{"cookie", "2"}}, 2, "error",
                            "url", "type"};
    EXPECT_EQ(response.status, 1);
    EXPECT_EQ(response.body, "body");
    EXPECT_EQ(response.headers, (Pairs{{"header", "1"}}));
    EXPECT_EQ(response.cookies, (Pairs{{"cookie", "2"}}));
    EXPECT_EQ(response.errorCode, 2);
    EXPECT_EQ(response.errorText, "error");
    EXPECT_EQ(response.effectiveUrl, "url");
    EXPECT_EQ(response.contentType, "type");
}

TEST(MultiPart, HoldsItsPartsFieldByField) {
    const MultiPart form{{{"name", "file", "type", "data"}, {}}};
    ASSERT_EQ(form.parts.size(), 2u);
    EXPECT_EQ(form.parts[0].name, "name");
    EXPECT_EQ(form.parts[0].fileName, "file");
    EXPECT_EQ(form.parts[0].contentType, "type");
    EXPECT_EQ(form.parts[0].data, "data");
    EXPECT_EQ(form.parts[1].name + form.parts[1].fileName, "");
    EXPECT_TRUE(MultiPart().parts.empty());
}

TEST(IHttpClient, IsAnInterfaceWithoutData) {
    EXPECT_TRUE(std::is_abstract_v<IHttpClient>);
    EXPECT_TRUE(std::has_virtual_destructor_v<IHttpClient>);
    EXPECT_EQ(sizeof(IHttpClient), sizeof(void*));
}

TEST(IHttpClient, KeepsTheOrderOfItsOperations) {
    using PostForm = Response (IHttpClient::*)(const Request&, const MultiPart&, const Options&);
    using PostBody = Response (IHttpClient::*)(const Request&, const std::string&, const Options&);
    const std::size_t behindTheDestructor = 2;
    EXPECT_EQ(Slot(&IHttpClient::get), behindTheDestructor);
    EXPECT_EQ(Slot<PostForm>(&IHttpClient::post), behindTheDestructor + 1);
    EXPECT_EQ(Slot<PostBody>(&IHttpClient::post), behindTheDestructor + 2);
}

} // namespace
} // namespace Halvex::Networking
