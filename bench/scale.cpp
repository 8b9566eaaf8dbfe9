/// A hub and many devices on one machine: how long until every service can be reached, how they
/// recover when all of them lose the relay at once, and how much memory it takes.
///
///   scale [DEVICES] [SERVICES]
///
/// Exit code 1 when a bound is missed, 2 when it can't run at all.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "tests/support/device.h"

namespace {

constexpr milliseconds kAllBack{60000 * kSlow};
/// From one second after the relay's return, no window of this length may hold more than a tenth of
/// the log-ins. The first second is for the quick recovery that a single device is promised; it may
/// hold half of them.
constexpr milliseconds kWindow{200};
constexpr milliseconds kFirst{1000};
constexpr std::size_t kFewTunnels = 300; ///< with fewer, a window can fill up by chance

int gMissed = 0;

void Check(bool holds, const char* bound) {
    printf("%-8s %s\n", holds ? "kept" : "MISSED", bound);
    gMissed += holds ? 0 : 1;
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Memory of some processes, in KiB.
struct Memory {
    double rss = 0;
    double pss = 0;
    int processes = 0;

    void Add(pid_t pid) {
        const std::string text = ReadFile("/proc/" + std::to_string(pid) + "/smaps_rollup");
        const auto number = [&text](const char* key) {
            const std::size_t at = text.find(key);
            return at == text.npos ? 0.0 : atof(text.c_str() + at + strlen(key));
        };
        rss += number("\nRss:");
        pss += number("\nPss:");
        ++processes;
    }

    void Print(const char* who) const {
        constexpr double kMiB = 1024;
        printf("  %-12s %4d %10.1f %10.1f\n", who, processes, rss / kMiB, pss / kMiB);
    }
};

/// When the tunnels came up, according to the hub's log. A thread of its own reads the log.
class LogIns : NoCopy {
public:
    explicit LogIns(const HubProcess& hub) : log_(hub.LogFile()), thread_([this] { Watch(); }) {}
    ~LogIns() {
        over_ = true;
        thread_.join();
    }

    /// Those since the hub's last start, in milliseconds after it.
    std::vector<long> Times() {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<long> times;
        for (const Clock::time_point at : seen_) {
            times.push_back(std::chrono::duration_cast<milliseconds>(at - start_).count());
        }
        return times;
    }

private:
    void Watch() {
        for (std::string line; !over_; poll(nullptr, 0, 10)) {
            log_.clear(); // the hub appends to the file
            while (std::getline(log_, line)) {
                const std::lock_guard<std::mutex> lock(mutex_);
                if (line.find("relay ssh://") != line.npos) {
                    start_ = Clock::now();
                    seen_.clear();
                } else if (Count(line, " is up") != 0) {
                    seen_.push_back(Clock::now());
                }
            }
        }
    }

    std::ifstream log_;
    std::atomic<bool> over_{false};
    std::mutex mutex_;
    Clock::time_point start_;
    std::vector<Clock::time_point> seen_;
    std::thread thread_;
};

struct Fleet : NoCopy {
    Fleet(int deviceCount, int serviceCount) {
        for (int i = 0; i < deviceCount; ++i) {
            char number[3];
            snprintf(number, sizeof number, "%02x", static_cast<unsigned>(i) & 0xffU);
            Device& device = devices.emplace_back(hub, number);
            device.config["log_level"] = 6;
            for (int k = 0; k < serviceCount; ++k) {
                services.emplace_back("web-" + std::to_string(i) + "-" + std::to_string(k));
                device.Publish(services.back());
            }
        }
    }

    /// Waits until a visitor gets through to every service; returns how many did.
    std::size_t Reach(milliseconds limit) {
        std::size_t done = 0;
        const std::size_t each = services.size() / devices.size();
        const auto end = Clock::now() + limit;
        for (; done < services.size() && Clock::now() < end; poll(nullptr, 0, 50)) {
            while (done < services.size() && devices[done / each].Serves(services[done])) {
                ++done;
            }
        }
        return done;
    }

    void PrintMemory(const char* when) const {
        Memory hubs;
        Memory daemons;
        Memory clients;
        hubs.Add(hub.Pid());
        for (const Device& device : devices) {
            daemons.Add(device.Daemon().Pid());
        }
        const std::string temporary = std::filesystem::temp_directory_path();
        for (const pid_t pid : ProcessesWith("cmdline", "ssh -d " + temporary + "/zaro.")) {
            clients.Add(pid);
        }
        printf("memory %-15s count    RSS MiB    PSS MiB\n", when);
        hubs.Print("hub");
        daemons.Print("zarorelayd");
        clients.Print("ssh");
    }

    HubProcess hub{50, {}, "10000-19999"}; // the hub skips ports in use
    std::deque<WebService> services;
    std::deque<Device> devices;
};

/// The highest number of log-ins in one window after the first second.
std::size_t Densest(const std::vector<long>& times) {
    std::size_t most = 0;
    for (auto from = std::lower_bound(times.begin(), times.end(), kFirst.count());
         from != times.end(); ++from) {
        const auto to = std::lower_bound(from, times.end(), *from + kWindow.count());
        most = std::max(most, static_cast<std::size_t>(to - from));
    }
    return most;
}

/// Takes the hub away from all devices for a while.
void Lose(Fleet& fleet, LogIns& logIns, milliseconds away) {
    const std::size_t all = fleet.services.size();
    printf("\nhub killed, back after %ld s\n", static_cast<long>(away.count() / 1000));
    fleet.hub.Kill();
    poll(nullptr, 0, static_cast<int>(away.count())); // the outage itself
    const std::size_t failed = fleet.hub.Count("ended before it was served");
    fleet.hub.Start();
    const auto start = Clock::now();
    const std::size_t reached = fleet.Reach(kAllBack);
    const double took = SecondsSince(start);
    Check(Within(seconds(5), [&] { return logIns.Times().size() >= all; }),
          "the hub told of every log-in");
    const std::vector<long> times = logIns.Times();
    const std::size_t densest = Densest(times);
    printf("  reached %zu of %zu after %.1f s; %zu log-ins, %zu cut short\n", reached, all, took,
           times.size(), fleet.hub.Count("ended before it was served") - failed);
    printf("  log-ins by second:");
    for (long second = 0; !times.empty() && second <= times.back() / 1000; ++second) {
        printf(" %td", std::count_if(times.begin(), times.end(),
                                     [second](long at) { return at / 1000 == second; }));
    }
    printf("\n  densest 200 ms after the first second: %zu\n", densest);
    const auto early = std::lower_bound(times.begin(), times.end(), kFirst.count()) - times.begin();
    Check(reached == all && took <= kAllBack.count() / 1000.0, "all reachable again within 60 s");
    if (all >= kFewTunnels) {
        Check(densest <= all / 10, "at most a tenth of the log-ins within 200 ms");
        Check(static_cast<std::size_t>(early) <= all / 2,
              "at most half of them in the first second");
    }
}

/// Raises the limit of open files for the hub. False where the machine does not allow it.
bool RaiseLimits(rlim_t tunnels) {
    const rlim_t needed = 200 + tunnels * 6;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < needed) {
        fprintf(stderr, "scale: needs a hard limit of %lu open files, has %lu\n",
                static_cast<unsigned long>(needed), static_cast<unsigned long>(limit.rlim_max));
        return false;
    }
    limit.rlim_cur = std::max(limit.rlim_cur, needed);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

} // namespace

int main(int argc, char** argv) {
    const int devices = argc > 1 ? atoi(argv[1]) : 100;
    const int services = argc > 2 ? atoi(argv[2]) : 3;
    if (argc > 3 || devices < 1 || devices > 250 || services < 1 || services > 20) {
        fprintf(stderr, "usage: scale [DEVICES, up to 250] [SERVICES of each, up to 20]\n");
        return 2;
    }
    if (!RaiseLimits(static_cast<rlim_t>(devices * services))) {
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Fleet fleet(devices, services);
    LogIns logIns(fleet.hub);
    printf("%d devices, %d services each\n", devices, services);
    const auto start = Clock::now();
    for (Device& device : fleet.devices) {
        device.Start();
    }
    const std::size_t reached = fleet.Reach(3 * kAllBack);
    printf("  reached %zu of %zu after %.1f s\n", reached, fleet.services.size(),
           SecondsSince(start));
    Check(reached == fleet.services.size(), "all reachable after the start");
    fleet.PrintMemory("at first");
    for (const seconds away : {seconds(0), seconds(10)}) {
        Lose(fleet, logIns, away);
    }
    fleet.PrintMemory("in the end");
    return gMissed == 0 ? 0 : 1;
}
