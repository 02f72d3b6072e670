#include "Networking/BodySink.h"

#include <limits>
#include <utility>

namespace Halvex::Networking {

namespace {

/// curl hands over at most 16 KiB at a time, and each piece that is handed on becomes a write.
constexpr std::size_t kPieceBytes = 256 * 1024;

} // namespace

void BodySink::Take(std::string_view bytes) {
    m_received += static_cast<std::int64_t>(bytes.size());
    if (!m_options.dataCallback) {
        m_body.append(bytes);
        return;
    }
    if (m_pending.empty())
        m_pending.reserve(kPieceBytes + bytes.size());
    m_pending.append(bytes);
    if (m_pending.size() >= kPieceBytes)
        Flush();
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
