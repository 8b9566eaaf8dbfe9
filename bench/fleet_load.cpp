#include "bench/fleet_load.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "bench/fleet_visitor.h"

namespace ZARO::Fleet {

namespace {

constexpr double kMostMilliseconds = 50;
constexpr int kPause = 3; // ms between two small requests
constexpr double kMega = 1e6;

/// A visitor of a device: a connection to its port at the relay.
class Visit : NoCopy {
public:
    explicit Visit(const Swarm::Address& to) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(to.second));
        (void)inet_pton(AF_INET, to.first.c_str(), &address.sin_addr);
        const timeval limit{5, 0};
        const int on = 1;
        (void)setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        (void)setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("no visitor gets through to port " +
                                     std::to_string(to.second));
        }
    }

    bool Ask(char what) const { return send(socket_.Get(), &what, 1, MSG_NOSIGNAL) == 1; }
    /// How many bytes came; 0 at the end, and when none came for 5 s.
    std::size_t Read() {
        const ssize_t got = recv(socket_.Get(), buffer_.data(), buffer_.size(), 0);
        return static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }

private:
    UniqueFd socket_;
    std::vector<char> buffer_ = std::vector<char>(1U << 18U);
};

/// Downloads on threads of their own, until it goes.
class Downloads : NoCopy {
public:
    explicit Downloads(const std::vector<Swarm::Address>& from) {
        for (const Swarm::Address& address : from) {
            visits_.push_back(std::make_unique<Visit>(address));
            threads_.emplace_back([this, &visit = *visits_.back()] { Run(visit); });
        }
    }
    ~Downloads() {
        over_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    double Bytes() const { return static_cast<double>(bytes_); }
    bool AllRun() const { return ended_ == 0; }

private:
    void Run(Visit& visit) {
        std::size_t got = visit.Ask(kDownload) ? 1 : 0;
        while (!over_ && got > 0) {
            got = visit.Read();
            bytes_ += got;
        }
        ended_ += over_ ? 0 : 1;
    }

    std::atomic<bool> over_{false};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<int> ended_{0};
    std::vector<std::unique_ptr<Visit>> visits_;
    std::vector<std::thread> threads_;
};

/// One device for the small requests, and others, in other processes, for the downloads: a device
/// process has one thread, and it is the relay that is measured.
void ChooseDevices(Swarm& swarm, int downloads, Swarm::Address& small,
                   std::vector<Swarm::Address>& large) {
    small = swarm.Ports(0, 1).at(0);
    const int others = static_cast<int>(swarm.Processes()) - 1;
    for (int i = 0; i < others; ++i) {
        const int share = downloads * (i + 1) / others - downloads * i / others;
        const auto ports = swarm.Ports(static_cast<std::size_t>(i) + 1, share);
        large.insert(large.end(), ports.begin(), ports.end());
    }
}

/// How long the answers took, in milliseconds, in order; a missing one ends it.
std::vector<double> AskFor(const Swarm::Address& device, seconds length) {
    std::vector<double> times;
    Visit visit(device);
    const auto end = Clock::now() + length;
    for (bool good = true; good && Clock::now() < end; poll(nullptr, 0, kPause)) {
        const auto start = Clock::now();
        good = visit.Ask(kSmallRequest);
        for (std::size_t left = kSmallReply; good && left > 0;) {
            const std::size_t got = visit.Read();
            good = got > 0;
            left -= std::min(left, got);
        }
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        if (!good) {
            times.back() = kMostMilliseconds * static_cast<double>(times.size());
        }
    }
    std::sort(times.begin(), times.end());
    return times;
}

} // namespace

void MeasureSmallRequests(Swarm& swarm, int downloads, seconds length) {
    Swarm::Address small;
    std::vector<Swarm::Address> large;
    ChooseDevices(swarm, downloads, small, large);
    const Downloads running(large);
    poll(nullptr, 0, 1000); // until they run at full speed
    const double before = running.Bytes();
    const std::vector<double> times = AskFor(small, length);
    const double rate = (running.Bytes() - before) / static_cast<double>(length.count()) / kMega;
    printf("  %zu small requests: median %.1f ms, longest %.1f ms; downloads %.0f MB/s\n",
           times.size(), Quantile(times, 0.5), times.back(), rate);
    constexpr double kShare = 0.99;
    Check(Quantile(times, kShare) < kMostMilliseconds,
          Text("99 %% of the answers within %.1f ms", Quantile(times, kShare)),
          Text("bound %.0f ms", kMostMilliseconds));
    Check(running.AllRun(), "every download went on", Text("%zu of them", large.size()));
}

} // namespace ZARO::Fleet
