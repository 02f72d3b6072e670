#include "ResourceKit/ResourceWatch.h"

#include "Foundation/Mutex.h"
#include "ResourceDownloadManager/IRemoteResource.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/FileCheck.h"

#include <algorithm>
#include <condition_variable>
#include <optional>
#include <utility>

namespace Halvex::Kit {

namespace {

using Answer = ResourceWatch::Answer;
using Status = App::IRemoteResource::DownloadStatus;

constexpr std::chrono::milliseconds kInterval(10);

bool HasUsableFiles(const App::ResourceDescriptorBundle& bundle) {
    return std::all_of(bundle.descriptors.begin(), bundle.descriptors.end(),
                       [](const App::ResourceDescriptor* descriptor) {
                           return CheckFile(descriptor->localPath, {}).verdict ==
                                  FileFinding::Verdict::Good;
                       });
}

/// Of an empty bundle nothing is missing, although its state is Waiting for ever.
bool IsAvailable(App::IRemoteResource& resource, Status status) {
    return status == Status::Available || resource.GetDescriptor()->descriptors.empty();
}

/// Nothing: it is to be asked again.
std::optional<Answer> Ask(App::IRemoteResource& resource, ResourceWatch::Deadline deadline,
                          ResourceWatch::Errors errors) {
    // Before the state, which then is that of the deadline or later.
    const bool isTimeUp = std::chrono::steady_clock::now() >= deadline;
    const Status status = resource.GetState().status;
    if (IsAvailable(resource, status))
        return Answer::Available;
    const bool isFinal = status == Status::Error && errors == ResourceWatch::Errors::AreFinal;
    if (!isFinal && !isTimeUp)
        return std::nullopt;
    if (HasUsableFiles(*resource.GetDescriptor()))
        return Answer::StaleUsable;
    return status == Status::Error ? Answer::GivenUp : Answer::Missing;
}

/// When to ask again.
ResourceWatch::Deadline NextTime(ResourceWatch::Deadline deadline) {
    return std::min(deadline, std::chrono::steady_clock::now() + kInterval);
}

} // namespace

/// Tells the watch's thread that it is no longer wanted.
struct HALVEX_HIDDEN ResourceWatch::Stop {
    void Request() {
        const MutexLock lock(mutex);
        requested = true;
        changed.notify_all();
    }

    /// Waits until then. True: it has been requested.
    bool WaitUntil(Deadline time) {
        MutexLock lock(mutex);
        while (!requested && lock.WaitUntil(changed, time)) {
        }
        return requested;
    }

    Mutex mutex;
    std::condition_variable changed;
    bool requested HALVEX_GUARDED_BY(mutex) = false;
};

Answer ResourceWatch::WaitUntilAvailable(App::IRemoteResource* resource, Deadline deadline,
                                         Errors errors) {
    while (true) {
        if (const std::optional<Answer> answer = Ask(*resource, deadline, errors))
            return *answer;
        std::this_thread::sleep_until(NextTime(deadline));
    }
}

ResourceWatch::ResourceWatch(App::IRemoteResource* resource, Deadline deadline, Errors errors,
                             Callback callback)
    : m_stop(std::make_shared<Stop>()),
      // What it works with is its own: the callback may destroy the watch.
      m_thread([resource, deadline, errors, callback = std::move(callback), stop = m_stop] {
          Deadline next = {};
          while (!stop->WaitUntil(next)) {
              if (const std::optional<Answer> answer = Ask(*resource, deadline, errors)) {
                  if (!stop->WaitUntil({}))
                      callback(*answer);
                  return;
              }
              next = NextTime(deadline);
          }
      }) {}

ResourceWatch::~ResourceWatch() {
    m_stop->Request();
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();
    else
        m_thread.join();
}

} // namespace Halvex::Kit
