#include "Networking/StallDetector.h"

namespace Halvex::Networking {

bool StallDetector::IsStalled(Clock::time_point now, std::int64_t bytes) {
    if (m_bytesPerSecond <= 0 || m_time.count() <= 0)
        return false;
    const std::chrono::duration<double> elapsed = now - m_since;
    const auto gained = static_cast<double>(bytes - m_bytesThen);
    if (!m_begun || gained >= elapsed.count() * m_bytesPerSecond) {
        m_begun = true;
        m_since = now;
        m_bytesThen = bytes;
        return false;
    }
    return elapsed >= m_time;
}

} // namespace Halvex::Networking
