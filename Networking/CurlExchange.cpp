#include "Networking/CurlExchange.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Halvex::Networking {

namespace {

/// An error page that is longer is not read to its end, even if that costs the connection.
constexpr std::int64_t kMostDiscardedBytes = 256 * 1024;
/// curl limits the head itself, but keeps whatever trailers come.
constexpr std::size_t kMostTrailerBytes = 256 * 1024;

StopQuery::Clock::time_point DeadlineIn(std::int64_t microseconds) {
    const auto now = StopQuery::Clock::now();
    const auto room = std::chrono::duration_cast<std::chrono::microseconds>(
        StopQuery::Clock::time_point::max() - now);
    return now + std::min(std::chrono::microseconds(std::max<std::int64_t>(microseconds, 0)), room);
}

} // namespace

StopQuery::StopQuery(const Options& options)
    : m_options(options), m_deadline(DeadlineIn(options.timeout)) {}

StopQuery::Answer StopQuery::Ask() {
    m_lastAsked = Clock::now();
    if (m_options.cancellationQuery && m_options.cancellationQuery())
        return Answer::Cancelled;
    return m_lastAsked >= m_deadline ? Answer::TimedOut : Answer::GoOn;
}

const char* StopQuery::Reason(Answer answer) {
    return answer == Answer::Cancelled ? "cancelled" : "the time for the whole request is up";
}

StopQuery::Answer StopQuery::AskIfDue() {
    return NextIn().count() <= 0 ? Ask() : Answer::GoOn;
}

std::chrono::milliseconds StopQuery::NextIn() const {
    const auto next = std::min(m_lastAsked + kInterval, m_deadline);
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()),
                    std::chrono::milliseconds(0));
}

std::int32_t ToErrorCode(ExchangeEnd end) {
    switch (end) {
    case ExchangeEnd::Complete:
        return 0;
    case ExchangeEnd::NoConnect:
        return 3;
    case ExchangeEnd::Lost:
        return 8;
    case ExchangeEnd::Stopped:
        return 15;
    case ExchangeEnd::NotSent:
        return 1001;
    case ExchangeEnd::Failed:
        break;
    }
    return 4;
}

ExchangeEnd ToExchangeEnd(CURLcode code, bool connected) {
    switch (code) {
    case CURLE_OK:
        return ExchangeEnd::Complete;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
    // curl is told of no other time-out than that for connecting.
    case CURLE_OPERATION_TIMEDOUT:
        return ExchangeEnd::NoConnect;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        return connected ? ExchangeEnd::Lost : ExchangeEnd::NoConnect;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return ExchangeEnd::Lost;
    default:
        return ExchangeEnd::Failed;
    }
}

bool IsCutHandshake(CURLcode code, std::string_view text) {
    return code == CURLE_SSL_CONNECT_ERROR &&
           (text.find("SSL_ERROR_SYSCALL") != std::string_view::npos ||
            text.find("unexpected eof") != std::string_view::npos ||
            text.find("Connection reset") != std::string_view::npos);
}

CurlExchange::CurlExchange(CurlHandle& handle, const Options& options, StopQuery& stop,
                           BodySink& sink, Judge judge)
    : m_handle(handle), m_stop(stop), m_sink(sink), m_judge(std::move(judge)),
      m_stall(options.lowSpeedLimit, std::chrono::milliseconds(options.lowSpeedTime)) {
    CURL* easy = m_handle.easy;
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, m_curlText);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlExchange::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlExchange::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
}

ExchangeEnd CurlExchange::Run() {
    m_handle.EndUnasked();
    const CURLMcode added = curl_multi_add_handle(m_handle.multi, m_handle.easy);
    if (added != CURLM_OK) {
        m_errorText = curl_multi_strerror(added);
        return m_end;
    }
    try {
        Drive();
        m_handle.NoteConnection();
    } catch (...) {
        m_exception = std::current_exception();
    }
    curl_multi_remove_handle(m_handle.multi, m_handle.easy);
    if (m_exception)
        std::rethrow_exception(m_exception);
    return m_end;
}

void CurlExchange::Drive() {
    while (true) {
        int running = 0;
        const CURLMcode result = curl_multi_perform(m_handle.multi, &running);
        if (m_exception)
            return;
        if (result != CURLM_OK) {
            m_errorText = curl_multi_strerror(result);
            return;
        }
        m_sink.ReportProgress();
        if (running == 0 && HasEnded())
            return;
        if (IsStopped(m_stop.AskIfDue()))
            return;
        const auto wait = static_cast<int>(m_stop.NextIn().count());
        curl_multi_poll(m_handle.multi, nullptr, 0, wait, nullptr);
    }
}

/// Whether curl is done; says then what it makes of it.
bool CurlExchange::HasEnded() {
    int left = 0;
    const CURLMsg* message = curl_multi_info_read(m_handle.multi, &left);
    if (message == nullptr || message->msg != CURLMSG_DONE)
        return false;
    if (m_decided)
        return true;
    const CURLcode code = message->data.result;
    long connectStatus = 0;
    curl_easy_getinfo(m_handle.easy, CURLINFO_HTTP_CONNECTCODE, &connectStatus);
    // A proxy that answers and says no is not a connection that was lost.
    const bool refusedByProxy = connectStatus >= 300;
    if (refusedByProxy)
        m_end = ExchangeEnd::Failed;
    else if (IsCutHandshake(code, m_curlText))
        m_end = ExchangeEnd::NoConnect;
    else
        m_end = ToExchangeEnd(code, IsConnected());
    if (code == CURLE_SSL_CACERT_BADFILE)
        m_errorText = "no certificate authority can be read from " + m_handle.authorities.Source();
    else if (code != CURLE_OK)
        m_errorText = m_curlText[0] != '\0' ? m_curlText : curl_easy_strerror(code);
    if (m_end == ExchangeEnd::Complete && !m_judged)
        Lose("the connection was closed before the response's headers were complete");
    else if (m_end == ExchangeEnd::Complete && HasDelivered() && m_head.EndsWithConnection() &&
             IsOverTls() && !m_handle.HasTlsEnded())
        Lose("the connection was closed without the end that TLS demands");
    else if (m_end == ExchangeEnd::Lost)
        Lose(m_errorText);
    return true;
}

/// The connection is lost, unless all that matters has come.
void CurlExchange::Lose(const std::string& text) {
    const bool statusSaysAll = m_judged && m_verdict == Verdict::Discard;
    m_end = statusSaysAll ? ExchangeEnd::Complete : ExchangeEnd::Lost;
    m_errorText = text;
}

bool CurlExchange::IsStopped(StopQuery::Answer answer) {
    if (answer != StopQuery::Answer::GoOn) {
        m_end = ExchangeEnd::Stopped;
        m_errorText = StopQuery::Reason(answer);
        return true;
    }
    if (!IsConnected() || !m_stall.IsStalled(StopQuery::Clock::now(), TransferredBytes()))
        return false;
    Lose("the transfer has stalled");
    return true;
}

std::int64_t CurlExchange::TransferredBytes() const {
    curl_off_t sent = 0;
    curl_easy_getinfo(m_handle.easy, CURLINFO_SIZE_UPLOAD_T, &sent);
    return m_sink.ReceivedBytes() + m_discarded + sent;
}

bool CurlExchange::IsOverTls() const {
    const char* scheme = nullptr;
    curl_easy_getinfo(m_handle.easy, CURLINFO_SCHEME, &scheme);
    return scheme != nullptr && curl_strequal(scheme, "https") != 0;
}

bool CurlExchange::IsConnected() const {
    curl_off_t ready = 0;
    curl_easy_getinfo(m_handle.easy, CURLINFO_PRETRANSFER_TIME_T, &ready);
    return ready > 0;
}

/// Runs what may throw inside a callback of curl, which must not see it.
template <typename Action>
std::size_t CurlExchange::Guarded(std::size_t bytes, Action action) noexcept {
    try {
        return action() ? bytes : 0;
    } catch (...) {
        m_exception = std::current_exception();
        return 0;
    }
}

std::size_t CurlExchange::OnHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto& exchange = *static_cast<CurlExchange*>(self);
    const std::size_t bytes = size * count;
    return exchange.Guarded(bytes,
                            [&] { return exchange.TakeHeaderLine(std::string_view(data, bytes)); });
}

std::size_t CurlExchange::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& exchange = *static_cast<CurlExchange*>(self);
    const std::size_t bytes = size * count;
    // Zero bytes taken of zero bytes given is not a refusal.
    return bytes == 0 ? 0 : exchange.Guarded(bytes, [&] {
        return exchange.TakeBody(std::string_view(data, bytes));
    });
}

bool CurlExchange::TakeHeaderLine(std::string_view line) {
    // What follows the body are trailers, whatever they look like.
    if (m_judged)
        return TakeTrailer(line);
    m_head.AddLine(line);
    m_handle.NoteAnswer();
    if (!m_head.IsComplete() || m_head.Status() < 200)
        return true;
    m_judged = true;
    m_verdict = m_judge(m_head, m_errorText);
    if (m_verdict != Verdict::Refuse)
        return true;
    m_decided = true;
    m_end = ExchangeEnd::Failed;
    return false;
}

bool CurlExchange::TakeTrailer(std::string_view line) {
    m_trailerBytes += line.size();
    if (m_trailerBytes <= kMostTrailerBytes)
        return true;
    m_decided = true;
    m_end = ExchangeEnd::Failed;
    m_errorText = "the trailers are too long";
    return false;
}

bool CurlExchange::TakeBody(std::string_view bytes) {
    if (m_verdict == Verdict::Deliver)
        return TakeDelivered(bytes);
    m_discarded += static_cast<std::int64_t>(bytes.size());
    if (m_discarded <= kMostDiscardedBytes)
        return true;
    // Its status has said enough.
    m_decided = true;
    m_end = ExchangeEnd::Complete;
    return false;
}

bool CurlExchange::TakeDelivered(std::string_view bytes) {
    if (!m_sink.Take(bytes)) {
        m_decided = true;
        m_end = ExchangeEnd::Failed;
        m_errorText = "the server sent more than it had announced";
        return false;
    }
    // While bytes keep coming, curl does not return to Drive, however long they take.
    if (m_stop.NextIn().count() > 0)
        return true;
    m_sink.ReportProgress();
    m_decided = IsStopped(m_stop.Ask());
    return !m_decided;
}

} // namespace Halvex::Networking
