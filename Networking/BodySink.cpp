#include "Networking/BodySink.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Halvex::Networking {

namespace {

/// curl hands over at most 16 KiB at a time, and each piece that is handed on becomes a write.
constexpr std::size_t kPieceBytes = 256 * 1024;

} // namespace

bool BodySink::Take(std::string_view bytes) {
    const auto room = static_cast<std::uint64_t>(m_end - m_received);
    const bool fits = bytes.size() <= room;
    bytes = bytes.substr(0, room);
    m_received += static_cast<std::int64_t>(bytes.size());
    if (!m_options.dataCallback) {
        m_body.append(bytes);
        return fits;
    }
    if (m_pending.empty())
        m_pending.reserve(bytes.size() + std::min(kPieceBytes, BytesToCome()));
    m_pending.append(bytes);
    if (m_pending.size() >= kPieceBytes)
        Flush();
    return fits;
}

std::size_t BodySink::BytesToCome() const {
    const std::int64_t end = std::min(m_end, m_total.value_or(m_end));
    return static_cast<std::size_t>(std::max<std::int64_t>(end - m_received, 0));
}

void BodySink::Flush() {
    if (!m_pending.empty())
        m_options.dataCallback(std::exchange(m_pending, {}));
}

void BodySink::ReportProgress() {
    if (!m_options.progressCallback || m_reported == m_received)
        return;
    m_reported = m_received;
    m_options.progressCallback(static_cast<std::size_t>(m_received),
                               m_total ? static_cast<std::size_t>(*m_total)
                                       : std::numeric_limits<std::size_t>::max());
}

} // namespace Halvex::Networking
