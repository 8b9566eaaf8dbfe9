/// Measures the relay of two hub programs beside each other: bulk transfers, small requests, and
/// small requests beside bulk transfers. Prints what each reaches, what it costs the hub's
/// processor, and the ratio.
///
///     relay_load OLD NEW [ROUNDS [PART OF A ROW'S NAME]]
#include <sys/resource.h>

#include <atomic>
#include <cmath>

#include <numeric>
#include <string>

namespace {
std::string hubProgram;
std::string hubAdmits; ///< an older hub admits every device without the option
} // namespace
#define ZARO_HUB hubProgram
#define ZARO_HUB_ADMITS hubAdmits
#include "tests/support/hub_kit.h"

namespace ZARO::RelayHub {
namespace {

constexpr int kTunnels = 9; // eight for bulk transfers, one for small requests
constexpr size_t kBlock = 256 * 1024;
constexpr auto kTime = milliseconds(1500); // of one measurement

bool ReadExactly(int fd, char* data, size_t size) {
    for (ssize_t got = 1; size > 0; data += got, size -= static_cast<size_t>(got)) {
        got = recv(fd, data, size, 0);
        if (got <= 0) {
            return false;
        }
    }
    return true;
}

bool SendAll(int fd, const char* data, size_t size) {
    for (ssize_t sent = 1; size > 0; data += sent, size -= static_cast<size_t>(sent)) {
        sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
    }
    return true;
}

/// The device's local service. A request of eight bytes asks for as many bytes of answer as it
/// says; 0 = everything that follows is to be swallowed.
class LoadService : NoCopy {
public:
    LoadService() {
        std::thread([this] {
            for (int fd = 0; (fd = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                std::thread([fd] { Serve(fd); }).detach();
            }
        }).detach();
    }
    int Port() const { return listener_.port; }

private:
    static void Serve(int fd) {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, 1 /* TCP_NODELAY */, &on, sizeof on);
        std::vector<char> block(kBlock);
        uint64_t wanted = 0;
        while (ReadExactly(fd, reinterpret_cast<char*>(&wanted), sizeof wanted)) {
            while (wanted == 0 && recv(fd, block.data(), block.size(), 0) > 0) {
            }
            for (size_t part = 0; wanted > 0; wanted -= part) {
                part = std::min<size_t>(wanted, block.size());
                if (!SendAll(fd, block.data(), part)) {
                    wanted = part;
                }
            }
        }
        close(fd);
    }

    const Listener listener_;
};

struct Client : Socket {
    explicit Client(int port) : Socket(AF_INET) {
        const sockaddr_in address = Loopback(port);
        const int on = 1;
        (void)connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        setsockopt(fd, IPPROTO_TCP, 1 /* TCP_NODELAY */, &on, sizeof on);
    }
    bool Ask(uint64_t size) const {
        return SendAll(fd, reinterpret_cast<const char*>(&size), sizeof size);
    }
};

/// A hub with tunnels that SSH clients carry to the service.
class Side : NoCopy {
public:
    Side(const std::string& program, const LoadService& service) {
        hubProgram = fs::absolute(program);
        hubAdmits = Count(Outcome({hubProgram, "--help"}), "--admit") > 0 ? "--admit open " : "";
        hub_ = std::make_unique<HubProcess>(2);
        std::string ids;
        for (int i = 0; i < kTunnels; ++i) {
            ids += (i == 0 ? "s" : ",s") + std::to_string(i);
        }
        TestDevice device(*hub_, 1, ids.c_str());
        const Json::Value tunnels = device.Tunnels();
        std::ofstream(askPass_) << "#!/bin/sh\necho \"$ZARO_PASS\"\n";
        fs::permissions(askPass_, fs::perms::owner_all);
        for (const std::string& id : tunnels.getMemberNames()) {
            Start(tunnels[id], service.Port());
        }
    }
    ~Side() { fs::remove(askPass_); }

    int Port(size_t number) const { return ports_.at(number); }
    /// Seconds of processor time that the hub has taken.
    double Cpu() const {
        std::istringstream stat(ReadFile("/proc/" + std::to_string(hub_->Pid()) + "/stat"));
        std::string word;
        double ticks = 0;
        for (int i = 1; stat >> word && i <= 15; ++i) {
            ticks += i >= 14 ? std::stod(word) : 0;
        }
        return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    }

private:
    void Start(const Json::Value& tunnel, int service) {
        const int port = tunnel["relay_port"].asInt();
        setenv("SSH_ASKPASS", askPass_.c_str(), 1);
        setenv("SSH_ASKPASS_REQUIRE", "force", 1);
        const std::string words =
            "-N -F none -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o "
            "LogLevel=ERROR -o ExitOnForwardFailure=yes -o PreferredAuthentications=password -c "
            "aes128-gcm@openssh.com -p " +
            std::to_string(hub_->RelayPort()) + " -R " + std::to_string(port) +
            ":127.0.0.1:" + std::to_string(service) + " " + tunnel["relay_user"].asString() +
            "@127.0.0.1";
        clients_.push_back(
            std::make_unique<Process>(Words(words, {"/usr/bin/ssh"}), "/dev/null", "/",
                                      "ZARO_PASS=" + tunnel["relay_pass"].asString()));
        if (!Within(seconds(20), [port] { return !Visitor(port).IsRefused(); })) {
            throw std::runtime_error("tunnel does not come up");
        }
        ports_.push_back(port);
    }

    std::unique_ptr<HubProcess> hub_;
    const std::string askPass_ =
        (fs::temp_directory_path() / ("zaro-askpass-" + std::to_string(getpid()))).string();
    std::vector<std::unique_ptr<Process>> clients_;
    std::vector<int> ports_;
};

/// Runs `work` on `count` threads until the time is over. Returns the sum of what they count.
template <class Work> double Sum(int count, Work work) {
    std::atomic<bool> over{false};
    std::vector<double> results(static_cast<size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] { results[static_cast<size_t>(i)] = work(i, over); });
    }
    std::this_thread::sleep_for(kTime);
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return std::accumulate(results.begin(), results.end(), 0.0);
}

double Download(int port, const std::atomic<bool>& over) {
    const Client client(port);
    std::vector<char> block(kBlock);
    double done = 0;
    client.Ask(uint64_t{1} << 40);
    for (ssize_t got = 1; got > 0 && !over; done += static_cast<double>(got)) {
        got = recv(client.fd, block.data(), block.size(), 0);
    }
    return done / 1e6;
}

double Upload(int port, const std::atomic<bool>& over) {
    const Client client(port);
    const std::vector<char> block(kBlock);
    double done = 0;
    client.Ask(0);
    while (!over && SendAll(client.fd, block.data(), block.size())) {
        done += static_cast<double>(block.size());
    }
    return done / 1e6;
}

/// `times` gets how many milliseconds each of them took.
double Requests(int port, const std::atomic<bool>& over, std::vector<double>* times = nullptr) {
    const Client client(port);
    std::vector<char> answer(1024);
    double done = 0;
    for (auto start = Clock::now(); !over; start = Clock::now(), ++done) {
        if (!client.Ask(answer.size()) || !ReadExactly(client.fd, answer.data(), answer.size())) {
            return done;
        }
        if (times != nullptr) {
            times->push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
    }
    return done;
}

/// p99 of a small request through one tunnel beside eight downloads through others.
double Beside(const Side& side) {
    std::vector<double> times;
    (void)Sum(9, [&](int i, const std::atomic<bool>& over) {
        return i < 8 ? Download(side.Port(static_cast<size_t>(i)), over)
                     : Requests(side.Port(8), over, &times);
    });
    std::sort(times.begin(), times.end());
    return times.empty() ? NAN : times[times.size() * 99 / 100];
}

struct Row {
    const char* name;
    std::function<double(const Side&)> run;
};

const Row kRows[] = {
    {"MB, 1 download",
     [](const Side& side) {
         return Sum(1, [&](int, const auto& over) { return Download(side.Port(0), over); });
     }},
    {"MB, 8 downloads",
     [](const Side& side) {
         return Sum(8, [&](int i, const auto& over) {
             return Download(side.Port(static_cast<size_t>(i)), over);
         });
     }},
    {"MB, 1 upload",
     [](const Side& side) {
         return Sum(1, [&](int, const auto& over) { return Upload(side.Port(0), over); });
     }},
    {"MB, 8 uploads",
     [](const Side& side) {
         return Sum(8, [&](int i, const auto& over) {
             return Upload(side.Port(static_cast<size_t>(i)), over);
         });
     }},
    {"requests, 10 connections",
     [](const Side& side) {
         return Sum(10, [&](int, const auto& over) { return Requests(side.Port(0), over); });
     }},
    {"requests, 100 connections",
     [](const Side& side) {
         return Sum(100, [&](int, const auto& over) { return Requests(side.Port(0), over); });
     }},
    {"ms, p99 beside 8 downloads", Beside},
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int Run(const std::string& before, const std::string& after, int rounds, const std::string& only) {
    const LoadService service;
    const Side sides[2] = {{before, service}, {after, service}};
    printf("%-28s %10s %10s %7s   %s\n", "in 1.5 s", "old", "new", "ratio", "CPU each, ratio");
    for (const Row& row : kRows) {
        if (std::string(row.name).find(only) == std::string::npos) {
            continue;
        }
        std::vector<double> results[2];
        std::vector<double> costs[2];
        for (int run = 0; run < 2 * rounds; ++run) {
            const int which = run % 2;
            const double cpu = sides[which].Cpu();
            results[which].push_back(row.run(sides[which]));
            costs[which].push_back((sides[which].Cpu() - cpu) / results[which].back());
        }
        const double result[] = {Median(results[0]), Median(results[1])};
        printf("%-28s %10.1f %10.1f %7.2f   %.2f\n", row.name, result[0], result[1],
               result[1] / result[0], Median(costs[1]) / Median(costs[0]));
        fflush(stdout);
    }
    return 0;
}

} // namespace
} // namespace ZARO::RelayHub

int main(int count, char** words) {
    if (count < 3) {
        fputs("usage: relay_load OLD NEW [ROUNDS [ROW]]\n", stderr);
        return 2;
    }
    return ZARO::RelayHub::Run(words[1], words[2], count > 3 ? std::atoi(words[3]) : 3,
                               count > 4 ? words[4] : "");
}
