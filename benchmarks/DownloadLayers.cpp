// Downloads with so much of the library as is said, to show what each layer costs.
//
//     HalvexDownloadLayers LAYER THREADS FOLDER LIST
//
// LAYER is one of
//     bare        libcurl, and what keeps a file whole: nothing of the library
//     calls       libcurl, and the calls that the library's downloader makes for a file
//     client      the same calls, and the library's HTTP client
//     downloader  the library's downloader
//     proxy       the same, which asks for the system's proxy
// LIST holds an address per line. The files get the last part of their addresses as names.

#include <Foundation/HttpClientFactory.h>
#include <Networking/IHttpClient.h>
#include <ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h>
#include <ResourceDownloadManager/QtProxyProvider.h>
#include <ResourceDownloadManager/ResourceDescriptor.h>

#include <curl/curl.h>
#include <glog/logging.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Halvex::App::IProxyProvider;
using Halvex::App::QtProxyProvider;
using Halvex::App::ResourceDescriptor;
using Halvex::App::ResourceDownloaderHttp;
using Halvex::Networking::IHttpClient;

constexpr std::int64_t kOneHourInMicroseconds = 3'600'000'000;

struct Paths {
    std::string folder;
    std::string temporary;
    std::string destination;
};

/// Downloads one file.
using Download = std::function<void(const std::string& url, const Paths& paths)>;
/// Makes what one thread downloads with.
using MakeDownload = std::function<Download()>;

int Checked(int result, const char* call) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

int Create(const std::string& path) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    return Checked(::open(path.c_str(), flags, 0666), "open");
}

void WriteAll(int descriptor, const std::string& bytes) {
    if (::write(descriptor, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("write");
}

void Look(const std::string& path) {
    struct stat status {};
    (void)::stat(path.c_str(), &status);
}

void Remove(const std::string& path) {
    (void)::unlink(path.c_str());
}

void Rename(const Paths& paths) {
    Checked(::rename(paths.temporary.c_str(), paths.destination.c_str()), "rename");
}

/// A file that is there whole or not at all: its bytes are on the disk before its name is there.
class WholeFile {
public:
    explicit WholeFile(const Paths& paths)
        : m_paths(paths), m_descriptor(Create(paths.temporary)) {}

    void Write(const std::string& bytes) const { WriteAll(m_descriptor, bytes); }

    void Finish() const {
        Checked(::fdatasync(m_descriptor), "fdatasync");
        Checked(::close(m_descriptor), "close");
        Rename(m_paths);
    }

private:
    const Paths& m_paths;
    const int m_descriptor;
};

/// The same with all the calls that the library's item and downloader make: whether the file is
/// there is looked first, old files are removed at each path, only a regular file is written to,
/// and one that fails is never synced.
class LibrarysFile {
public:
    explicit LibrarysFile(const Paths& paths) : m_paths(paths) {
        Look(paths.destination);
        Look(paths.folder);
        Remove(paths.temporary);
        Remove(paths.destination);
        m_descriptor = Create(paths.temporary);
        struct stat status {};
        Checked(::fstat(m_descriptor, &status), "fstat");
    }

    void Write(const std::string& bytes) const { WriteAll(m_descriptor, bytes); }

    void Finish() const {
        Checked(::close(m_descriptor), "close");
        const int source = Checked(::open(m_paths.temporary.c_str(), O_RDONLY | O_CLOEXEC), "open");
        Checked(::fdatasync(source), "fdatasync");
        Rename(m_paths);
        Checked(::close(source), "close");
        Remove(m_paths.temporary);
    }

private:
    const Paths& m_paths;
    int m_descriptor;
};

std::size_t Append(char* data, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

/// File: WholeFile or LibrarysFile.
template <typename File>
MakeDownload Bare() {
    return [] {
        const std::shared_ptr<CURL> easy(curl_easy_init(), &curl_easy_cleanup);
        const auto body = std::make_shared<std::string>();
        curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy.get(), CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(easy.get(), CURLOPT_BUFFERSIZE, 256 * 1024L);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &Append);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, body.get());
        return [easy, body](const std::string& url, const Paths& paths) {
            const File file(paths);
            body->clear();
            curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
            const CURLcode result = curl_easy_perform(easy.get());
            if (result != CURLE_OK)
                throw std::runtime_error(url + ": " + curl_easy_strerror(result));
            file.Write(*body);
            file.Finish();
        };
    };
}

std::shared_ptr<IHttpClient> NativeClient() {
    return Halvex::Networking::createHttpClient(Halvex::Networking::HttpClientType::Native);
}

MakeDownload Client() {
    const std::shared_ptr<IHttpClient> client = NativeClient();
    return [client] {
        return [client](const std::string& url, const Paths& paths) {
            const LibrarysFile file(paths);
            Halvex::Networking::Request request;
            request.url = Halvex::Networking::Url(url);
            Halvex::Networking::Options options;
            options.timeout = kOneHourInMicroseconds;
            options.cancellationQuery = [] {
                return false;
            };
            options.progressCallback = [](std::size_t, std::size_t) {
            };
            options.dataCallback = [&file](const std::string& bytes) {
                file.Write(bytes);
            };
            const auto response = client->get(request, options);
            if (response.errorCode != 0)
                throw std::runtime_error(response.errorText);
            file.Finish();
        };
    };
}

MakeDownload Downloader(const std::shared_ptr<IProxyProvider>& proxyProvider) {
    const auto downloader =
        std::make_shared<ResourceDownloaderHttp>(NativeClient(), proxyProvider, nullptr);
    return [downloader] {
        return [downloader](const std::string& url, const Paths& paths) {
            Look(paths.destination);
            ResourceDescriptor descriptor;
            descriptor.relativePath = url;
            descriptor.tempPath = paths.temporary;
            descriptor.downloadPath = paths.destination;
            ResourceDownloaderHttp::Task task;
            task.descriptor = &descriptor;
            task.cancellationQuery = [] {
                return false;
            };
            task.progressCallback = [](std::size_t, std::size_t) {
            };
            if (downloader->Exec(std::move(task)) != ResourceDownloaderHttp::Status::Ok)
                throw std::runtime_error(url + ": not downloaded");
        };
    };
}

MakeDownload With(const std::string& layer) {
    if (layer == "bare")
        return Bare<WholeFile>();
    if (layer == "calls")
        return Bare<LibrarysFile>();
    if (layer == "client")
        return Client();
    if (layer == "downloader")
        return Downloader(nullptr);
    if (layer == "proxy")
        return Downloader(std::make_shared<QtProxyProvider>());
    throw std::invalid_argument("no such layer: " + layer);
}

std::vector<std::string> Lines(const char* path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(std::string("cannot read ") + path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

void Run(const MakeDownload& make, int threads, const std::string& folder,
         const std::vector<std::string>& urls) {
    std::atomic<std::size_t> next{0};
    const auto work = [&] {
        const Download download = make();
        for (std::size_t n = next++; n < urls.size(); n = next++) {
            const std::string& url = urls[n];
            download(url, {folder, folder + "/.part-" + std::to_string(n),
                           folder + url.substr(url.rfind('/'))});
        }
    };
    std::vector<std::thread> workers;
    for (int n = 0; n < threads; ++n)
        workers.emplace_back(work);
    for (std::thread& worker : workers)
        worker.join();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: HalvexDownloadLayers LAYER THREADS FOLDER LIST\n");
        return 2;
    }
    google::InitGoogleLogging(argv[0]);
    FLAGS_minloglevel = google::GLOG_ERROR;
    FLAGS_logtostderr = true;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    try {
        // What a thread throws ends the program, with its text.
        Run(With(argv[1]), std::atoi(argv[2]), argv[3], Lines(argv[4]));
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
        return 1;
    }
    return 0;
}
