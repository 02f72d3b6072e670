#pragma once

#include "Networking/BodySink.h"
#include "Networking/CurlHandlePool.h"
#include "Networking/IHttpClient.h"
#include "Networking/ResponseHead.h"
#include "Networking/StallDetector.h"

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace Halvex::Networking {

/// Asks, every now and then, whether a request is to be stopped.
///
/// One thread at a time, caller synchronises.
class StopQuery {
public:
    using Clock = std::chrono::steady_clock;

    enum class Answer { GoOn, Cancelled, TimedOut };

    /// How often the cancellation query is asked: well below the 250 ms that are promised.
    static constexpr std::chrono::milliseconds kInterval{100};

    explicit StopQuery(const Options& options);

    /// Why a request is stopped, for people.
    static const char* Reason(Answer answer);

    /// Asks the query at once, and looks at the clock.
    Answer Ask();
    /// Asks the query only if the last time is long enough ago.
    Answer AskIfDue();
    /// How long to wait at most before asking again.
    std::chrono::milliseconds NextIn() const;

private:
    const Options& m_options;
    const Clock::time_point m_deadline;
    Clock::time_point m_lastAsked;
};

/// How an exchange ended, and with its last exchange the request.
enum class ExchangeEnd {
    NotSent,   ///< nothing was exchanged: the request is not one that can be sent
    Complete,  ///< the whole response is there; its status says what it is worth
    NoConnect, ///< no connection to the host or the proxy
    Failed,    ///< TLS, the protocol or the response itself
    Lost,      ///< the connection broke, stalled or closed early
    Stopped,   ///< by the query, or because the whole request's time is up
};

/// What Response::errorCode tells of it.
std::int32_t ToErrorCode(ExchangeEnd end);

/// What curl's result means, given whether the connection stood when it came.
ExchangeEnd ToExchangeEnd(CURLcode code, bool connected);

/// Whether a TLS handshake failed because the connection went away, not because of what was said
/// in it. curl tells the two apart only in its text.
bool IsCutHandshake(CURLcode code, std::string_view text);

/// One request and its response on a borrowed handle: a single hop and a single attempt.
///
/// One thread at a time, caller synchronises.
class CurlExchange {
public:
    /// What to do with the body once the head is there.
    enum class Verdict {
        Deliver, ///< it is the resource, or the missing part of it
        Discard, ///< it is something else: read on, so that the connection can be used again
        Refuse,  ///< stop here
    };

    /// Decides once the final head is complete. A refusal says why in the text.
    using Judge = std::function<Verdict(const ResponseHead& head, std::string& reason)>;

    /// The handle must have the options of the request set. All must outlive the exchange.
    CurlExchange(CurlHandle& handle, const Options& options, StopQuery& stop, BodySink& sink,
                 Judge judge);

    CurlExchange(const CurlExchange&) = delete;
    CurlExchange& operator=(const CurlExchange&) = delete;

    /// Carries it out. What a callback of the options throws comes out.
    ExchangeEnd Run();

    /// To be called once, after Run.
    ResponseHead TakeHead() { return std::move(m_head); }
    /// Whether the body was delivered, as far as it came.
    bool HasDelivered() const { return m_judged && m_verdict == Verdict::Deliver; }
    /// Why it did not complete, for people.
    const std::string& ErrorText() const { return m_errorText; }

private:
    static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
    template <typename Action>
    std::size_t Guarded(std::size_t bytes, Action action) noexcept;

    bool TakeHeaderLine(std::string_view line);
    bool TakeTrailer(std::string_view line);
    bool TakeBody(std::string_view bytes);
    bool TakeDelivered(std::string_view bytes);
    void Drive();
    bool HasEnded();
    void Lose(const std::string& text);
    bool IsStopped(StopQuery::Answer answer);
    std::int64_t TransferredBytes() const;
    bool IsOverTls() const;
    bool IsConnected() const;

    CurlHandle& m_handle;
    StopQuery& m_stop;
    BodySink& m_sink;
    const Judge m_judge;
    StallDetector m_stall;
    ResponseHead m_head;
    std::size_t m_trailerBytes = 0;
    bool m_judged = false;
    Verdict m_verdict = Verdict::Discard;
    std::int64_t m_discarded = 0;
    ExchangeEnd m_end = ExchangeEnd::Failed;
    /// The end has been decided here, whatever curl says of it.
    bool m_decided = false;
    std::string m_errorText;
    std::exception_ptr m_exception;
    char m_curlText[CURL_ERROR_SIZE] = {};
};

} // namespace Halvex::Networking
