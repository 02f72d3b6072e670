#include "Services.h"

#include "Options.h"
#include "ResourceDownloadManager/Downloader/IResourceDownloader.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/Manifest.h"
#include "TransferMeter.h"
#include "support/ProxyEnvironment.h"
#include "support/ScriptedHttpServer.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <utility>

namespace Halvex::Fetch {
namespace {

using Status = App::IResourceDownloader::Status;

class ServicesTest : public testing::Test {
protected:
    Status Fetch(std::size_t file) {
        App::IResourceDownloader::Task task;
        task.descriptor = &manifest->Files()[file].descriptor;
        task.progressCallback = [](std::size_t, std::size_t) {
        };
        task.cancellationQuery = [] {
            return false;
        };
        return services.resourceDownloader->Exec(std::move(task));
    }

    static constexpr char kOne[] = "http://server.test/1";
    static constexpr char kOther[] = "http://server.test/2";

    const Testing::TemporaryFolder folder;
    const std::unique_ptr<Kit::Manifest> manifest =
        Kit::Manifest::FromUrls({kOne, kOther}, {folder.Path()}).manifest;
    TransferMeter meter{1, 2};
    const App::ResourceDownloadManager::Dependencies services =
        MakeServices({}, *manifest, meter, [] { return false; });
};

TEST_F(ServicesTest, AsksOnceForTheProxyOfAServer) {
    Testing::ScriptedHttpServer first;
    first.On(kOne, {Testing::Reply::Ok("1")});
    first.On(kOther, {Testing::Reply::Ok("2")});
    const Testing::ScriptedHttpServer second;
    {
        const Testing::ProxyEnvironment environment({{"http_proxy", first.Url("")}});
        EXPECT_EQ(Fetch(0), Status::Ok);
    }
    const Testing::ProxyEnvironment environment({{"http_proxy", second.Url("")}});
    EXPECT_EQ(Fetch(1), Status::Ok);
    EXPECT_EQ(first.RequestCount(kOther), 1U);
    EXPECT_EQ(second.ConnectionCount(), 0);
}

} // namespace
} // namespace Halvex::Fetch
