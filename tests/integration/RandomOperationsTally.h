#pragma once

#include <atomic>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace Halvex::Testing {

/// What a test has come across in all: at least one count for each promise that it holds the
/// library to. While a count is 0 that promise has not been put to the test.
class Tally {
public:
    /// Changed without order, so that it puts no threads in order.
    class Count {
    public:
        Count(Tally& tally, const char* name) : m_name(name) { tally.m_counts.push_back(this); }

        void Add(std::size_t more = 1) { m_value.fetch_add(more, std::memory_order_relaxed); }
        const char* Name() const { return m_name; }
        std::size_t Value() const { return m_value.load(std::memory_order_relaxed); }

    private:
        const char* const m_name;
        std::atomic<std::size_t> m_value{0};
    };

    Tally() = default;
    Tally(const Tally&) = delete;
    Tally& operator=(const Tally&) = delete;

    /// The names of the counts that are 0.
    std::vector<std::string> Missing() const {
        std::vector<std::string> names;
        for (const Count* count : m_counts) {
            if (count->Value() == 0)
                names.emplace_back(count->Name());
        }
        return names;
    }

    friend std::ostream& operator<<(std::ostream& stream, const Tally& tally) {
        const char* separator = "";
        for (const Count* count : tally.m_counts) {
            stream << separator << count->Value() << ' ' << count->Name();
            separator = ", ";
        }
        return stream;
    }

private:
    std::vector<const Count*> m_counts;

public:
    Count operations{*this, "operations"};
    Count aborts{*this, "aborts at work"};

    // Observers.
    Count callbacks{*this, "callbacks"};
    Count callbacksWithoutSome{*this, "callbacks that one who had left could have had"};
    Count departuresMeanwhile{*this, "departures during a callback"};
    Count lastStatuses{*this, "last statuses told by one worker"};

    // Bundles that were found available with whole files.
    Count wholeMeanwhile{*this, "whole bundles at work"};
    Count wholeAtRest{*this, "whole bundles at rest"};

    // Steps that began and ended.
    Count checks{*this, "checks"};
    Count downloads{*this, "downloads"};
    Count statusNotifications{*this, "status notifications"};
    Count progressNotifications{*this, "progress notifications"};

    // How downloads ended.
    Count generalErrors{*this, "general errors"};
    Count cancellations{*this, "cancellations"};
    Count corruptFiles{*this, "corrupt files"};
    Count lostConnections{*this, "lost connections"};
    /// Of checks that no other one of the same file overlapped.
    Count outcomes{*this, "outcomes of checks"};

    // Failures, and what the policy made of them.
    Count retries{*this, "retries"};
    Count exhausted{*this, "failures past the last retry"};
    Count neverRetried{*this, "failures that are never retried"};

    // What is found when nothing is under way.
    Count settled{*this, "settled rounds"};
    Count files{*this, "files"};
    Count untouched{*this, "untouched resources"};
    Count lastStates{*this, "states left by a last check"};
    Count absences{*this, "errors without a file"};
    Count mixedBundles{*this, "bundles of mixed states"};
    Count levels{*this, "levels"};
};

} // namespace Halvex::Testing
