#include "ResourceDownloadManager/AggregateState.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Halvex::App {

namespace {

constexpr int kFractionBits = 100;

/// The counter of an enumeration value; all that are not enumerators share the last one.
template <typename Counters, typename Enum>
std::size_t& CounterOf(Counters& counters, Enum value) {
    const auto index = static_cast<std::uint32_t>(value);
    return counters[std::min<std::size_t>(index, counters.size() - 1)];
}

} // namespace

void AggregateState::ExactSum::Count(double value, int sign) {
    if (std::isnan(value)) {
        m_notNumbers += sign;
    } else if (std::isinf(value)) {
        m_infinities += sign;
    } else {
        const double whole = std::floor(value);
        m_wholes += sign * static_cast<Integer>(whole);
        m_fractions += sign * static_cast<Integer>(std::ldexp(value - whole, kFractionBits));
    }
}

double AggregateState::ExactSum::Value() const {
    if (m_notNumbers != 0)
        return std::numeric_limits<double>::quiet_NaN();
    if (m_infinities != 0)
        return std::numeric_limits<double>::infinity();
    return static_cast<double>(m_wholes) +
           std::ldexp(static_cast<double>(m_fractions), -kFractionBits);
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
