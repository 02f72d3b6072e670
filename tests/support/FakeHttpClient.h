#pragma once

#include "Foundation/Mutex.h"
#include "Networking/IHttpClient.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Halvex::Testing {

/// An HTTP client that sends nothing: a script, run on the calling thread, plays the server. It
/// remembers what it was asked. Thread-safe, but for the script, which is set beforehand.
class FakeHttpClient : public Networking::IHttpClient {
public:
    using Script =
        std::function<Networking::Response(const Networking::Request&, const Networking::Options&)>;

    /// What get was called with. The options are without their callbacks, so that keeping them does
    /// not keep the callbacks alive.
    struct Call {
        Networking::Request request;
        Networking::Options options;
    };

    /// What becomes of every later request; at first each one succeeds with an empty body.
    void Play(Script script) { m_script = std::move(script); }

    /// A script that hands over a body in one piece, and then ends with a code and its text.
    static Script Deliver(std::string body, std::int32_t errorCode = 0, std::string text = {}) {
        return [=](const Networking::Request&, const Networking::Options& options) {
            options.dataCallback(body);
            return Response(errorCode, text);
        };
    }

    static Networking::Response Response(std::int32_t errorCode, std::string text = {}) {
        Networking::Response response;
        response.errorCode = errorCode;
        response.errorText = std::move(text);
        return response;
    }

    std::vector<Call> Calls() const {
        const MutexLock lock(m_mutex);
        return m_calls;
    }

    Networking::Response get(const Networking::Request& request,
                             const Networking::Options& options) override {
        Remember(request, options);
        return m_script(request, options);
    }

    Networking::Response post(const Networking::Request&, const Networking::MultiPart&,
                              const Networking::Options&) override {
        return {};
    }
    Networking::Response post(const Networking::Request&, const std::string&,
                              const Networking::Options&) override {
        return {};
    }

private:
    void Remember(const Networking::Request& request, Networking::Options options) {
        options.cancellationQuery = nullptr;
        options.progressCallback = nullptr;
        options.dataCallback = nullptr;
        const MutexLock lock(m_mutex);
        m_calls.push_back({request, std::move(options)});
    }

    Script m_script = Deliver({});
    mutable Mutex m_mutex;
    std::vector<Call> m_calls GUARDED_BY(m_mutex);
};

} // namespace Halvex::Testing
