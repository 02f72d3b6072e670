#include "ResourceDownloadManager/AggregateState.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Halvex::App {

namespace {

/// A fraction is kept in units of 2^-100, which is the product of two steps that fit 64 bits each:
/// conversions between 128 bits and floating point are slow.
constexpr int kStepBits = 50;
constexpr double kStep = 0x1p50;

/// The counter of an enumeration value; all that are not enumerators share the last one.
template <typename Counters, typename Enum>
std::size_t& CounterOf(Counters& counters, Enum value) {
    const auto index = static_cast<std::uint32_t>(value);
    return counters[std::min<std::size_t>(index, counters.size() - 1)];
}

} // namespace

AggregateState::ExactSum::Integer AggregateState::ExactSum::ToInteger(double whole) {
    return whole < 0x1p62 ? static_cast<std::int64_t>(whole) : static_cast<Integer>(whole);
}

double AggregateState::ExactSum::ToDouble(Integer value) {
    const auto small = static_cast<std::int64_t>(value);
    return small == value ? static_cast<double>(small) : static_cast<double>(value);
}

void AggregateState::ExactSum::Count(double value, int sign) {
    if (std::isnan(value)) {
        m_notNumbers += sign;
    } else if (std::isinf(value)) {
        m_infinities += sign;
    } else {
        const double whole = std::floor(value);
        const double coarse = (value - whole) * kStep;
        const auto steps = static_cast<std::int64_t>(coarse);
        const auto rest = static_cast<std::int64_t>((coarse - static_cast<double>(steps)) * kStep);
        m_wholes += sign * ToInteger(whole);
        m_fractions += sign * ((static_cast<Integer>(steps) << kStepBits) + rest);
    }
}

double AggregateState::ExactSum::Value() const {
    if (m_notNumbers != 0)
        return std::numeric_limits<double>::quiet_NaN();
    if (m_infinities != 0)
        return std::numeric_limits<double>::infinity();
    const Integer wholes = m_wholes + (m_fractions >> (2 * kStepBits));
    constexpr Integer kMask = (Integer{1} << kStepBits) - 1;
    const auto steps = static_cast<std::int64_t>((m_fractions >> kStepBits) & kMask);
    const auto rest = static_cast<std::int64_t>(m_fractions & kMask);
    const double fraction =
        (static_cast<double>(steps) + static_cast<double>(rest) / kStep) / kStep;
    return ToDouble(wholes) + fraction;
}

void AggregateState::Add(const State& member) {
    ++m_members;
    ++CounterOf(m_statuses, member.status);
    ++CounterOf(m_errors, member.error);
    m_progress.Add(member.progress);
}

void AggregateState::Remove(const State& member) {
    --m_members;
    --CounterOf(m_statuses, member.status);
    --CounterOf(m_errors, member.error);
    m_progress.Remove(member.progress);
}

AggregateState::State AggregateState::Result() const {
    return {AggregateStatus(), AggregateError(),
            m_progress.Value() / static_cast<double>(m_members)};
}

AggregateState::Status AggregateState::AggregateStatus() const {
    if (CountOf(Status::Available) == m_members)
        return Status::Available;
    if (CountOf(Status::Error) != 0)
        return Status::Error;
    if (CountOf(Status::Dowloading) != 0 || CountOf(Status::Available) != 0)
        return Status::Dowloading;
    return Status::Waiting;
}

AggregateState::Error AggregateState::AggregateError() const {
    if (CountOf(Error::NoError) == m_members)
        return Error::NoError;
    for (const Error error : {Error::Cancelled, Error::InternetConnectionLost, Error::Corrupted}) {
        if (CountOf(error) != 0)
            return error;
    }
    return Error::GeneralError;
}

} // namespace Halvex::App
