#pragma once

#include "Networking/IHttpClient.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace Halvex::Networking {

/// Takes the body of one request as it arrives, over all attempts, and hands it on: in large pieces
/// to the data callback, or into the response. Reports progress.
///
/// One thread at a time, caller synchronises.
class BodySink {
public:
    /// Both must outlive the sink.
    BodySink(const Options& options, std::string& body) : m_options(options), m_body(body) {}

    /// The size of the whole resource, as soon as it is known.
    void SetTotal(std::int64_t bytes) { m_total = bytes; }
    std::optional<std::int64_t> Total() const { return m_total; }
    /// What has arrived so far.
    std::int64_t ReceivedBytes() const { return m_received; }

    /// The resource's first byte that the present response must not bring.
    void SetEnd(std::int64_t end) { m_end = end; }
    /// False: these are more than there may be. Those that may be are taken.
    bool Take(std::string_view bytes);
    /// Hands on what is still held back. At the end, and now and then on the way.
    void Flush();
    /// Tells how far it is, if that has changed since the last time.
    void ReportProgress();

private:
    /// As far as it is known.
    std::size_t BytesToCome() const;

    const Options& m_options;
    std::string& m_body;
    std::string m_pending;
    std::optional<std::int64_t> m_total;
    std::int64_t m_end = std::numeric_limits<std::int64_t>::max();
    std::int64_t m_received = 0;
    std::int64_t m_reported = 0;
};

} // namespace Halvex::Networking
