#include "ResourceKit/Testing/Reply.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <string_view>

namespace Halvex::Kit::Testing {

namespace {

/// The eight bytes at the n-th multiple of eight.
std::uint64_t Scramble(std::uint64_t n, std::uint64_t seed) {
    std::uint64_t word = (n + 1) * 0x9E3779B97F4A7C15u + seed * 0xD1B54A32D192ED03u;
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9u;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EBu;
    return word ^ (word >> 31);
}

std::string ReasonPhrase(int status) {
    static const std::map<int, std::string> kPhrases = {
        {200, "OK"},
        {204, "No Content"},
        {206, "Partial Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {416, "Range Not Satisfiable"},
        {500, "Internal Server Error"},
        {503, "Service Unavailable"},
    };
    const auto found = kPhrases.find(status);
    return found == kPhrases.end() ? "Status" : found->second;
}

bool HasNoBody(int status) {
    return status == 204 || status == 304;
}

void AppendLittleEndian(std::string& bytes, std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> (8 * i));
}

std::uint32_t Crc32(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320u : 0);
    }
    return ~crc;
}

} // namespace

std::string GzipStored(const std::string& body) {
    std::string bytes("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
    std::size_t offset = 0;
    do {
        const std::size_t size = std::min<std::size_t>(body.size() - offset, 0xFFFF);
        bytes += offset + size == body.size() ? '\1' : '\0';
        AppendLittleEndian(bytes, static_cast<std::uint32_t>(size), 2);
        AppendLittleEndian(bytes, ~static_cast<std::uint32_t>(size), 2);
        bytes.append(body, offset, size);
        offset += size;
    } while (offset < body.size());
    AppendLittleEndian(bytes, Crc32(body), 4);
    AppendLittleEndian(bytes, static_cast<std::uint32_t>(body.size()), 4);
    return bytes;
}

std::string GeneratedBytes(std::uint64_t offset, std::size_t size, std::uint64_t seed) {
    const std::size_t before = offset % 8;
    std::string bytes((before + size + 7) / 8 * 8, '\0');
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const std::uint64_t word = Scramble(offset / 8 + i / 8, seed);
        std::memcpy(&bytes[i], &word, sizeof(word));
    }
    return bytes.substr(before, size);
}

Reply Reply::Ok(std::string body) {
    return Status(200, std::move(body));
}

Reply Reply::Generated(std::uint64_t size, std::uint64_t seed) {
    Reply reply;
    reply.m_generated = {size, seed};
    return reply;
}

Reply Reply::Gzip(const std::string& body) {
    return Ok(GzipStored(body)).Header("Content-Encoding", "gzip");
}

Reply Reply::Status(int status, std::string body) {
    Reply reply;
    reply.m_status = status;
    reply.m_body = std::move(body);
    return reply;
}

Reply Reply::Redirect(const std::string& location, int status, std::string body) {
    return Status(status, std::move(body)).Header("Location", location);
}

Reply Reply::Raw(std::string bytes) {
    Reply reply;
    reply.m_raw = true;
    reply.m_body = std::move(bytes);
    return reply;
}

Reply Reply::Flood(std::string first, std::string repeated) {
    Reply reply = Raw(std::move(first));
    reply.m_repeated = std::move(repeated);
    return reply;
}

Reply Reply::Silence() {
    return Raw({}).StallAt(0);
}

std::string Reply::Head() const {
    if (m_raw)
        return {};
    std::string head =
        "HTTP/1.1 " + std::to_string(m_status) + " " + ReasonPhrase(m_status) + "\r\n";
    for (const auto& [name, value] : m_headers)
        head.append(name).append(": ").append(value).append("\r\n");
    if (m_chunkBytes != 0)
        head += "Transfer-Encoding: chunked\r\n";
    else if (m_sendLength && !HasNoBody(m_status))
        head += "Content-Length: " + std::to_string(m_announced.value_or(BodySize())) + "\r\n";
    return head + "\r\n";
}

std::uint64_t Reply::BodySize() const {
    if (HasNoBody(m_status))
        return 0;
    if (!m_repeated.empty())
        return std::numeric_limits<std::uint64_t>::max() - 1;
    return m_generated ? m_generated->first : m_body.size();
}

std::string Reply::BodyPart(std::uint64_t offset, std::size_t size) const {
    if (!m_repeated.empty()) {
        std::string part;
        if (offset < m_body.size())
            part = m_body.substr(offset, size);
        else
            part = m_repeated.substr((offset - m_body.size()) % m_repeated.size());
        while (part.size() < size)
            part += m_repeated;
        return part.substr(0, size);
    }
    return m_generated ? GeneratedBytes(offset, size, m_generated->second)
                       : m_body.substr(offset, size);
}

bool Reply::ClosesConnection() const {
    if (m_keepOpen)
        return false;
    const bool endIsTold = m_chunkBytes != 0 || m_sendLength || HasNoBody(m_status);
    return m_close || m_raw || m_announced || m_cutAfter || !endIsTold;
}

} // namespace Halvex::Kit::Testing
