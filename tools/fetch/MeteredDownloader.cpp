#include "MeteredDownloader.h"

#include <utility>

namespace Halvex::Fetch {

namespace {

/// The bytes of one transfer, for as long as it is under way.
class Metering {
public:
    explicit Metering(TransferMeter::Count& count) : m_count(count) {}
    ~Metering() { m_count.underWay -= m_done; }
    Metering(const Metering&) = delete;
    Metering& operator=(const Metering&) = delete;

    void OnProgress(std::uint64_t done) {
        if (done <= m_done)
            return;
        m_count.received += done - m_done;
        m_count.underWay += done - m_done;
        m_done = done;
    }

private:
    TransferMeter::Count& m_count;
    std::uint64_t m_done = 0;
};

} // namespace

MeteredDownloader::MeteredDownloader(std::shared_ptr<App::IResourceDownloader> downloader,
                                     CountOf countOf)
    : m_downloader(std::move(downloader)), m_countOf(std::move(countOf)) {}

App::IResourceDownloader::Status MeteredDownloader::Exec(Task task) const {
    // The callbacks must die before this returns, which a parameter need not do.
    Task local = std::move(task);
    if (m_aborted)
        return Status::Cancelled;
    Metering metering(m_countOf(*local.descriptor));
    local.progressCallback = [&metering, report = std::move(local.progressCallback)](
                                 std::size_t done, std::size_t total) {
        metering.OnProgress(done);
        report(done, total);
    };
    return m_downloader->Exec(std::move(local));
}

void MeteredDownloader::Abort() {
    m_aborted = true;
    m_downloader->Abort();
}

} // namespace Halvex::Fetch
