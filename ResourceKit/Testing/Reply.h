#pragma once

#include "Foundation/Export.h"
#include "ResourceKit/Testing/Event.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Kit::Testing {

/// A part of a body that is computed, not stored: byte n depends on the seed and on n alone.
HALVEX_EXPORT std::string GeneratedBytes(std::uint64_t offset, std::size_t size,
                                         std::uint64_t seed = 1);

/// The gzip format of these bytes, as Reply::Gzip sends it: its blocks are stored as they are.
HALVEX_EXPORT std::string GzipStored(const std::string& body);

/// What the server answers to one request. Made by one of the static functions, then varied:
///
///     Reply::Ok("body").Header("ETag", "\"1\"").CutAfter(2)
///
/// Positions count the bytes of the body before any chunk framing; of a Raw reply, all its bytes.
/// The connection is kept for further requests when the client can tell where the reply ends, and
/// closed otherwise.
class HALVEX_EXPORT Reply {
public:
    /// 200 and a body with its Content-Length.
    static Reply Ok(std::string body);
    /// A body of GeneratedBytes, never held whole.
    static Reply Generated(std::uint64_t size, std::uint64_t seed = 1);
    /// The body in gzip coding, which is somewhat longer than the body itself.
    static Reply Gzip(const std::string& body);
    static Reply Status(int status, std::string body = {});
    static Reply Redirect(const std::string& location, int status = 302, std::string body = {});
    /// These bytes and nothing else, neither status line nor headers; then the connection ends.
    static Reply Raw(std::string bytes);
    /// The first bytes, then the others again and again until the client goes: Raw without end.
    static Reply Flood(std::string first, std::string repeated);
    /// Nothing at all, until the client goes.
    static Reply Silence();

    /// Adds a header; one that is there already then appears twice.
    Reply& Header(const std::string& name, const std::string& value) {
        m_headers.emplace_back(name, value);
        return *this;
    }
    /// Sends the body in chunks of this size, without Content-Length.
    Reply& Chunked(std::size_t chunkBytes = 16 * 1024) { return Set(m_chunkBytes, chunkBytes); }
    /// Leaves the Content-Length out: the body ends where the connection does.
    Reply& WithoutLength() { return Set(m_sendLength, false); }
    /// A Content-Length that need not be the truth. The connection ends after the body.
    Reply& Announcing(std::uint64_t length) { return Set(m_announced, length); }
    /// Ends the connection when so much has been sent, in an orderly way.
    Reply& CutAfter(std::uint64_t bytes) { return Set(m_cutAfter, bytes); }
    /// The same with a reset. The client may lose bytes that it has not read yet.
    Reply& ResetAfter(std::uint64_t bytes) { return CutAfter(bytes).Set(m_reset, true); }
    /// Sends so much, then nothing more until the event is set (it must outlive the server). It
    /// ends early when the client or the server goes; without an event only so.
    Reply& StallAt(std::uint64_t bytes) { return Set(m_stallAt, bytes); }
    Reply& StallAt(std::uint64_t bytes, Event& release) {
        return StallAt(bytes).Set(m_release, &release);
    }
    /// Sends pieces of this size with pauses between them.
    Reply& Drip(std::size_t pieceBytes, std::chrono::milliseconds pause) {
        return Set(m_pieceBytes, pieceBytes).Set(m_pause, pause);
    }
    /// Ends the connection after the reply, and says so in a header.
    Reply& ThenClose() { return Header("Connection", "close").Set(m_close, true); }
    /// Keeps the connection for further requests, whatever the reply says.
    Reply& KeepOpen() { return Set(m_keepOpen, true); }
    /// Over TLS: ends the connection without saying so first, as somebody who cuts it would.
    Reply& WithoutGoodbye() { return Set(m_goodbye, false); }

private:
    friend class ScriptedHttpServer;

    template <typename Member, typename Value>
    Reply& Set(Member& member, Value value) {
        member = value;
        return *this;
    }
    std::string Head() const;
    std::uint64_t BodySize() const;
    std::string BodyPart(std::uint64_t offset, std::size_t size) const;
    bool ClosesConnection() const;

    int m_status = 200;
    std::vector<std::pair<std::string, std::string>> m_headers;
    std::string m_body;
    /// Size and seed of a computed body; it stands in for m_body.
    std::optional<std::pair<std::uint64_t, std::uint64_t>> m_generated;
    bool m_raw = false;
    /// Not empty: follows m_body without end.
    std::string m_repeated;
    /// 0: not in chunks.
    std::size_t m_chunkBytes = 0;
    bool m_sendLength = true;
    std::optional<std::uint64_t> m_announced;
    std::optional<std::uint64_t> m_cutAfter;
    bool m_reset = false;
    std::optional<std::uint64_t> m_stallAt;
    Event* m_release = nullptr;
    std::size_t m_pieceBytes = 64 * 1024;
    std::chrono::milliseconds m_pause{0};
    bool m_close = false;
    bool m_keepOpen = false;
    bool m_goodbye = true;
};

} // namespace Halvex::Kit::Testing
