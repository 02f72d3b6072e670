#pragma once

#include "ResourceDownloadManager/IRemoteResource.h"

#include <array>
#include <cstddef>

namespace Halvex::App {

/// The state of a bundle from those of its members, kept up to date in constant time per change.
///
/// The same as computing it from all members again: statuses and errors are counted, and the sum of
/// the progress is kept in integers, so that nothing is left behind by a value that has been taken
/// out, neither a rounding error nor one that was not a number.
///
/// One thread at a time, caller synchronises.
class AggregateState {
public:
    using State = IRemoteResource::State;

    /// Counts a member in. Its progress is a quotient of two unsigned 64-bit numbers: not negative,
    /// and at most 2^64, infinite or not a number.
    void Add(const State& member);
    /// Counts out a member that was counted in with exactly this state.
    void Remove(const State& member);

    /// The aggregated state. Requires: at least one member.
    State Result() const;

private:
    using Status = IRemoteResource::DownloadStatus;
    using Error = IRemoteResource::DownloadError;

    /// A sum of numbers that remembers nothing of those taken out again.
    class ExactSum {
    public:
        void Add(double value) { Count(value, 1); }
        void Remove(double value) { Count(value, -1); }
        double Value() const;

    private:
        __extension__ using Integer = __int128;

        static Integer ToInteger(double whole);
        static double ToDouble(Integer value);
        void Count(double value, int sign);

        Integer m_wholes = 0;
        /// In units of 2^-100: values down to 2^-48 are exact, and a hundred million of them fit.
        Integer m_fractions = 0;
        std::ptrdiff_t m_notNumbers = 0;
        std::ptrdiff_t m_infinities = 0;
    };

    std::size_t CountOf(Status status) const {
        return m_statuses[static_cast<std::size_t>(status)];
    }
    std::size_t CountOf(Error error) const { return m_errors[static_cast<std::size_t>(error)]; }
    Status AggregateStatus() const;
    Error AggregateError() const;

    std::size_t m_members = 0;
    /// Indexed by value; the last element counts the values that are not enumerators.
    std::array<std::size_t, 5> m_statuses{};
    std::array<std::size_t, 6> m_errors{};
    ExactSum m_progress;
};

} // namespace Halvex::App
