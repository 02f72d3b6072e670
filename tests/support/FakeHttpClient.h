#pragma once

#include "Foundation/Mutex.h"
#include "Networking/IHttpClient.h"

#include <cstddef>
#include <cstdint>
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

    /// What becomes of every later request that has a valid address and time; at first each one
    /// succeeds with an empty body.
    void Play(Script script) { m_script = std::move(script); }

    /// A script that hands over a body in one piece, and then ends with a code and its text. It
    /// reports no progress.
    static Script Deliver(std::string body, std::int32_t errorCode = 0, std::string text = {}) {
        return [=](const Networking::Request&, const Networking::Options& options) {
            Networking::Response response = Response(errorCode, text);
            HandOver(body, options, response);
            return response;
        };
    }

    /// A script that succeeds with a body in several pieces, with progress and the question for
    /// cancellation after each one.
    static Script Stream(std::vector<std::string> pieces, std::size_t total) {
        return [=](const Networking::Request&, const Networking::Options& options) {
            Networking::Response response = Response(0);
            std::size_t received = 0;
            for (const std::string& piece : pieces) {
                HandOver(piece, options, response);
                received += piece.size();
                if (options.progressCallback)
                    options.progressCallback(received, total);
                if (options.cancellationQuery && options.cancellationQuery())
                    return Response(15);
            }
            return response;
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
        if (!request.url.isValid())
            return {};
        return options.timeout > 0 ? m_script(request, options) : Response(15);
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
    static void HandOver(const std::string& piece, const Networking::Options& options,
                         Networking::Response& response) {
        if (!options.dataCallback)
            response.body += piece;
        else if (!piece.empty())
            options.dataCallback(piece);
    }

    void Remember(const Networking::Request& request, Networking::Options options) {
        options.cancellationQuery = nullptr;
        options.progressCallback = nullptr;
        options.dataCallback = nullptr;
        const MutexLock lock(m_mutex);
        m_calls.push_back({request, std::move(options)});
    }

    Script m_script = Deliver({});
    mutable Mutex m_mutex;
    std::vector<Call> m_calls HALVEX_GUARDED_BY(m_mutex);
};

} // namespace Halvex::Testing
