#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Halvex::Fetch {

/// Counts the bytes that arrive, for each bundle. Thread-safe.
class TransferMeter {
public:
    struct Count {
        /// Of all transfers, failed ones and repetitions included.
        std::atomic<std::uint64_t> received{0};
        /// Of the transfers that are under way.
        std::atomic<std::uint64_t> underWay{0};
    };

    explicit TransferMeter(std::size_t bundles) : m_counts(bundles) {}

    Count& Of(std::size_t bundle) { return m_counts[bundle]; }

private:
    std::vector<Count> m_counts;
};

} // namespace Halvex::Fetch
