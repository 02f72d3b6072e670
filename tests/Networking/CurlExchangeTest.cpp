#include "Networking/CurlExchange.h"

#include <gtest/gtest.h>

namespace Halvex::Networking {
namespace {

TEST(ToErrorCode, HasACodeForEachEnd) {
    EXPECT_EQ(ToErrorCode(ExchangeEnd::Complete), 0);
    EXPECT_EQ(ToErrorCode(ExchangeEnd::NoConnect), 3);
    EXPECT_EQ(ToErrorCode(ExchangeEnd::Failed), 4);
    EXPECT_EQ(ToErrorCode(ExchangeEnd::Lost), 8);
    EXPECT_EQ(ToErrorCode(ExchangeEnd::Stopped), 15);
    EXPECT_EQ(ToErrorCode(ExchangeEnd::NotSent), 1001);
}

struct Row {
    CURLcode code;
    bool connected;
    ExchangeEnd end;
};

class ToExchangeEndTest : public testing::TestWithParam<Row> {};

TEST_P(ToExchangeEndTest, TellsWhatCurlsResultMeans) {
    EXPECT_EQ(ToExchangeEnd(GetParam().code, GetParam().connected), GetParam().end)
        << curl_easy_strerror(GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ToExchangeEndTest,
    testing::Values(Row{CURLE_OK, true, ExchangeEnd::Complete},
                    Row{CURLE_COULDNT_RESOLVE_PROXY, false, ExchangeEnd::NoConnect},
                    Row{CURLE_COULDNT_RESOLVE_HOST, false, ExchangeEnd::NoConnect},
                    Row{CURLE_COULDNT_CONNECT, false, ExchangeEnd::NoConnect},
                    Row{CURLE_PROXY, false, ExchangeEnd::NoConnect},
                    Row{CURLE_OPERATION_TIMEDOUT, false, ExchangeEnd::NoConnect},
                    Row{CURLE_OPERATION_TIMEDOUT, true, ExchangeEnd::NoConnect},
                    Row{CURLE_SEND_ERROR, false, ExchangeEnd::NoConnect},
                    Row{CURLE_SEND_ERROR, true, ExchangeEnd::Lost},
                    Row{CURLE_RECV_ERROR, false, ExchangeEnd::NoConnect},
                    Row{CURLE_RECV_ERROR, true, ExchangeEnd::Lost},
                    Row{CURLE_PARTIAL_FILE, true, ExchangeEnd::Lost},
                    Row{CURLE_GOT_NOTHING, true, ExchangeEnd::Lost},
                    Row{CURLE_HTTP2, true, ExchangeEnd::Lost},
                    Row{CURLE_HTTP2_STREAM, true, ExchangeEnd::Lost},
                    Row{CURLE_PEER_FAILED_VERIFICATION, false, ExchangeEnd::Failed},
                    Row{CURLE_SSL_CONNECT_ERROR, false, ExchangeEnd::Failed},
                    Row{CURLE_UNSUPPORTED_PROTOCOL, true, ExchangeEnd::Failed},
                    Row{CURLE_WEIRD_SERVER_REPLY, true, ExchangeEnd::Failed},
                    Row{CURLE_OUT_OF_MEMORY, true, ExchangeEnd::Failed}));

TEST(IsCutHandshake, KnowsAConnectionThatWentAway) {
    EXPECT_TRUE(IsCutHandshake(CURLE_SSL_CONNECT_ERROR,
                               "OpenSSL SSL_connect: SSL_ERROR_SYSCALL in connection to host:1"));
    EXPECT_TRUE(IsCutHandshake(CURLE_SSL_CONNECT_ERROR,
                               "OpenSSL SSL_connect: Connection reset by peer in connection"));
    EXPECT_TRUE(IsCutHandshake(CURLE_SSL_CONNECT_ERROR, "SSL routines::unexpected eof"));
}

TEST(IsCutHandshake, KnowsWhatTlsItselfRefused) {
    EXPECT_FALSE(IsCutHandshake(CURLE_SSL_CONNECT_ERROR, "SSL routines::wrong version number"));
    EXPECT_FALSE(IsCutHandshake(CURLE_PEER_FAILED_VERIFICATION, "SSL_ERROR_SYSCALL"));
}

class StopQueryTest : public testing::Test {
protected:
    StopQueryTest() {
        m_options.timeout = 3'600'000'000;
        m_options.cancellationQuery = [this] {
            ++m_asked;
            return m_cancel;
        };
    }

    Options m_options;
    int m_asked = 0;
    bool m_cancel = false;
};

TEST_F(StopQueryTest, AsksTheQuery) {
    StopQuery stop(m_options);
    EXPECT_EQ(stop.Ask(), StopQuery::Answer::GoOn);
    m_cancel = true;
    EXPECT_EQ(stop.Ask(), StopQuery::Answer::Cancelled);
}

TEST_F(StopQueryTest, DoesNotAskAgainBeforeItIsDue) {
    m_cancel = true;
    StopQuery stop(m_options);
    stop.Ask();
    EXPECT_EQ(stop.AskIfDue(), StopQuery::Answer::GoOn);
    EXPECT_EQ(m_asked, 1);
    EXPECT_LE(stop.NextIn(), StopQuery::kInterval);
}

TEST_F(StopQueryTest, NeedsNoQuery) {
    m_options.cancellationQuery = nullptr;
    EXPECT_EQ(StopQuery(m_options).Ask(), StopQuery::Answer::GoOn);
}

TEST_F(StopQueryTest, HasNoTimeForATimeoutOfZeroOrLess) {
    m_options.timeout = 0;
    EXPECT_EQ(StopQuery(m_options).Ask(), StopQuery::Answer::TimedOut);
    m_options.timeout = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(StopQuery(m_options).Ask(), StopQuery::Answer::TimedOut);
}

TEST_F(StopQueryTest, PrefersTheQueryToTheClock) {
    m_options.timeout = 0;
    m_cancel = true;
    EXPECT_EQ(StopQuery(m_options).Ask(), StopQuery::Answer::Cancelled);
}

TEST_F(StopQueryTest, TakesAHugeTimeoutForAVeryLongOne) {
    m_options.timeout = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(StopQuery(m_options).Ask(), StopQuery::Answer::GoOn);
}

} // namespace
} // namespace Halvex::Networking
