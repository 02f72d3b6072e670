#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Halvex::Fetch {

/// Counts the bytes that arrive, for each bundle, and remembers whose did. Thread-safe.
class TransferMeter {
public:
    struct Count {
        /// Of all transfers, failed ones and repetitions included.
        std::atomic<std::uint64_t> received{0};
        /// Of the transfers that are under way.
        std::atomic<std::uint64_t> underWay{0};
    };

    TransferMeter(std::size_t bundles, std::size_t files) : m_counts(bundles), m_begun(files) {}

    Count& Of(std::size_t bundle) { return m_counts[bundle]; }

    void NoteBegin(std::size_t file) { m_begun[file] = true; }
    /// Whether a download of the file has ever begun.
    bool HasBegun(std::size_t file) const { return m_begun[file]; }

private:
    std::vector<Count> m_counts;
    std::vector<std::atomic<bool>> m_begun;
};

} // namespace Halvex::Fetch
