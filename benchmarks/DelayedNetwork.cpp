// A network of its own in which every packet takes its time, as over a long line.
//
//     HalvexDelayedNetwork MILLISECONDS
//
// Makes a network namespace and lasts until it is terminated. Prints how others enter it (setns,
// nsenter), the address at which a server listens there, and the address by which clients reach
// that server: a connection to the latter arrives at the former. Each packet takes so many
// milliseconds either way, those that make the connection too. Needs the rights of root.

#include "Delaying.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace Halvex::Benchmarks;

// For documentation (RFC 5737): no machine has them. All others of 192.0.2.0/24 are on the line.
constexpr const char* kServer = "192.0.2.1";
constexpr const char* kServerOverTheLine = "192.0.2.2";

/// What stands before each packet: what the sender has left to do of it (struct virtio_net_hdr).
constexpr std::size_t kOffloadHeader = 10;

sockaddr Address(const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, text, &address.sin_addr);
    sockaddr generic{};
    static_assert(sizeof(generic) == sizeof(address));
    std::memcpy(&generic, &address, sizeof(generic));
    return generic;
}

ifreq Interface(const char* name) {
    ifreq interface {};
    std::strncpy(interface.ifr_name, name, IFNAMSIZ - 1);
    return interface;
}

/// The far end of a new line in the thread's namespace: what is sent over the line is read there.
int MakeLine() {
    const int line =
        Checked(::open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK), "/dev/net/tun");
    ifreq interface = Interface("line");
    interface.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
    Checked(::ioctl(line, TUNSETIFF, &interface), "TUNSETIFF");
    // As with a network card: pieces may be larger than a packet, to be cut and summed up later.
    Checked(::ioctl(line, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4), "TUNSETOFFLOAD");

    const int socket = Checked(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    interface.ifr_addr = Address(kServer);
    Checked(::ioctl(socket, SIOCSIFADDR, &interface), "SIOCSIFADDR");
    interface.ifr_netmask = Address("255.255.255.0");
    Checked(::ioctl(socket, SIOCSIFNETMASK, &interface), "SIOCSIFNETMASK");
    for (ifreq each : {Interface("line"), Interface("lo")}) {
        each.ifr_flags = IFF_UP;
        Checked(::ioctl(socket, SIOCSIFFLAGS, &each), "SIOCSIFFLAGS");
    }
    ::close(socket);
    return line;
}

/// Each end sees the other one at kServerOverTheLine.
void SwapAddresses(std::vector<char>& packet) {
    const auto header = packet.begin() + kOffloadHeader;
    const auto sender = header + offsetof(iphdr, saddr);
    // No checksum is to be made anew: all of them are sums over both addresses.
    std::swap_ranges(sender, sender + sizeof(in_addr), header + offsetof(iphdr, daddr));
}

void Serve(int line, Clock::duration delay) {
    struct Packet {
        Clock::time_point due;
        std::vector<char> data;
    };
    std::deque<Packet> underWay;
    std::vector<char> buffer(kOffloadHeader + IP_MAXPACKET);
    while (true) {
        std::optional<timespec> wait;
        if (!underWay.empty())
            wait = TimeUntil(underWay.front().due);
        pollfd watched{line, POLLIN, 0};
        Checked(::ppoll(&watched, 1, wait ? &*wait : nullptr, nullptr), "ppoll");
        while (true) {
            const ssize_t count = ::read(line, buffer.data(), buffer.size());
            if (count < 0 && errno == EAGAIN)
                break;
            Checked(static_cast<int>(count), "read");
            std::vector<char> data(buffer.begin(), buffer.begin() + count);
            // The system greets its neighbours by IPv6 too.
            if (data.size() < kOffloadHeader + sizeof(iphdr) ||
                data[kOffloadHeader] >> 4 != IPVERSION)
                continue;
            SwapAddresses(data);
            underWay.push_back({Clock::now() + delay, std::move(data)});
        }
        for (; !underWay.empty() && underWay.front().due <= Clock::now(); underWay.pop_front()) {
            const std::vector<char>& data = underWay.front().data;
            Checked(static_cast<int>(::write(line, data.data(), data.size())), "write");
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: HalvexDelayedNetwork MILLISECONDS\n");
        return 2;
    }
    try {
        // A packet on a line does not wait for a processor behind the programs that are measured.
        const sched_param priority{1};
        Checked(::sched_setscheduler(0, SCHED_FIFO, &priority), "sched_setscheduler");
        Checked(::unshare(CLONE_NEWNET), "unshare");
        const int line = MakeLine();
        // Reno, which every kernel has and allows in a namespace: the default may be one that paces
        // what it sends, as BBR does, so that an answer takes longer than the round trip.
        if (!(std::ofstream("/proc/sys/net/ipv4/tcp_congestion_control") << "reno" << std::flush))
            throw std::runtime_error("reno cannot be chosen");
        std::printf("/proc/%d/ns/net %s %s\n", ::getpid(), kServer, kServerOverTheLine);
        std::fflush(stdout);
        Serve(line, std::chrono::milliseconds(std::atoi(argv[1])));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "HalvexDelayedNetwork: %s\n", error.what());
        return 1;
    }
}
