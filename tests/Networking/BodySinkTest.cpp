#include "Networking/BodySink.h"

#include <gmock/gmock.h>

#include <limits>

namespace Halvex::Networking {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class BodySinkTest : public testing::Test {
protected:
    BodySinkTest() {
        m_options.dataCallback = [this](std::string piece) {
            m_pieces.push_back(piece);
        };
        m_options.progressCallback = [this](std::size_t received, std::size_t total) {
            m_progress.emplace_back(received, total);
        };
    }

    Options m_options;
    std::string m_body;
    std::vector<std::string> m_pieces;
    std::vector<std::pair<std::size_t, std::size_t>> m_progress;
    BodySink m_sink{m_options, m_body};
};

TEST_F(BodySinkTest, GathersSmallPieces) {
    m_sink.Take("a");
    m_sink.Take("b");
    EXPECT_THAT(m_pieces, IsEmpty());
    m_sink.Flush();
    EXPECT_THAT(m_pieces, ElementsAre("ab"));
    EXPECT_EQ(m_body, "");
}

TEST_F(BodySinkTest, HandsOnALargePieceAtOnce) {
    const std::string large(256 * 1024, 'x');
    m_sink.Take(large);
    EXPECT_THAT(m_pieces, ElementsAre(large));
}

TEST_F(BodySinkTest, TakesMemoryForWhatIsToComeUpToAPiece) {
    std::size_t capacity = 0;
    m_options.dataCallback = [&](const std::string& piece) {
        capacity = piece.capacity();
    };
    m_sink.SetTotal(3000);
    m_sink.Take(std::string(1000, 'x'));
    m_sink.Flush();
    EXPECT_EQ(capacity, 3000);

    m_sink.SetTotal(std::int64_t{1} << 40);
    m_sink.Take("a");
    m_sink.Flush();
    EXPECT_EQ(capacity, 256 * 1024 + 1);
}

TEST_F(BodySinkTest, TakesMemoryForWhatAPartMayBring) {
    std::size_t capacity = 0;
    m_options.dataCallback = [&](const std::string& piece) {
        capacity = piece.capacity();
    };
    m_sink.SetTotal(3000);
    m_sink.SetEnd(2000);
    m_sink.Take("a");
    m_sink.Flush();
    EXPECT_EQ(capacity, 2000);
}

TEST_F(BodySinkTest, HandsOnNothingTwice) {
    m_sink.Take("a");
    m_sink.Flush();
    m_sink.Flush();
    EXPECT_THAT(m_pieces, ElementsAre("a"));
}

TEST_F(BodySinkTest, FillsTheBodyWithoutADataCallback) {
    m_options.dataCallback = nullptr;
    m_sink.Take("a");
    m_sink.Take("b");
    m_sink.Flush();
    EXPECT_EQ(m_body, "ab");
}

TEST_F(BodySinkTest, CountsWhatHasArrived) {
    m_sink.Take("abc");
    EXPECT_EQ(m_sink.ReceivedBytes(), 3);
}

TEST_F(BodySinkTest, TakesAllUpToItsEnd) {
    m_sink.SetEnd(4);
    EXPECT_TRUE(m_sink.Take("ab"));
    EXPECT_TRUE(m_sink.Take("cd"));
    m_sink.Flush();
    EXPECT_THAT(m_pieces, ElementsAre("abcd"));
}

TEST_F(BodySinkTest, TakesNothingBeyondItsEnd) {
    m_sink.SetEnd(4);
    EXPECT_TRUE(m_sink.Take("abc"));
    EXPECT_FALSE(m_sink.Take("de"));
    EXPECT_FALSE(m_sink.Take("f"));
    m_sink.Flush();
    EXPECT_THAT(m_pieces, ElementsAre("abcd"));
    EXPECT_EQ(m_sink.ReceivedBytes(), 4);
}

TEST_F(BodySinkTest, PutsNothingBeyondItsEndIntoTheBody) {
    m_options.dataCallback = nullptr;
    m_sink.SetEnd(2);
    EXPECT_FALSE(m_sink.Take("abc"));
    EXPECT_EQ(m_body, "ab");
}

TEST_F(BodySinkTest, CountsItsEndFromTheResourcesFirstByte) {
    m_sink.SetEnd(2);
    EXPECT_FALSE(m_sink.Take("abc"));
    m_sink.SetEnd(4);
    EXPECT_FALSE(m_sink.Take("cde"));
    m_sink.Flush();
    EXPECT_THAT(m_pieces, ElementsAre("abcd"));
}

TEST_F(BodySinkTest, TakesEverythingWithoutAnEnd) {
    EXPECT_TRUE(m_sink.Take(std::string(1'000'000, 'x')));
    EXPECT_EQ(m_sink.ReceivedBytes(), 1'000'000);
}

TEST_F(BodySinkTest, ReportsProgressOnlyWhenItHasChanged) {
    m_sink.SetTotal(4);
    m_sink.ReportProgress();
    m_sink.Take("abc");
    m_sink.ReportProgress();
    m_sink.ReportProgress();
    m_sink.Take("d");
    m_sink.ReportProgress();
    EXPECT_THAT(m_progress, ElementsAre(Pair(3, 4), Pair(4, 4)));
}

TEST_F(BodySinkTest, NeverReportsZeroOfZero) {
    m_sink.SetTotal(0);
    m_sink.ReportProgress();
    EXPECT_THAT(m_progress, IsEmpty());
}

TEST_F(BodySinkTest, ReportsAnUnknownTotalAsTheLargestValue) {
    m_sink.Take("a");
    m_sink.ReportProgress();
    EXPECT_THAT(m_progress, ElementsAre(Pair(1, std::numeric_limits<std::size_t>::max())));
}

TEST_F(BodySinkTest, NeedsNoProgressCallback) {
    m_options.progressCallback = nullptr;
    m_sink.Take("a");
    m_sink.ReportProgress();
    EXPECT_THAT(m_progress, IsEmpty());
}

} // namespace
} // namespace Halvex::Networking
