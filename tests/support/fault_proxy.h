/// A network path between a device and a hub that fails on command while it is in use.
#pragma once

#include <netinet/tcp.h>
#include <sys/eventfd.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>

#include "tests/support/web_service.h"

/// What happens to the bytes of one direction. Hold: they arrive later, as after a short outage.
/// Lose: the connection stays dead and its ends do not notice, as when a router has forgotten it.
/// Garble: they no longer fit any protocol.
enum class Way { Pass, Hold, Lose, Garble };

/// How a path fails; by default it doesn't.
struct PathFaults {
    Way up = Way::Pass;           ///< to the target
    Way down = Way::Pass;         ///< from the target
    bool refuse = false;          ///< nothing listens; connections go on
    milliseconds delay{0};        ///< before each chunk of a direction
    std::size_t chunk = 65536;    ///< the most bytes that pass at once
    std::size_t limit = SIZE_MAX; ///< a connection ends when its target sends more
};
constexpr PathFaults kRefuses = {Way::Pass, Way::Pass, true};
constexpr PathFaults kHolds = {Way::Hold, Way::Hold};
/// New connections are accepted and never answered; the target does not see them.
constexpr PathFaults kLoses = {Way::Lose, Way::Lose};
constexpr PathFaults kLosesUp = {Way::Lose, Way::Pass};
constexpr PathFaults kLosesDown = {Way::Pass, Way::Lose};
constexpr PathFaults kGarbles = {Way::Pass, Way::Garble};
constexpr PathFaults Delays(milliseconds by, std::size_t chunk = 65536) {
    return {Way::Pass, Way::Pass, false, by, chunk};
}
constexpr PathFaults EndsAfter(std::size_t bytes) {
    return {Way::Pass, Way::Pass, false, milliseconds(0), bytes, bytes};
}

/// A TCP proxy on a port of its own in front of a port of 127.0.0.1. Its methods may be called from
/// any thread, and have taken effect when they return.
class FaultProxy : NoCopy {
public:
    explicit FaultProxy(int target) : target_(target) {
        // A port that is bound by number stays ours even while it does not listen.
        while (listener_ == nullptr || listener_->port < 0) {
            const int port = Listener().port; // another process may take it in between
            listener_ = std::make_unique<Listener>(port);
        }
        // A client may leave between poll and accept.
        (void)fcntl(listener_->fd, F_SETFL, O_NONBLOCK);
        thread_ = std::thread([this] { Run(); });
    }
    ~FaultProxy() {
        Change([this] { stop_ = true; });
        thread_.join();
        close(wake_);
    }

    int Port() const { return listener_->port; }

    /// Sets the faults from now on; none by default. With `alsoNew` false only the connections that
    /// exist have them, while new ones pass.
    void Set(const PathFaults& faults = PathFaults(), bool alsoNew = true) {
        Change([&] {
            faults_ = alsoNew ? faults : PathFaults();
            for (Connection& connection : connections_) {
                connection.faults = faults;
            }
            // Only a shutdown answers with a reset, also to clients that wait for accept.
            (void)(faults_.refuse ? shutdown(listener_->fd, SHUT_RD) : listen(listener_->fd, 64));
        });
    }

    /// Ends all connections: both ends see a reset, or the orderly end.
    void Cut(bool reset = true) {
        Change([&] {
            for (const Connection& connection : connections_) {
                for (const int fd : connection.fds) {
                    const linger none = {reset, 0};
                    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
                }
            }
            connections_.clear();
        });
    }

    /// How many connections it has accepted so far.
    std::size_t Accepted() const { return accepted_; }

private:
    struct Stream {
        std::string chunk;       ///< what is sent next
        Clock::time_point due{}; ///< when it is sent
        std::size_t count = 0;
        bool lost = false;
        bool ended = false; ///< its source has sent everything
    };
    struct Connection : NoCopy {
        ~Connection() {
            close(fds[0]);
            close(fds[1]);
        }
        Way WayOf(int stream) const { return stream == 0 ? faults.up : faults.down; }
        bool Reads(int stream) const {
            const Stream& from = streams[stream];
            return from.chunk.empty() && !from.ended && WayOf(stream) != Way::Hold;
        }
        bool Writes(int stream) const {
            const Stream& from = streams[stream];
            return !from.chunk.empty() && from.due <= Clock::now() && WayOf(stream) != Way::Hold;
        }

        int fds[2] = {-1, -1}; ///< client, target: the sources of streams[0] and [1]
        Stream streams[2];
        PathFaults faults;
    };

    template <class Act> void Change(Act act) {
        const std::lock_guard<std::mutex> lock(mutex_);
        act();
        (void)eventfd_write(wake_, 1); // can't fail: the counter does not overflow
    }

    void Run() {
        for (std::unique_lock<std::mutex> lock(mutex_); !stop_;) {
            std::vector<pollfd> fds = {{wake_, POLLIN, 0}};
            fds.push_back({faults_.refuse ? -1 : listener_->fd, POLLIN, 0});
            bool delays = false;
            for (const Connection& connection : connections_) {
                for (int i = 0; i < 2; ++i) {
                    const int events = (connection.Reads(i) ? POLLIN : 0) |
                                       (connection.Writes(1 - i) ? POLLOUT : 0);
                    // Without events it is left out: poll would still report its end.
                    fds.push_back(
                        {events != 0 ? connection.fds[i] : -1, static_cast<short>(events), 0});
                    delays = delays || connection.streams[i].due > Clock::now();
                }
            }
            lock.unlock();
            poll(fds.data(), fds.size(), delays ? 1 : -1);
            lock.lock();
            eventfd_t count = 0;
            (void)eventfd_read(wake_, &count); // it only wakes this loop
            connections_.remove_if([](Connection& connection) { return Moves(connection); });
            Accept();
        }
    }

    /// Moves the bytes that can be moved; true when the connection has ended.
    static bool Moves(Connection& connection) {
        bool ends = false;
        for (int i = 0; i < 2; ++i) {
            Stream& stream = connection.streams[i];
            if (connection.Reads(i)) {
                Read(connection, i);
            }
            if (connection.Writes(i)) {
                const ssize_t sent = send(connection.fds[1 - i], stream.chunk.data(),
                                          stream.chunk.size(), MSG_NOSIGNAL);
                stream.chunk.erase(0, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
                ends = ends || (sent < 0 && errno != EAGAIN);
            }
            ends = ends || (stream.ended && stream.chunk.empty() && !stream.lost);
        }
        return ends;
    }

    static void Read(Connection& connection, int from) {
        Stream& stream = connection.streams[from];
        const PathFaults& faults = connection.faults;
        char block[65536];
        const ssize_t size =
            recv(connection.fds[from], block, std::min(faults.chunk, sizeof block), 0);
        if (size < 0 && errno == EAGAIN) {
            return;
        }
        const auto got = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
        stream.count += got;
        stream.ended = got == 0 || (from == 1 && stream.count > faults.limit);
        stream.lost = stream.lost || connection.WayOf(from) == Way::Lose;
        stream.due = Clock::now() + faults.delay;
        stream.chunk.assign(block, stream.ended || stream.lost ? 0 : got);
        for (char& c : stream.chunk) {
            c = static_cast<char>(connection.WayOf(from) == Way::Garble ? ~c : c);
        }
    }

    void Accept() {
        constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
        const int client = accept4(listener_->fd, nullptr, nullptr, kFlags);
        if (client < 0) {
            return; // no client waits
        }
        ++accepted_;
        Connection& connection = connections_.emplace_back();
        connection.fds[0] = client;
        connection.faults = faults_;
        const bool unseen = faults_.up == Way::Lose && faults_.down == Way::Lose;
        connection.streams[0].lost = connection.streams[1].lost = unseen;
        if (!unseen) {
            const sockaddr_in target = Loopback(target_);
            connection.fds[1] = socket(AF_INET, SOCK_STREAM | kFlags, 0);
            // A failure shows at the first read.
            (void)connect(connection.fds[1], reinterpret_cast<const sockaddr*>(&target),
                          sizeof target);
        }
        for (const int fd : connection.fds) {
            const int on = 1;
            (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
    }

    const int target_;
    std::unique_ptr<Listener> listener_;
    const int wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex mutex_;
    bool stop_ = false;
    std::atomic<std::size_t> accepted_ = 0;
    PathFaults faults_;
    std::list<Connection> connections_;
    std::thread thread_;
};
