#include "integration/HostileBehaviours.h"

#include "support/Sanitizers.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <utility>

namespace Halvex::Testing {

namespace {

using namespace std::chrono_literals;
using Prepare = std::function<void(Scene&)>;
using Rows = std::vector<Behaviour>;

constexpr std::size_t kSize = 100'000;
/// The resource when it has changed.
const std::string& NewBody() {
    static const std::string body = GeneratedBytes(0, kSize, 5);
    return body;
}
/// Short enough to be sent byte by byte.
const std::string& ShortBody() {
    static const std::string body = GeneratedBytes(0, 30, 6);
    return body;
}

constexpr const char* kTag = "\"1\"";

// What it takes

constexpr std::chrono::seconds kConnectLimit(5);
/// What a slow and loaded machine may need. It tells no rows apart: what is not to end them comes
/// later still.
constexpr std::chrono::seconds kSoon(25);
/// What gibibytes may need.
constexpr std::chrono::seconds kGibibytes(600);
constexpr std::uint64_t kMebibyte = 1024 * 1024;

constexpr Bounds From(std::chrono::milliseconds least, std::uint64_t mebibytes = 16) {
    return {least, kSoon, mebibytes * kMebibyte};
}

struct PaceInWords {
    Pace pace;
    const char* when;
    const char* cause;
    Bounds bounds;
};
constexpr std::array kPaces{
    // One row has a page of 10 MB, one that ends at the time-out a body of more than 12 MiB.
    PaceInWords{Pace::Prompt, "at once", "the server", From(0ms, 32)},
    PaceInWords{Pace::Large,
                "with its bytes",
                "the server, after gibibytes",
                {0ms, kGibibytes, 16 * kMebibyte}},
    PaceInWords{Pace::ConnectLimit, "connect limit", "the limit for connecting",
                From(kConnectLimit)},
    PaceInWords{Pace::StallLimit, "stall limit", "the limit for slow transfers", From(kStallLimit)},
    PaceInWords{Pace::Timeout, "time-out", "the time-out for the whole request",
                From(kTimeout, 12)},
    PaceInWords{Pace::LateTimeout, "late time-out",
                "that time-out, but the client listens and gathers for some seconds more",
                From(kTimeout, 128)},
    PaceInWords{Pace::TimeoutAtLast, "time-out at last",
                "the server or that time-out, as it happens", From(0ms)},
};
const PaceInWords& InWords(Pace pace) {
    return *std::find_if(kPaces.begin(), kPaces.end(),
                         [&](const PaceInWords& candidate) { return candidate.pace == pace; });
}

// What becomes of a download

Outcomes Ends(std::vector<End> ends, std::size_t requests = 1) {
    return {std::move(ends), requests, requests};
}
Outcomes Whole(std::size_t requests = 1) {
    return Ends({End::Whole}, requests);
}
Outcomes LargeAndWhole() {
    return {{End::Whole}, 1, 1, Pace::Large};
}
Outcomes Failed(std::size_t requests = 1) {
    return Ends({End::Failed}, requests);
}
Outcomes Lost(std::size_t requests = 1) {
    return Ends({End::Lost}, requests);
}
Outcomes Stalled(std::size_t requests = 1) {
    return {{End::Lost}, requests, requests, Pace::StallLimit};
}
Outcomes TimedOut(std::size_t requests = 1) {
    return {{End::Cancelled}, requests, requests, Pace::Timeout};
}
Outcomes TimedOutLate() {
    return {{End::Cancelled}, 1, 1, Pace::LateTimeout};
}

/// With Qt: it asks up to three times more when the connection ends.
Outcomes Repeated(Outcomes outcomes) {
    outcomes.mostRequests = 4 * outcomes.fewestRequests;
    return outcomes;
}

// What a server says

/// An answer with these header lines, and then the bytes as they are.
Reply Answer(const std::string& headerLines, const std::string& bytes = HonestBody()) {
    return Reply::Raw("HTTP/1.1 200 OK\r\n" + headerLines + "\r\n" + bytes);
}
/// An answer in chunks that are given as they are sent.
Reply Chunks(const std::string& chunks) {
    return Answer("Transfer-Encoding: chunked\r\n", chunks);
}
std::string Chunk(const std::string& bytes, const std::string& extension = {}) {
    std::array<char, 20> size{};
    std::snprintf(size.data(), size.size(), "%zx", bytes.size());
    return size.data() + extension + "\r\n" + bytes + "\r\n";
}
std::string LengthLine(std::size_t length = kSize) {
    return "Content-Length: " + std::to_string(length) + "\r\n";
}
std::string FirstHalf() {
    return HonestBody().substr(0, kSize / 2);
}
std::string SecondHalf() {
    return HonestBody().substr(kSize / 2);
}
/// A body that is lost half-way, and that a client may ask for the rest of.
Reply LostHalfWay() {
    return Reply::Ok(HonestBody()).Header("ETag", kTag).CutAfter(kSize / 2);
}
Reply Rest(std::string bytes, const std::string& range) {
    return Reply::Status(206, std::move(bytes))
        .Header("ETag", kTag)
        .Header("Content-Range", "bytes " + range);
}

// How it is set up

Prepare Says(std::vector<Reply> replies) {
    return [replies = std::move(replies)](Scene& scene) {
        scene.server.On("/file", replies);
    };
}
Prepare Says(const Reply& reply) {
    return Says(std::vector<Reply>{reply});
}
Prepare SaysRaw(const std::string& bytes) {
    return Says(Reply::Raw(bytes));
}
/// When the resource is another one.
Prepare Having(std::string whole, const Prepare& prepare) {
    return [whole = std::move(whole), prepare](Scene& scene) {
        scene.whole = whole;
        prepare(scene);
    };
}
/// /file leads there, and /to has the resource.
Prepare RedirectsTo(const std::string& location, int status = 302) {
    return [location, status](Scene& scene) {
        scene.server.On("/file", Reply::Redirect(location, status, "moved"));
        scene.server.On("/to", Reply::Ok(HonestBody()));
    };
}
Prepare SaysOverTls(const Reply& reply,
                    const ServerCertificate& certificate = TestAuthority::ForLoopback()) {
    return [reply, certificate](Scene& scene) {
        ScriptedHttpServer& server = scene.Secure(certificate);
        server.On("/file", reply);
        scene.baseUrl = server.Url("");
    };
}
/// Says this instead of taking part in a handshake.
Prepare SaysInTheHandshake(const Reply& reply) {
    return [reply](Scene& scene) {
        ScriptedHttpServer& server = scene.Secure(TestAuthority::ForLoopback());
        server.AnswerAnything(reply);
        scene.baseUrl = server.Url("");
    };
}
/// After another download over the same connection.
Prepare SaysAfter(const Reply& first, std::vector<Reply> replies) {
    return [first, replies = std::move(replies)](Scene& scene) {
        scene.server.On("/first", first);
        scene.server.On("/file", replies);
        scene.fetchesAnotherBefore = true;
    };
}
Prepare Has(const std::string& target, const std::string& path) {
    return [target, path](Scene& scene) {
        scene.server.On(target, Reply::Ok(HonestBody()));
        scene.path = path;
    };
}
Prepare Retrying(const Prepare& prepare) {
    return [prepare](Scene& scene) {
        prepare(scene);
        scene.retries = true;
    };
}

constexpr std::uint64_t kLarge = std::uint64_t{5} << 30;

Prepare Generates(std::uint64_t size, const Reply& reply) {
    return [=](Scene& scene) {
        scene.server.On("/file", reply);
        scene.generatedSize = size;
    };
}

// The table

Rows Lengths() {
    constexpr const char* kGroup = "The length of the body";
    return {
        {kGroup, "RightLength", "announces it rightly", Says(Reply::Ok(HonestBody())), Whole(),
         Whole()},
        {kGroup, "LengthTooSmall", "announces 5 bytes and sends more: the 5 are the resource",
         Having("hello", Says(Reply::Ok("hello and more").Announcing(5))), Whole(),
         Repeated(Whole())},
        {kGroup, "LengthTooLarge", "announces one byte more than it sends",
         Says(Reply::Ok(HonestBody()).Announcing(kSize + 1)), Lost(), Repeated(Failed())},
        {kGroup, "LengthOf5Gibibytes", "announces 5 GiB and ends early",
         Says(Reply::Ok(HonestBody()).Announcing(kLarge)), Lost(), Repeated(Failed())},
        {kGroup, "BodyOf5Gibibytes", "sends 5 GiB", Generates(kLarge, Reply::Generated(kLarge)),
         LargeAndWhole(), LargeAndWhole()},
        {kGroup, "BodyOf5GibibytesInChunks", "sends 5 GiB in chunks",
         Generates(kLarge, Reply::Generated(kLarge).Chunked()), LargeAndWhole(), LargeAndWhole()},
        {kGroup, "LengthBeyond64Bits", "announces more than 64 bits can count",
         Says(Answer("Content-Length: 99999999999999999999999\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthNegative", "announces a negative length",
         Says(Answer("Content-Length: -5\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthNoNumber", "announces a length that is no number",
         Says(Answer("Content-Length: many\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthHexadecimal", "announces 0x186a0",
         Says(Answer("Content-Length: 0x186a0\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthAndGarbage", "announces a number with garbage behind it",
         Says(Answer("Content-Length: 100000 bytes\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthWithPlus", "announces +100000", Says(Answer("Content-Length: +100000\r\n")),
         Failed(), Repeated(Whole())},
        {kGroup, "LengthEmpty", "announces nothing in a Content-Length",
         Says(Answer("Content-Length:\r\n")), Failed(), Repeated(Whole())},
        {kGroup, "LengthTwiceTheSame", "announces it twice, the same",
         Says(Answer(LengthLine() + LengthLine())), Whole(), Repeated(Whole())},
        {kGroup, "LengthTwiceAndTheFirstIsSmaller", "announces two lengths, the smaller one first",
         Says(Answer(LengthLine(50'000) + LengthLine())), Failed(), Repeated(Ends({End::Cut}))},
        {kGroup, "LengthTwiceAndTheFirstIsLarger", "announces two lengths, the larger one first",
         Says(Answer(LengthLine() + LengthLine(50'000))), Failed(), Repeated(Whole())},
        {kGroup, "LengthList", "announces a list of two equal lengths in one header",
         Says(Answer("Content-Length: 100000, 100000\r\n")), Whole(), Repeated(Whole())},
        {kGroup, "LengthZeroBeforeABody", "announces 0 and sends a body: nothing is the resource",
         Having("", Says(Answer(LengthLine(0)))), Whole(), Repeated(Whole())},
        {kGroup, "LengthBesideChunks", "announces a length that is wrong, and sends chunks",
         Says(Answer(LengthLine(5) + "Transfer-Encoding: chunked\r\n",
                     Chunk(HonestBody()) + Chunk(""))),
         Whole(), Repeated(Whole())},
        {kGroup, "LengthBesideIdentity", "announces it beside the transfer coding \"identity\"",
         Says(Answer(LengthLine() + "Transfer-Encoding: identity\r\n")), Failed(),
         Repeated(Whole())},
        {kGroup, "LengthBesideIdentityAndTheBodyCut",
         "announces it beside the transfer coding \"identity\", and cuts the body",
         Says(Answer(LengthLine() + "Transfer-Encoding: identity\r\n", FirstHalf())), Failed(),
         Repeated(Failed())},
        {kGroup, "LengthMissing", "announces none; the body ends with the connection",
         Says(Reply::Ok(HonestBody()).WithoutLength()), Whole(), Repeated(Whole())},
        {kGroup, "LengthMissingAndTheBodyCut", "announces none, and cuts the body: nobody can tell",
         Says(Reply::Ok(HonestBody()).WithoutLength().CutAfter(kSize / 2)), Ends({End::Cut}),
         Repeated(Ends({End::Cut}))},
        {kGroup, "LengthMissingAndTheConnectionReset", "announces none, and resets the connection",
         Says(Reply::Ok(HonestBody()).WithoutLength().ResetAfter(kSize / 2)), Lost(),
         Repeated(Ends({End::Cut}))},
    };
}

/// Where a connection ends.
struct Stage {
    std::string name;
    std::string words;
    /// What the server has sent until then.
    std::string sent;
    Outcomes qt;
    Outcomes nativeWhenCut = Lost();
};

Rows Cuts() {
    constexpr const char* kGroup = "Cut and reset connections";
    const std::string head = "HTTP/1.1 200 OK\r\n" + LengthLine();
    const std::string body = HonestBody();
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string chunks = chunked + Chunk(FirstHalf()) + Chunk(SecondHalf());
    const Outcomes failed = Repeated(Failed());
    // Of chunks that end early Qt makes what it happens to see first: the end of the connection, or
    // what came before it.
    const Outcomes failedOrEmpty = Repeated(Ends({End::Failed, End::Empty}));
    const Outcomes failedOrCut = Repeated(Ends({End::Failed, End::Cut}));
    const Outcomes failedOrWhole = Repeated(Ends({End::Failed, End::Whole}));
    const Outcomes failedOrEmptyOrTimedOut =
        Repeated({{End::Failed, End::Empty, End::Cancelled}, 1, 1, Pace::TimeoutAtLast});
    Rows rows;
    for (const Stage& at : std::vector<Stage>{
             {"BeforeTheStatusLine", "before the status line", "", failed},
             {"InTheStatusLine", "in the status line", head.substr(0, 10), failed},
             {"InTheHeaders", "in a header", head.substr(0, 20), failed},
             {"BeforeTheEmptyLine", "after the last header", head, failed},
             {"AfterTheHeaders", "between headers and body", head + "\r\n", failed},
             {"AfterTheFirstByte", "after the body's first byte", head + "\r\n" + body[0], failed},
             {"InMidBody", "in mid-body", head + "\r\n" + FirstHalf(), failed},
             {"BeforeTheLastByte", "before the body's last byte",
              head + "\r\n" + body.substr(0, kSize - 1), failed},
             {"BeforeTheFirstChunk", "before the first chunk", chunked, failedOrEmpty},
             {"InTheFirstChunkSize", "in the first chunk's size", chunked + "186",
              failedOrEmptyOrTimedOut},
             {"InAChunk", "in a chunk", chunked + Chunk(body).substr(0, kSize / 2), failedOrCut},
             {"BetweenChunks", "between two chunks", chunked + Chunk(FirstHalf()), failedOrCut},
             {"BeforeTheLastChunk", "before the last, empty chunk", chunks, failedOrWhole},
             {"InTheLastChunk", "in the last, empty chunk", chunks + "0", failedOrWhole},
             {"BeforeTheTrailersEnd", "after the last chunk's size", chunks + "0\r\n",
              failedOrWhole},
             // The last chunk has come, and no trailer can follow: nothing is missing.
             {"BeforeTheLastLineFeed", "before the last line feed", chunks + "0\r\n\r",
              failedOrWhole, Whole()},
         }) {
        const Reply cut = Reply::Raw(at.sent);
        rows.push_back(
            {kGroup, "Cut" + at.name, "cuts it " + at.words, Says(cut), at.nativeWhenCut, at.qt});
        rows.push_back({kGroup, "Reset" + at.name, "resets it " + at.words,
                        Says(Reply(cut).ResetAfter(at.sent.size())), Lost(), at.qt});
    }
    return rows;
}

Rows Chunkings() {
    constexpr const char* kGroup = "Chunks";
    const std::string end = Chunk("");
    return {
        {kGroup, "ChunksAsTheyShouldBe", "sends them as they should be",
         Says(Reply::Ok(HonestBody()).Chunked(1000)), Whole(), Whole()},
        {kGroup, "ChunksOfOneByte", "sends them of one byte each",
         Having(ShortBody(), Says(Reply::Ok(ShortBody()).Chunked(1))), Whole(), Whole()},
        {kGroup, "ChunkExtensions", "adds extensions to their sizes",
         Says(Chunks(Chunk(HonestBody(), ";a=b") + end)), Whole(), Repeated(Whole())},
        {kGroup, "ChunkTrailers", "adds trailers to the last one",
         Says(Chunks(Chunk(HonestBody()) + "0\r\nX-A: b\r\nX-B: c\r\n\r\n")), Whole(),
         Repeated(Whole())},
        {kGroup, "ChunkSizeWithZeros", "begins a size with zeros",
         Says(Chunks("000" + Chunk(HonestBody()) + end)), Whole(), Repeated(Whole())},
        {kGroup, "ChunkSizeNoNumber", "sends a size that is no number",
         Says(Chunks(Chunk(FirstHalf()) + "zz\r\n" + SecondHalf() + "\r\n" + end)), Lost(),
         Repeated(Ends({End::Cut}))},
        {kGroup, "ChunkSizeNegative", "sends a negative size",
         Says(Chunks(Chunk(FirstHalf()) + "-5\r\n" + SecondHalf() + "\r\n" + end)), Lost(),
         Repeated(Ends({End::Cut}))},
        {kGroup, "ChunkSizeMissing", "sends an empty line for a size",
         Says(Chunks(Chunk(FirstHalf()) + "\r\n" + SecondHalf() + "\r\n" + end)), Lost(),
         Repeated(Ends({End::Cut}))},
        {kGroup, "ChunkSizeOf64Bits", "sends the size 7fffffffffffffff, and little more",
         Says(Chunks("7fffffffffffffff\r\n" + HonestBody())), Lost(),
         Repeated(Ends({End::Failed, End::Whole}))},
        {kGroup, "ChunkSizeBeyond64Bits", "sends a size beyond 64 bits",
         Says(Chunks("fffffffffffffffffffff\r\n" + HonestBody())), Lost(),
         Repeated(Ends({End::Empty}))},
        {kGroup, "ChunkSizeTooLarge", "sends a size that is one too large",
         Says(Chunks("186a1\r\n" + HonestBody())), Lost(),
         Repeated(Ends({End::Failed, End::Whole}))},
        {kGroup, "ChunkSizeTooSmall", "sends a size that is too small",
         Says(Chunks("c350\r\n" + HonestBody() + "\r\n" + end)), Lost(),
         Repeated(Ends({End::Cut}))},
        {kGroup, "ChunkWithoutLineEnd", "leaves out the line end behind a chunk",
         Says(Chunks("c350\r\n" + FirstHalf() + "c350\r\n" + SecondHalf() + "\r\n" + end)), Lost(),
         Repeated(Ends({End::Cut}))},
        {kGroup, "ChunksAndMore", "sends more behind the last one",
         Says(Chunks(Chunk(HonestBody()) + end + "and more")), Whole(), Repeated(Whole())},
    };
}

Rows NoHttp() {
    constexpr const char* kGroup = "What is hardly HTTP";
    const std::string rest = LengthLine() + "\r\n" + HonestBody();
    return {
        {kGroup, "BodyWithoutHead", "sends the body alone, as HTTP/0.9 did", SaysRaw(HonestBody()),
         Failed(), Repeated(Failed())},
        {kGroup, "BinaryNoise", "sends binary noise",
         SaysRaw(GeneratedBytes(0, 1000, 7) + "\r\n\r\n"), Failed(), Repeated(Failed())},
        {kGroup, "AnotherProtocol", "greets as another protocol does",
         SaysRaw("SSH-2.0-OpenSSH_9.2\r\n"), Failed(), Repeated(Failed())},
        {kGroup, "TlsOnAPlainPort", "answers in TLS on a plain port",
         SaysRaw(std::string("\x15\x03\x03\x00\x02\x02\x28", 7)), Failed(), Repeated(Failed())},
        {kGroup, "StatusNoNumber", "sends a status that is no number",
         SaysRaw("HTTP/1.1 abc OK\r\n" + rest), Failed(), Repeated(Failed())},
        {kGroup, "StatusOfTwoDigits", "sends the status 99", SaysRaw("HTTP/1.1 99 OK\r\n" + rest),
         Failed(), Repeated(Whole())},
        {kGroup, "StatusOfFourDigits", "sends the status 2000",
         SaysRaw("HTTP/1.1 2000 OK\r\n" + rest), Failed(), Repeated(Failed())},
        {kGroup, "UnknownVersion", "calls itself HTTP/7.3", SaysRaw("HTTP/7.3 200 OK\r\n" + rest),
         Failed(), Repeated(Whole())},
        {kGroup, "Http10", "speaks HTTP/1.0", SaysRaw("HTTP/1.0 200 OK\r\n" + rest), Whole(),
         Repeated(Whole())},
        {kGroup, "LinesWithoutReturns", "ends its lines with line feeds alone",
         SaysRaw("HTTP/1.1 200 OK\nContent-Length: 100000\n\n" + HonestBody()), Whole(),
         Repeated(Whole())},
        {kGroup, "HeaderWithoutColon", "sends a header without a colon",
         Says(Answer("gibberish\r\n" + LengthLine())), Failed(), Repeated(Whole())},
        {kGroup, "HeaderWithZeroByte", "sends a header with a zero byte",
         Says(Answer(std::string("X-A: \0b\r\n", 9) + LengthLine())), Failed(), Repeated(Whole())},
        {kGroup, "HeaderLikeAStatusLine",
         "sends a header that looks like a status line, after a 404",
         SaysRaw("HTTP/1.1 404 Not Found\r\nHTTP/1.1 200 OK: x\r\n" + rest), Failed(),
         Repeated(Failed())},
        {kGroup, "HeadCutAfterALineOfBlanks", "cuts the headers after a line of blanks",
         SaysRaw("HTTP/1.1 200 OK\r\nX-A: b\r\n \r\n"), Lost(), Repeated(Failed())},
        {kGroup, "HeaderOverTwoLines", "sends a header over two lines",
         Says(Answer("X-A: b\r\n c\r\n" + LengthLine())), Whole(), Repeated(Whole())},
        {kGroup, "EmptyLineBefore", "begins with an empty line",
         SaysRaw("\r\nHTTP/1.1 200 OK\r\n" + rest), Failed(), Repeated(Whole())},
    };
}

Rows Statuses() {
    constexpr const char* kGroup = "Statuses";
    const auto page = [](int status) {
        return Says(Reply::Status(status, "a page"));
    };
    const std::string ok = "HTTP/1.1 200 OK\r\n" + LengthLine() + "\r\n" + HonestBody();
    return {
        {kGroup, "ContinueBefore", "sends a 100 before its answer",
         SaysRaw("HTTP/1.1 100 Continue\r\n\r\n" + ok), Whole(), Repeated(Whole())},
        {kGroup, "EarlyHintsBefore", "sends a 103 before its answer",
         SaysRaw("HTTP/1.1 103 Early Hints\r\nLink: </a>; rel=preload\r\n\r\n" + ok), Whole(),
         Repeated(Ends({End::Empty}))},
        {kGroup, "SwitchingProtocols", "sends a 101 unasked",
         SaysRaw("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: "
                 "Upgrade\r\n\r\n" +
                 ok),
         Lost(), Repeated(Ends({End::Empty}))},
        {kGroup, "EmptyBody", "sends 200 and an empty body", Having("", Says(Reply::Ok(""))),
         Whole(), Whole()},
        {kGroup, "Status201", "sends 201 and a body", Says(Reply::Status(201, HonestBody())),
         Failed(), Whole()},
        {kGroup, "Status202", "sends 202 and a page", page(202), Failed(), Ends({End::Other})},
        {kGroup, "Status203", "sends 203 and a body", Says(Reply::Status(203, HonestBody())),
         Whole(), Whole()},
        {kGroup, "Status204", "sends 204", page(204), Failed(), Ends({End::Empty})},
        {kGroup, "Status206", "sends 206 and a part, unasked",
         Says(Rest(FirstHalf(), "0-49999/100000")), Failed(), Ends({End::Cut})},
        {kGroup, "Status300", "sends 300 and a page", page(300), Failed(), Ends({End::Other})},
        {kGroup, "Status304", "sends 304 unasked", page(304), Failed(), Ends({End::Empty})},
        {kGroup, "Status400", "sends 400 and a page", page(400), Failed(), Failed()},
        {kGroup, "Status401", "sends 401 and asks for a password",
         Says(Reply::Status(401, "a page").Header("WWW-Authenticate", "Basic realm=\"a\"")),
         Failed(), Failed()},
        {kGroup, "Status403", "sends 403 and a page", page(403), Failed(), Failed()},
        {kGroup, "Status404", "sends 404 and a page", page(404), Failed(), Failed()},
        {kGroup, "Status407", "sends 407, though it is no proxy",
         Says(Reply::Status(407, "a page").Header("Proxy-Authenticate", "Basic realm=\"a\"")),
         Failed(), Failed()},
        {kGroup, "Status408", "sends 408 and ends the connection",
         Says(Reply::Status(408, "a page").ThenClose()), Failed(), Repeated(Failed())},
        {kGroup, "Status410", "sends 410 and a page", page(410), Failed(), Failed()},
        {kGroup, "Status416", "sends 416, though no range was asked for", page(416), Failed(),
         Failed()},
        {kGroup, "Status429", "sends 429 and asks to wait for an hour",
         Says(Reply::Status(429, "a page").Header("Retry-After", "3600")), Failed(), Failed()},
        {kGroup, "Status500", "sends 500 and a page", page(500), Failed(), Failed()},
        {kGroup, "Status502", "sends 502 and a page", page(502), Failed(), Failed()},
        {kGroup, "Status503", "sends 503 and asks to wait for an hour",
         Says(Reply::Status(503, "a page").Header("Retry-After", "3600")), Failed(), Failed()},
        {kGroup, "Status599", "sends 599 and a page", page(599), Failed(), Failed()},
        {kGroup, "ErrorPageCut", "sends 500 and cuts the page",
         Says(Reply::Status(500, HonestBody()).CutAfter(10)), Failed(), Repeated(Failed())},
        {kGroup, "Status503ThatPasses", "sends 503, then the file, to the scheduler that retries",
         Retrying(Says({Reply::Status(503), Reply::Ok(HonestBody())})), Whole(2), Whole(2)},
        {kGroup, "AnotherContentEachTime",
         "has another content at each request and cuts the first, with the scheduler that retries",
         Retrying(Having(
             NewBody(), Says({Reply::Ok(HonestBody()).CutAfter(kSize / 2), Reply::Ok(NewBody())}))),
         Whole(2), Repeated(Whole(2))},
    };
}

Rows Redirects() {
    constexpr const char* kGroup = "Redirects";
    return {
        {kGroup, "Redirect301", "sends 301", RedirectsTo("/to", 301), Whole(2), Whole(2)},
        {kGroup, "Redirect302", "sends 302", RedirectsTo("/to", 302), Whole(2), Whole(2)},
        {kGroup, "Redirect303", "sends 303", RedirectsTo("/to", 303), Whole(2), Whole(2)},
        {kGroup, "Redirect307", "sends 307", RedirectsTo("/to", 307), Whole(2), Whole(2)},
        {kGroup, "Redirect308", "sends 308", RedirectsTo("/to", 308), Whole(2), Whole(2)},
        {kGroup, "RedirectRelative", "names its target relatively, with dots",
         RedirectsTo("a/b/../../to"), Whole(2), Whole(2)},
        {kGroup, "RedirectWithoutScheme", "leaves the scheme out of its target",
         [](Scene& scene) { RedirectsTo(scene.server.Url("/to").substr(5))(scene); }, Whole(2),
         Whole(2)},
        {kGroup, "RedirectToAnotherServer", "sends to another server",
         [](Scene& scene) {
             ScriptedHttpServer& other = scene.others.emplace_back();
             other.On("/to", Reply::Ok(HonestBody()));
             scene.server.On("/file", Reply::Redirect(other.Url("/to")));
         },
         Whole(2), Whole(2)},
        {kGroup, "RedirectToTls", "sends from http to https",
         [](Scene& scene) {
             ScriptedHttpServer& other = scene.Secure(TestAuthority::ForLoopback());
             other.On("/to", Reply::Ok(HonestBody()));
             scene.server.On("/file", Reply::Redirect(other.Url("/to")));
         },
         Whole(2), Whole(2)},
        {kGroup, "RedirectFromTls", "sends from https to http",
         [](Scene& scene) {
             scene.server.On("/to", Reply::Ok(HonestBody()));
             SaysOverTls(Reply::Redirect(scene.server.Url("/to")))(scene);
         },
         Failed(), Failed()},
        {kGroup, "RedirectToItself", "sends to itself", RedirectsTo("/file"), Failed(51),
         Failed(51)},
        {kGroup, "RedirectsInACircle", "sends in a circle of two",
         [](Scene& scene) {
             RedirectsTo("/to")(scene);
             scene.server.On("/to", Reply::Redirect("/file"));
         },
         Failed(51), Failed(51)},
        {kGroup, "RedirectWithoutTarget", "names no target", Says(Reply::Status(302, "moved")),
         Failed(), Failed()},
        {kGroup, "RedirectToAnEmptyTarget", "names an empty target", RedirectsTo(""), Failed(),
         Failed()},
        {kGroup, "RedirectToNonsense", "names a target that is no address",
         RedirectsTo("http://[:::]:99999/"), Failed(), Failed()},
        {kGroup, "RedirectToAFile", "sends to file:", RedirectsTo("file:///etc/passwd"), Failed(),
         Failed()},
        {kGroup, "RedirectToFtp", "sends to ftp:", RedirectsTo("ftp://127.0.0.1/file"), Failed(),
         Failed()},
        {kGroup, "RedirectToData", "sends to data:", RedirectsTo("data:text/plain,hello"), Failed(),
         Failed()},
        {kGroup, "RedirectToADeadPort", "sends to where nobody listens",
         [](Scene& scene) { RedirectsTo("http://" + scene.deadPort.Address() + "/to")(scene); },
         Lost(), Failed()},
        {kGroup, "RedirectToBlanks", "sends to a path with blanks",
         [](Scene& scene) {
             RedirectsTo("/a b")(scene);
             scene.server.On("/a%20b", Reply::Ok(HonestBody()));
         },
         Whole(2), Whole(2)},
        {kGroup, "RedirectWithALargePage", "sends 10 MB along with a redirect",
         [](Scene& scene) {
             RedirectsTo("/to")(scene);
             scene.server.On("/file", Reply::Redirect("/to", 302, std::string(10'000'000, 'a')));
         },
         Whole(2), Whole(2)},
        {kGroup, "RedirectWithACutPage", "cuts the page that comes with a redirect",
         [](Scene& scene) {
             RedirectsTo("/to")(scene);
             scene.server.On("/file", Reply::Redirect("/to", 302, HonestBody()).CutAfter(10));
         },
         Whole(2), Repeated(Ends({End::Failed, End::Whole}))},
        {kGroup, "RedirectToACutBody", "sends to a body that it cuts",
         [](Scene& scene) {
             RedirectsTo("/to")(scene);
             scene.server.On("/to", Reply::Ok(HonestBody()).CutAfter(kSize / 2));
         },
         Lost(2), Repeated(Failed(2))},
    };
}

Rows Floods() {
    constexpr const char* kGroup = "Floods";
    const std::string head = "HTTP/1.1 200 OK\r\n";
    std::string thousand;
    for (int i = 0; i < 1000; ++i)
        thousand += "X-" + std::to_string(i) + ": a value\r\n";
    return {
        {kGroup, "ThousandHeaders", "sends a thousand headers",
         Says(Answer(thousand + LengthLine())), Whole(), Repeated(Whole())},
        {kGroup, "HeaderOf200Kilobytes", "sends a header of 200 KB",
         Says(Answer("X-A: " + std::string(200'000, 'a') + "\r\n" + LengthLine())), Failed(),
         Repeated(Whole())},
        {kGroup, "EndlessHeaders", "sends headers without end",
         Says(Reply::Flood(head, "X-A: a value\r\n").Drip(16 * 1024, 1ms)), Lost(), TimedOutLate()},
        {kGroup, "EndlessHeader", "sends one header without end",
         Says(Reply::Flood(head + "X-A: ", "a").Drip(16 * 1024, 1ms)), Failed(), TimedOutLate()},
        {kGroup, "EndlessStatusLine", "sends a status line without end",
         Says(Reply::Flood("HTTP/1.1 200 ", "a").Drip(16 * 1024, 1ms)), Failed(), TimedOutLate()},
        {kGroup, "EndlessContinue", "sends 100 Continue without end",
         Says(Reply::Flood("", "HTTP/1.1 100 Continue\r\n\r\n").Drip(16 * 1024, 1ms)), Lost(),
         TimedOutLate()},
        {kGroup, "EndlessTrailers", "sends trailers without end",
         Having("hello",
                Says(Reply::Flood(head + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n",
                                  "X-A: a value\r\n")
                         .Drip(16 * 1024, 1ms))),
         Failed(), Whole()},
        {kGroup, "EndlessBody", "sends a body without end",
         Says(Reply::Flood(head + "\r\n", "a").Drip(16 * 1024, 1ms)), TimedOut(), TimedOut()},
        {kGroup, "EndlessErrorPage", "sends 404 and a page without end",
         Says(Reply::Flood("HTTP/1.1 404 Not Found\r\n\r\n", "a").Drip(16 * 1024, 1ms)), Failed(),
         TimedOut()},
        {kGroup, "EndlessChunkExtension", "sends a chunk's extension without end",
         Says(
             Reply::Flood(head + "Transfer-Encoding: chunked\r\n\r\n5;", "a").Drip(16 * 1024, 1ms)),
         Stalled(), TimedOutLate()},
    };
}

Rows Stalls() {
    constexpr const char* kGroup = "Slow and silent";
    const Reply answer = Answer(LengthLine());
    return {
        {kGroup, "SmallPieces", "sends a short body byte by byte",
         Having(ShortBody(), Says(Reply::Ok(ShortBody()).Drip(1, 2ms))), Whole(), Whole()},
        {kGroup, "SlowDrip", "sends 50 bytes a second", Says(Reply::Ok(HonestBody()).Drip(1, 20ms)),
         Stalled(), TimedOut()},
        {kGroup, "SlowDripInTheHeaders", "sends 50 bytes of header a second",
         Says(Answer("X-A: " + std::string(100'000, 'a') + "\r\n").Drip(1, 20ms)), Stalled(),
         TimedOut()},
        {kGroup, "SilenceFromTheStart", "says nothing", Says(Reply::Silence()), Stalled(),
         TimedOut()},
        {kGroup, "SilenceInTheStatusLine", "falls silent in the status line",
         Says(Reply(answer).StallAt(10)), Stalled(), TimedOut()},
        {kGroup, "SilenceInTheHeaders", "falls silent in the headers",
         Says(Reply(answer).StallAt(25)), Stalled(), TimedOut()},
        {kGroup, "SilenceAfterTheHeaders", "falls silent after the headers",
         Says(Reply::Ok(HonestBody()).StallAt(0)), Stalled(), TimedOut()},
        {kGroup, "SilenceInMidBody", "falls silent in mid-body",
         Says(Reply::Ok(HonestBody()).StallAt(kSize / 2)), Stalled(), TimedOut()},
        {kGroup, "SilenceBeforeTheLastByte", "falls silent before the last byte",
         Says(Reply::Ok(HonestBody()).StallAt(kSize - 1)), Stalled(), TimedOut()},
        {kGroup, "SilenceInAChunk", "falls silent between two chunks",
         Says(Reply::Ok(HonestBody()).Chunked().StallAt(kSize / 2)), Stalled(), TimedOut()},
        {kGroup, "SilenceBeforeTheLastChunk", "falls silent before the last, empty chunk",
         Says(Reply::Ok(HonestBody()).Chunked().StallAt(kSize)), Stalled(), TimedOut()},
        {kGroup, "SilenceWithoutLength", "falls silent where only the connection's end ends it",
         Says(Reply::Ok(HonestBody()).WithoutLength().StallAt(kSize)), Stalled(), TimedOut()},
        {kGroup, "SilenceAfterTheBody", "falls silent when all has been sent",
         Says(Reply::Ok(HonestBody()).StallAt(kSize)), Whole(), Whole()},
        {kGroup, "SilenceAfterContinue", "falls silent after a 100",
         Says(Reply::Raw("HTTP/1.1 100 Continue\r\n\r\n").StallAt(25)), Stalled(), TimedOut()},
        {kGroup, "SilenceAfterARedirect", "falls silent where a redirect leads",
         [](Scene& scene) {
             RedirectsTo("/to")(scene);
             scene.server.On("/to", Reply::Silence());
         },
         Stalled(2), TimedOut(2)},
        {kGroup,
         "SilenceThatIsMadeGood",
         "falls silent in mid-body, and sends the rest when asked",
         Says({Reply::Ok(HonestBody()).Header("ETag", kTag).StallAt(kSize / 2),
               Rest(SecondHalf(), "50000-99999/100000")}),
         {{End::Whole}, 2, 2, Pace::StallLimit},
         TimedOut()},
    };
}

Rows Resumptions() {
    constexpr const char* kGroup = "When it has cut a body with a strong ETag";
    const auto then = [](const Reply& reply) {
        return Says({LostHalfWay(), reply});
    };
    return {
        {kGroup, "RestAsAskedFor", "sends the rest", then(Rest(SecondHalf(), "50000-99999/100000")),
         Whole(2), Repeated(Failed())},
        {kGroup, "RestInPieces", "cuts the rest too, then sends what is left",
         Says({LostHalfWay(), Rest(SecondHalf(), "50000-99999/100000").CutAfter(10),
               Rest(HonestBody().substr(50'010), "50010-99999/100000")}),
         Whole(3), Repeated(Failed())},
        {kGroup, "RestOfUnknownTotal", "sends the rest and not how much there is in all",
         then(Rest(SecondHalf(), "50000-99999/*")), Lost(2), Repeated(Failed())},
        {kGroup, "RestIsTheWhole", "sends the whole again", then(Reply::Ok(HonestBody())), Lost(2),
         Repeated(Failed())},
        {kGroup, "RestOfAnotherVersion", "has another version, and sends it",
         then(Reply::Ok(NewBody()).Header("ETag", "\"2\"")), Lost(2), Repeated(Failed())},
        {kGroup, "RestShifted", "sends another part than the rest",
         then(Rest(HonestBody().substr(49'999), "49999-99999/100000")), Lost(2),
         Repeated(Failed())},
        {kGroup, "RestOfAnotherTotal", "sends the rest of a larger file",
         then(Rest(SecondHalf() + "more", "50000-100003/100004")), Lost(2), Repeated(Failed())},
        {kGroup, "RestWithoutRange", "sends 206 and not which part",
         then(Reply::Status(206, SecondHalf())), Lost(2), Repeated(Failed())},
        {kGroup, "RestRefused", "sends 416", then(Reply::Status(416, "a page")), Lost(2),
         Repeated(Failed())},
        {kGroup, "RestGone", "sends 404", then(Reply::Status(404, "a page")), Lost(2),
         Repeated(Failed())},
        {kGroup, "RestNeverComes", "cuts each further connection", then(Reply::Raw("")), Lost(4),
         Repeated(Failed())},
        {kGroup, "RestOfAWeakTag", "had named the version weakly",
         Says({Reply::Ok(HonestBody()).Header("ETag", "W/\"1\"").CutAfter(kSize / 2),
               Rest(SecondHalf(), "50000-99999/100000")}),
         Lost(), Repeated(Failed())},
    };
}

Rows Connections() {
    constexpr const char* kGroup = "Connections that are kept";
    const Reply ok = Reply::Ok(HonestBody());
    return {
        {kGroup, "ConnectionKept", "keeps it between two downloads", SaysAfter(ok, {ok}), Whole(),
         Whole()},
        {kGroup, "ConnectionClosedAfter", "closes it between two downloads, unannounced",
         SaysAfter(Reply::Ok(HonestBody()).CutAfter(kSize), {ok}), Whole(), Whole()},
        {kGroup, "ConnectionSilentAfter", "falls silent on it once it has answered",
         SaysAfter(Reply::Ok(HonestBody()).StallAt(kSize), {ok}), Stalled(0), Whole()},
        {kGroup, "ConnectionResetAtTheNextRequest", "resets it at the next request",
         SaysAfter(ok, {Reply::Raw("").ResetAfter(0), ok}), Whole(2), Repeated(Whole(2))},
        {kGroup, "ConnectionClosedAtTheNextRequest", "closes it at the next request",
         SaysAfter(ok, {Reply::Raw(""), ok}), Whole(2), Repeated(Whole(2))},
        {kGroup, "MoreThanTheFirstBody",
         "sends more than it has announced, at the end of the first",
         SaysAfter(Answer(LengthLine(), HonestBody() + "and more").KeepOpen(), {ok}), Whole(),
         Whole()},
        {kGroup, "AnswerToNobody", "sends an answer that nobody has asked for behind the first",
         SaysAfter(Answer(LengthLine(),
                          HonestBody() + "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwrong")
                       .KeepOpen(),
                   {ok}),
         Whole(), Whole()},
        {kGroup, "ConnectionDead", "does not listen",
         [](Scene& scene) { scene.baseUrl = "http://" + scene.deadPort.Address(); }, Lost(0),
         Failed(0)},
    };
}

Rows Codings() {
    constexpr const char* kGroup = "Content codings and addresses";
    return {
        {kGroup, "Gzip", "sends gzip, whether asked for or not",
         [](Scene& scene) {
             const std::string body = GeneratedBytes(0, 1000, 8);
             scene.server.On("/file", Reply::Gzip(body));
             scene.whole = GzipStored(body);
             scene.decoded = body;
         },
         Whole(), Ends({End::Decoded})},
        {kGroup, "GzipThatIsNone", "calls a body gzip that is none",
         Says(Reply::Ok(HonestBody()).Header("Content-Encoding", "gzip")), Whole(), Failed()},
        {kGroup, "UnknownCoding", "calls a body br-coded",
         Says(Reply::Ok(HonestBody()).Header("Content-Encoding", "br")), Whole(), Whole()},
        {kGroup, "GzipCut", "cuts a gzip body",
         [](Scene& scene) {
             scene.server.On("/file", Reply::Gzip(HonestBody()).CutAfter(kSize / 2));
             scene.whole = HonestBody();
         },
         Lost(), Repeated(Ends({End::Failed, End::Cut}))},
        {kGroup, "PathWithBlanks", "has a path with blanks", Has("/a%20b%20c", "a b c"), Whole(),
         Whole()},
        {kGroup, "PathWithUnicode", "has a path with letters beyond ASCII",
         Has("/%C3%A4%E2%82%AC", "\xC3\xA4\xE2\x82\xAC"), Whole(), Whole()},
        {kGroup, "PathWithEscapedPercent", "has a path with %25", Has("/a%25b", "a%25b"), Whole(),
         Whole()},
        {kGroup, "PathWithStrayPercent", "has a path with a percent sign that escapes nothing",
         Has("/a%25zz", "a%zz"), Whole(), Whole()},
        {kGroup, "PathWithEscapedHash", "has a path with %23", Has("/a%23b", "a%23b"), Whole(),
         Whole()},
        {kGroup, "PathWithHash", "has a file a, and a#b is asked for: what follows # is not sent",
         Has("/a", "a#b"), Whole(), Whole()},
        {kGroup, "PathWithQuery", "has a path with a query", Has("/a?b=c&d", "a?b=c&d"), Whole(),
         Whole()},
    };
}

Rows OverTls() {
    constexpr const char* kGroup = "TLS";
    const std::string chunks = Chunk(FirstHalf()) + Chunk(SecondHalf());
    return {
        {kGroup, "TlsAsItShouldBe", "does all as it should", SaysOverTls(Reply::Ok(HonestBody())),
         Whole(), Whole()},
        {kGroup, "CertificateSelfSigned", "shows a certificate that it has signed itself",
         SaysOverTls(Reply::Ok(HonestBody()), TestAuthority::SelfSigned()), Failed(0), Failed(0)},
        {kGroup, "CertificateExpired", "shows one that has expired",
         SaysOverTls(Reply::Ok(HonestBody()), TestAuthority::Expired()), Failed(0), Failed(0)},
        {kGroup, "CertificateForAnotherHost", "shows one for another host",
         SaysOverTls(Reply::Ok(HonestBody()), TestAuthority::ForAnotherHost()), Failed(0),
         Failed(0)},
        {kGroup, "CertificateOfAnUnknownAuthority", "shows one of an authority that nobody trusts",
         [](Scene& scene) {
             SaysOverTls(Reply::Ok(HonestBody()))(scene);
             scene.trusts = false;
         },
         Failed(0), Failed(0)},
        {kGroup, "HandshakeCut", "cuts the handshake", SaysInTheHandshake(Reply::Raw("")), Lost(0),
         Failed(0)},
        {kGroup, "HandshakeReset", "resets the connection in the handshake",
         SaysInTheHandshake(Reply::Raw("").ResetAfter(0)), Lost(0), Failed(0)},
        {kGroup, "HandshakeCutInARecord", "cuts the handshake in the middle of a record",
         SaysInTheHandshake(Reply::Raw(std::string("\x16\x03\x03\x00\x7a\x02\x00", 7))), Lost(0),
         Failed(0)},
        {kGroup, "HandshakeRefused", "refuses the handshake with an alert",
         SaysInTheHandshake(Reply::Raw(std::string("\x15\x03\x03\x00\x02\x02\x28", 7))), Failed(0),
         Failed(0)},
        {kGroup, "HandshakeInPlainHttp", "answers the handshake in plain HTTP",
         SaysInTheHandshake(Reply::Status(400, "a page")), Failed(0), Failed(0)},
        {kGroup,
         "HandshakeSilent",
         "falls silent in the handshake",
         SaysInTheHandshake(Reply::Silence()),
         {{End::Lost}, 0, 0, Pace::ConnectLimit},
         TimedOut(0)},
        {kGroup, "TlsCutInMidBody", "cuts the connection in mid-body",
         SaysOverTls(Reply::Ok(HonestBody()).CutAfter(kSize / 2).WithoutGoodbye()), Lost(),
         Repeated(Failed())},
        {kGroup, "TlsResetInMidBody", "resets the connection in mid-body",
         SaysOverTls(Reply::Ok(HonestBody()).ResetAfter(kSize / 2)), Lost(), Repeated(Failed())},
        {kGroup, "TlsCutBeforeTheStatusLine", "cuts the connection before the status line",
         SaysOverTls(Reply::Raw("").WithoutGoodbye()), Lost(), Repeated(Failed())},
        {kGroup, "TlsCutInAChunk", "cuts the connection in a chunk",
         SaysOverTls(Chunks(Chunk(HonestBody())).CutAfter(kSize / 2).WithoutGoodbye()), Lost(),
         Repeated(Ends({End::Failed, End::Cut}))},
        {kGroup, "TlsCutWithoutLength", "cuts a body without a length",
         SaysOverTls(Reply::Ok(HonestBody()).WithoutLength().CutAfter(kSize / 2).WithoutGoodbye()),
         Lost(), Repeated(Ends({End::Cut}))},
        {kGroup, "TlsEndWithoutLength", "ends a body without a length, in an orderly way",
         SaysOverTls(Reply::Ok(HonestBody()).WithoutLength()), Whole(), Repeated(Whole())},
        {kGroup, "TlsSilenceInMidBody", "falls silent in mid-body",
         SaysOverTls(Reply::Ok(HonestBody()).StallAt(kSize / 2)), Stalled(), TimedOut()},
    };
}

// The document

const char* WordsFor(End end) {
    switch (end) {
    case End::Whole:
        return "whole";
    case End::Decoded:
        return "decoded";
    case End::Empty:
        return "**empty file**";
    case End::Cut:
        return "**cut file**";
    case End::Other:
        return "**other file**";
    case End::Failed:
        return "GeneralError";
    case End::Lost:
        return "InternetConnectionLost";
    case End::Cancelled:
        return "Cancelled";
    }
    return "?";
}

std::string Seconds(std::chrono::milliseconds duration) {
    std::ostringstream text;
    text << static_cast<double>(duration.count()) / 1000;
    return text.str();
}

std::string WordsFor(const Outcomes& outcomes) {
    std::string words;
    for (const End end : outcomes.ends)
        words += (words.empty() ? "" : " or ") + std::string(WordsFor(end));
    words += std::string(" | ") + InWords(outcomes.pace).when + " | " +
             std::to_string(outcomes.fewestRequests);
    if (outcomes.mostRequests != outcomes.fewestRequests)
        words += " to " + std::to_string(outcomes.mostRequests);
    return words;
}

} // namespace

const std::string& HonestBody() {
    static const std::string body = GeneratedBytes(0, kSize, 4);
    return body;
}

std::size_t Scene::RequestCount() const {
    std::size_t count = server.Requests().size();
    for (const ScriptedHttpServer& other : others)
        count += other.Requests().size();
    return count;
}

const std::vector<Behaviour>& AllBehaviours() {
    static const Rows all = [] {
        Rows rows;
        for (const auto& group : {Lengths, Cuts, Chunkings, NoHttp, Statuses, Redirects, Floods,
                                  Stalls, Resumptions, Connections, Codings, OverTls}) {
            Rows more = group();
            std::move(more.begin(), more.end(), std::back_inserter(rows));
        }
        return rows;
    }();
    return all;
}

Bounds BoundsOf(Pace pace) {
    Bounds bounds = InWords(pace).bounds;
    if (kSanitized)
        bounds.memoryBytes = 128 * kMebibyte;
    return bounds;
}

std::string BehavioursInMarkdown() {
    std::ostringstream text;
    text << "\n| when | what ends the download | seconds | memory |\n|---|---|---|---|\n";
    for (const auto& [pace, when, cause, bounds] : kPaces)
        text << "| " << when << " | " << cause << " | " << Seconds(bounds.least) << " to "
             << Seconds(bounds.most) << " | " << bounds.memoryBytes / kMebibyte << " MiB |\n";
    std::string group;
    for (const Behaviour& behaviour : AllBehaviours()) {
        if (group != behaviour.group) {
            group = behaviour.group;
            text
                << "\n### " << group
                << "\n\n| the server... | native | when | requests | Qt | when | requests | row |\n"
                   "|---|---|---|---|---|---|---|---|\n";
        }
        text << "| " << behaviour.words << " | " << WordsFor(behaviour.native) << " | "
             << WordsFor(behaviour.qt) << " | `" << behaviour.name << "` |\n";
    }
    text << '\n';
    return text.str();
}

std::ostream& operator<<(std::ostream& stream, End end) {
    return stream << WordsFor(end);
}

} // namespace Halvex::Testing
