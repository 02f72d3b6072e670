#include "Networking/ResponseHead.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace Halvex::Networking {
namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

ResponseHead Head(std::initializer_list<std::string> lines) {
    ResponseHead head;
    for (const std::string& line : lines)
        head.AddLine(line + "\r\n");
    return head;
}

ResponseHead HeadWith(std::initializer_list<std::string> fields) {
    ResponseHead head = Head({"HTTP/1.1 200 OK"});
    for (const std::string& field : fields)
        head.AddLine(field + "\r\n");
    head.AddLine("\r\n");
    return head;
}

TEST(ResponseHead, BeginsEmpty) {
    const ResponseHead head;
    EXPECT_EQ(head.Status(), 0);
    EXPECT_FALSE(head.IsComplete());
}

TEST(ResponseHead, ReadsTheStatusLine) {
    const ResponseHead head = Head({"HTTP/1.1 404 Not Found"});
    EXPECT_EQ(head.Status(), 404);
    EXPECT_EQ(head.StatusText(), "404 Not Found");
}

TEST(ResponseHead, ReadsAStatusLineWithoutAReason) {
    const ResponseHead head = Head({"HTTP/2 503 "});
    EXPECT_EQ(head.Status(), 503);
    EXPECT_EQ(head.StatusText(), "503");
}

TEST(ResponseHead, TakesAStatusThatIsNoNumberForNone) {
    EXPECT_EQ(Head({"HTTP/1.1 abc"}).Status(), 0);
    EXPECT_EQ(Head({"HTTP/1.1"}).Status(), 0);
}

TEST(ResponseHead, TellsWhetherTheBodyEndsWithTheConnection) {
    EXPECT_TRUE(HeadWith({"ETag: 1"}).EndsWithConnection());
    EXPECT_TRUE(Head({"HTTP/1.0 200 OK", ""}).EndsWithConnection());
    EXPECT_FALSE(HeadWith({"content-length: 5"}).EndsWithConnection());
    EXPECT_FALSE(HeadWith({"Transfer-Encoding: chunked"}).EndsWithConnection());
    EXPECT_FALSE(Head({"HTTP/2 200 ", ""}).EndsWithConnection());
}

TEST(ResponseHead, KnowsNoTransferCodingButChunks) {
    EXPECT_FALSE(HeadWith({}).HasUnknownCoding());
    EXPECT_FALSE(HeadWith({"transfer-encoding: Chunked"}).HasUnknownCoding());
    for (const char* coding : {"identity", "gzip", "gzip, chunked", "chunked, chunked", ""})
        EXPECT_TRUE(HeadWith({std::string("Transfer-Encoding: ") + coding}).HasUnknownCoding())
            << coding;
    EXPECT_TRUE(
        HeadWith({"Transfer-Encoding: identity", "Transfer-Encoding: chunked"}).HasUnknownCoding());
    EXPECT_TRUE(
        HeadWith({"Transfer-Encoding: chunked", "Transfer-Encoding: chunked"}).HasUnknownCoding());
}

TEST(ResponseHead, KeepsTheFieldsInOrder) {
    EXPECT_EQ(HeadWith({"A:  1 ", "b: 2:3", "A: 4"}).TakeHeaders(),
              (Fields{{"A", "1"}, {"b", "2:3"}, {"A", "4"}}));
}

TEST(ResponseHead, FindsTheFirstFieldInAnyCase) {
    const ResponseHead head = HeadWith({"Content-Type: text/plain", "content-type: other"});
    EXPECT_EQ(head.Find("CONTENT-TYPE"), "text/plain");
    EXPECT_EQ(head.Find("Content"), "");
}

TEST(ResponseHead, IsCompleteAfterTheEmptyLine) {
    ResponseHead head = Head({"HTTP/1.1 200 OK", "A: 1"});
    EXPECT_FALSE(head.IsComplete());
    head.AddLine("\r\n");
    EXPECT_TRUE(head.IsComplete());
}

TEST(ResponseHead, IsNotCompleteAfterALineOfBlanks) {
    ResponseHead head = Head({"HTTP/1.1 200 OK", "A: 1", " ", "\t", "Content-Length: 5"});
    EXPECT_FALSE(head.IsComplete());
    EXPECT_EQ(head.Find("Content-Length"), "5");
    head.AddLine("\n");
    EXPECT_TRUE(head.IsComplete());
}

TEST(ResponseHead, TakesNoFieldForAStatusLine) {
    const ResponseHead head =
        Head({"HTTP/1.1 404 Not Found", "Content-Length: 50", "HTTP/1.1 200 OK: x"});
    EXPECT_EQ(head.Status(), 404);
    EXPECT_EQ(head.Find("Content-Length"), "50");
    EXPECT_EQ(Head({"A: 1", "HTTP/1.1 200 OK"}).Status(), 0);
    EXPECT_EQ(Head({"HTTP/1.1 404 Not Found", "", "HTTP/1.1 200 OK"}).Status(), 404);
}

TEST(ResponseHead, HasAStatusTextFitForALog) {
    ResponseHead head = Head({"HTTP/1.1 404 a\x1b[1mb" + std::string(1000, 'c')});
    EXPECT_EQ(head.StatusText().substr(0, 10), "404 a?[1mb");
    EXPECT_EQ(head.StatusText().size(), 200u);
}

TEST(ResponseHead, BeginsAnewWithEachStatusLine) {
    ResponseHead head = Head({"HTTP/1.1 103 Early Hints", "A: 1", "", "HTTP/1.1 200 OK"});
    EXPECT_EQ(head.Status(), 200);
    EXPECT_TRUE(head.TakeHeaders().empty());
    EXPECT_FALSE(head.IsComplete());
}

TEST(ResponseHead, IgnoresTrailers) {
    ResponseHead head = HeadWith({"A: 1"});
    head.AddLine("Content-Length: 7\r\n");
    EXPECT_EQ(head.TakeHeaders(), (Fields{{"A", "1"}}));
}

TEST(ResponseHead, KnowsTheCookies) {
    EXPECT_EQ(
        HeadWith({"Set-Cookie: a=b; Path=/", "set-cookie: c = d=e", "Set-Cookie: none"}).Cookies(),
        (Fields{{"a", "b"}, {"c", "d=e"}}));
}

TEST(ResponseHead, BelievesALengthThatIsANumber) {
    EXPECT_FALSE(HeadWith({}).HasBrokenLength());
    EXPECT_FALSE(HeadWith({"Content-Length: 0"}).HasBrokenLength());
    EXPECT_FALSE(HeadWith({"Content-Length: 5368709120"}).HasBrokenLength());
}

TEST(ResponseHead, BelievesTheSameLengthTwice) {
    EXPECT_FALSE(HeadWith({"Content-Length: 7", "content-length: 7"}).HasBrokenLength());
    EXPECT_FALSE(HeadWith({"Content-Length: 7, 7"}).HasBrokenLength());
}

TEST(ResponseHead, DoesNotBelieveTwoLengths) {
    EXPECT_TRUE(HeadWith({"Content-Length: 7", "Content-Length: 8"}).HasBrokenLength());
    EXPECT_TRUE(HeadWith({"Content-Length: 7, 8"}).HasBrokenLength());
}

TEST(ResponseHead, DoesNotBelieveALengthThatIsNoNumber) {
    for (const char* length : {"", "-1", "+1", "1x", "x", "1 2", "0x10", "99999999999999999999"})
        EXPECT_TRUE(HeadWith({std::string("Content-Length: ") + length}).HasBrokenLength())
            << length;
}

TEST(ResponseHead, HoldsTheServerToAStrongEntityTag) {
    EXPECT_EQ(HeadWith({"ETag: \"v1\""}).StrongValidator(), "\"v1\"");
}

TEST(ResponseHead, DoesNotTrustAWeakEntityTag) {
    EXPECT_EQ(HeadWith({"ETag: W/\"v1\"", "Last-Modified: Sat, 21 Nov 2020 10:00:00 GMT",
                        "Date: Sat, 21 Nov 2026 10:00:00 GMT"})
                  .StrongValidator(),
              "");
}

TEST(ResponseHead, HoldsTheServerToAModificationTimeThatIsASecondOld) {
    EXPECT_EQ(HeadWith({"Last-Modified: Sat, 21 Nov 2026 10:00:00 GMT",
                        "Date: Sat, 21 Nov 2026 10:00:01 GMT"})
                  .StrongValidator(),
              "Sat, 21 Nov 2026 10:00:00 GMT");
}

TEST(ResponseHead, DoesNotTrustAModificationTimeOfTheSameSecond) {
    EXPECT_EQ(HeadWith({"Last-Modified: Sat, 21 Nov 2026 10:00:00 GMT",
                        "Date: Sat, 21 Nov 2026 10:00:00 GMT"})
                  .StrongValidator(),
              "");
}

TEST(ResponseHead, DoesNotTrustAModificationTimeWithoutADate) {
    EXPECT_EQ(HeadWith({"Last-Modified: Sat, 21 Nov 2026 10:00:00 GMT"}).StrongValidator(), "");
    EXPECT_EQ(HeadWith({"Last-Modified: soon", "Date: later"}).StrongValidator(), "");
}

TEST(ResponseHead, ReadsARange) {
    const auto range = HeadWith({"Content-Range: bytes 5-9/10"}).Range();
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, 5);
    EXPECT_EQ(range->total, 10);
}

TEST(ResponseHead, ReadsARangeOfAnUnknownTotal) {
    const auto range = HeadWith({"Content-Range: bytes 5-9/*"}).Range();
    ASSERT_TRUE(range);
    EXPECT_EQ(range->total, std::nullopt);
}

TEST(ResponseHead, ReadsNoRangeFromAnythingElse) {
    for (const char* range :
         {"", "bytes */10", "5-9/10", "items 5-9/10", "bytes 5/9-10", "bytes -9/10", "bytes x-9/10",
          "bytes 9-5/10", "bytes 5-9/9", "bytes 5-9223372036854775808/*"})
        EXPECT_FALSE(HeadWith({std::string("Content-Range: ") + range}).Range()) << range;
    EXPECT_FALSE(HeadWith({}).Range());
}

TEST(ResponseHead, ReadsARangeInAnyCase) {
    EXPECT_TRUE(HeadWith({"Content-Range: Bytes 5-9/10"}).Range());
}

TEST(ResponseHead, ReadsNoRangeThatTheRestContradicts) {
    const std::string range = "Content-Range: bytes 5-9/10";
    EXPECT_TRUE(HeadWith({range, "Content-Length: 5"}).Range());
    EXPECT_FALSE(HeadWith({range, "Content-Length: 6"}).Range());
    EXPECT_FALSE(HeadWith({range, "Content-Type: MultiPart/byteranges; boundary=x"}).Range());
    EXPECT_FALSE(HeadWith({range, "Transfer-Encoding: gzip"}).Range());
}

TEST(ResponseHead, ReadsTheLargestRange) {
    const std::string range = "Content-Range: bytes 0-9223372036854775807/*";
    EXPECT_TRUE(HeadWith({range}).Range());
    EXPECT_FALSE(HeadWith({range, "Content-Length: 9223372036854775807"}).Range());
}

} // namespace
} // namespace Halvex::Networking
