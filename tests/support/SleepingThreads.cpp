#include "support/SleepingThreads.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

namespace Halvex::Testing {

namespace {

/// How often a thread has gone to sleep so far, or an empty text if it does not sleep now.
std::string SleepOrPauseCount(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    const std::string kSleeping = "State:\tS";
    const std::string kCount = "voluntary_ctxt_switches:";
    bool sleeps = false;
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, kSleeping.size(), kSleeping) == 0)
            sleeps = true;
        if (sleeps && line.compare(0, kCount.size(), kCount) == 0)
            return line;
    }
    return "";
}

/// The same, but empty as well for a thread that sleeps for a time that it has set itself.
std::string SleepCount(pid_t thread) {
    const std::string count = SleepOrPauseCount(thread);
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long call = -1;
    file >> call;
    return call == SYS_clock_nanosleep || call == SYS_nanosleep ? "" : count;
}

bool AllStay(const std::vector<pid_t>& threads, std::string (*countOf)(pid_t)) {
    std::vector<std::string> counts;
    for (const pid_t thread : threads) {
        counts.push_back(countOf(thread));
        if (counts.back().empty())
            return false;
    }
    // A thread that is still in the same sleep the second time has slept all through the moment
    // between the two rounds.
    for (std::size_t i = 0; i < threads.size(); ++i) {
        if (countOf(threads[i]) != counts[i])
            return false;
    }
    return true;
}

} // namespace

pid_t ThisThread() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

std::set<pid_t> ThreadsOfThisProcess() {
    // Makes the sanitizer's own thread start now, not with the first thread that is to be counted.
    pid_t joined = 0;
    std::thread([&joined] { joined = ThisThread(); }).join();
    std::set<pid_t> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        threads.insert(std::stoi(entry.path().filename().string()));
    // The kernel may list it for a moment yet.
    threads.erase(joined);
    return threads;
}

bool AllSleep(const std::vector<pid_t>& threads) {
    return AllStay(threads, &SleepCount);
}

bool AllSleepOrPause(const std::vector<pid_t>& threads) {
    return AllStay(threads, &SleepOrPauseCount);
}

} // namespace Halvex::Testing
