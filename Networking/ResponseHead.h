#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Halvex::Networking {

/// The status line and the header fields of a response, gathered line by line.
///
/// One thread at a time, caller synchronises.
class ResponseHead {
public:
    /// The part of a resource that a 206 brings.
    struct ContentRange {
        /// The first byte that it brings and the last one.
        std::int64_t first;
        std::int64_t last;
        /// The size of the whole resource in bytes; empty when the server did not tell.
        std::optional<std::int64_t> total;
    };

    /// Takes the next line, with or without its line end. After the end of a head with a status
    /// below 200 a status line begins anew, so that of several heads (100 Continue, 200 OK) the
    /// last one remains; anywhere else it is a field like others.
    void AddLine(std::string_view line);

    /// Whether the empty line at the end has come.
    bool IsComplete() const { return m_complete; }
    /// 0: none yet.
    std::int32_t Status() const { return m_status; }
    /// Such as "404 Not Found", fit for a log: not too long, and without control characters.
    const std::string& StatusText() const { return m_statusText; }
    /// The fields in their order, names as they came. Leaves none behind.
    std::vector<std::pair<std::string, std::string>> TakeHeaders() { return std::move(m_headers); }
    /// The cookies that the server sets, name and value.
    std::vector<std::pair<std::string, std::string>> Cookies() const;

    /// The value of the first field of that name, in any case; empty when there is none.
    std::string Find(std::string_view name) const;

    /// Whether the body's length is announced in a way that cannot be believed: not a number, or
    /// two numbers that differ.
    bool HasBrokenLength() const;
    /// Whether the body comes in another transfer coding than chunks. Where it ends is then known
    /// to nobody: curl heeds no Content-Length beside one.
    bool HasUnknownCoding() const;

    /// Whether only the end of the connection tells where the body ends. Not for an unknown coding.
    bool EndsWithConnection() const;

    /// What to put into If-Range so that only more of exactly this resource comes back: a strong
    /// entity tag, or a modification time that is old enough to be one. Empty: there is none.
    std::string StrongValidator() const;

    /// The part that this response brings, when it says so in a way that can be understood and
    /// that nothing else in the head contradicts.
    std::optional<ContentRange> Range() const;

private:
    bool m_begun = false;
    bool m_isHttp1 = false;
    std::int32_t m_status = 0;
    std::string m_statusText;
    std::vector<std::pair<std::string, std::string>> m_headers;
    bool m_complete = false;
};

} // namespace Halvex::Networking
