#include "bench/fleet_phases.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>

#include "bench/fleet_load.h"

namespace ZARO::Fleet {

namespace {

constexpr double kPollBound = 80;    // KiB
constexpr double kSessionBound = 30; // KiB
constexpr double kIdleBound = 30;    // per cent of a core
constexpr long kThreadBound = 16;
constexpr double kBackBound = 60; // seconds
constexpr unsigned kTriesBound = 3;
constexpr double kLeakBound = 1.1;

/// How fast the devices come the first time: about half of what two cores bear.
constexpr int kStartsPerSecond = 250;
constexpr seconds kPatience{180};
/// Status changes are collected for 0.2 s, and the polls they answer are renewed.
constexpr int kSettle = 3000; // ms

constexpr int kChurnPerSecond = 100;
constexpr int kChurnSeconds = 60;
constexpr int kAwaySeconds = 5;
constexpr int kAfterChurn = 15000; // ms, in which sessions that just vanished are noticed

constexpr int kDatabaseAway = 60; // seconds
/// In seconds. A device that began to register meanwhile has backed off to 64 or 128 s by the end.
constexpr int kRegisteredBound = 130;

constexpr int kMoveSeconds = 30;

constexpr int kDownloads = 8;
constexpr seconds kLoadTime{15};

int StartSpread(int devices) {
    return std::max(1000, devices * 1000 / kStartsPerSecond);
}

} // namespace

Phases::Phases(FleetHub& hub, Swarm& swarm, seconds idle,
               std::function<void(bool on)> switchDatabase)
    : hub_(hub), swarm_(swarm), idle_(idle), switchDatabase_(std::move(switchDatabase)),
      empty_(hub.Take()) {
    swarm_.Tell("network " + hub_.Network() + "0 " + std::to_string(FleetHub::kSshPort));
    for (const std::string& address : hub_.Controls()) {
        swarm_.Tell("control " + address + " " + std::to_string(FleetHub::kHttpsPort));
    }
}

void Phases::Begin() {
    const int all = swarm_.Size();
    const std::string spread = std::to_string(StartSpread(all));
    printf("\nstart, spread over %.0f s for each half\n", StartSpread(all) / 1000.0);
    const Usage devices = swarm_.Take();
    swarm_.Tell("start " + spread);
    const double registered = swarm_.WaitFor("polls", all, kPatience);
    Settle();
    const Usage polls = hub_.Take();
    PrintCost("registering and waiting", empty_, devices);
    const Usage devicesBetween = swarm_.Take();
    swarm_.Tell("tunnels " + spread);
    const double up = swarm_.WaitFor("whole", all, kPatience);
    Settle();
    const Usage sessions = hub_.Take();
    PrintCost("building the tunnel", polls, devicesBetween);
    Check(registered >= 0, Text("all registered after %.1f s", registered), "all of them");
    Check(up >= 0, Text("all tunnels up after %.1f s", up), "all of them");
    const Json::Value report = swarm_.Report();
    printf("  attempts per device: at most %u; %u log-ins failed, %u polls, %u refused\n",
           report["most_tries"].asUInt(), report["tunnel_failures"].asUInt(),
           report["poll_failures"].asUInt(), report["refusals"].asUInt());
    const double poll = (polls.rss - empty_.rss) / all;
    const double session = (sessions.rss - polls.rss) / all;
    Check(poll <= kPollBound, Text("%.1f KiB per held poll", poll), "bound 80 KiB");
    Check(session <= kSessionBound, Text("%.1f KiB per session", session), "bound 30 KiB");
    printf("  the hub: %.0f MiB, %ld descriptors, %ld threads in %zu processes\n",
           sessions.rss / 1024, sessions.descriptors, sessions.threads, sessions.cpu.size());
}

void Phases::Idle() {
    const auto length = static_cast<double>(idle_.count());
    printf("\nidle for %.0f s\n", length);
    const Usage hub = hub_.Take();
    const Usage devices = swarm_.Take();
    swarm_.Tell("mark");
    poll(nullptr, 0, static_cast<int>(length) * 1000);
    const Usage after = hub_.Take();
    const double share = 100 * after.CpuSince(hub) / length;
    PrintCost("idle", hub, devices, length);
    Check(share <= kIdleBound, Text("%.1f %% of a core", share), "bound 30 %");
    Check(after.mostThreads <= kThreadBound, Text("%ld threads in a process", after.mostThreads),
          "bound 16");
    const unsigned lost = swarm_.Report()["lost"].asUInt();
    Check(lost == 0, Text("%u devices lost something", lost), "none may");
}

void Phases::LoseRelay() {
    printf("\nevery relay killed and started again\n");
    Lose([](const HubPart& part) { return part.isRelay; }, Aftermath::ComesBack);
}

void Phases::LoseControl() {
    printf("\nthe control server killed and started again\n");
    Lose([](const HubPart& part) { return part.isControl; }, Aftermath::ComesBack);
}

void Phases::LoseBoth() {
    printf("\neverything killed and started again\n");
    Lose([](const HubPart&) { return true; }, Aftermath::ComesBack);
}

void Phases::LoseHost() {
    printf("\none host of two killed for good\n");
    Lose([](const HubPart& part) { return part.host == 0; }, Aftermath::StaysAway);
}

void Phases::Lose(const FleetHub::Which& which, Aftermath aftermath) {
    swarm_.Tell("mark");
    const Usage hub = hub_.Take();
    const Usage devices = swarm_.Take();
    const auto start = Clock::now();
    hub_.Kill(which);
    if (aftermath == Aftermath::ComesBack) {
        hub_.Start(which);
    }
    const double away = std::chrono::duration<double>(Clock::now() - start).count();
    printf("  listening again after %.1f s\n", aftermath == Aftermath::ComesBack ? away : 0.0);
    poll(nullptr, 0, 1000); // until every device has noticed
    (void)swarm_.WaitFor("whole", swarm_.Size(), kPatience);
    CheckReturn(aftermath, hub, devices);
    Settle();
}

void Phases::CheckReturn(Aftermath aftermath, const Usage& hubBefore, const Usage& devicesBefore) {
    const std::vector<double> back = swarm_.Back();
    const Json::Value report = swarm_.Report();
    const unsigned lost = report["lost"].asUInt();
    const unsigned most = report["most_tries"].asUInt();
    const double last = Quantile(back, 1);
    constexpr double kMost = 0.95;
    printf("  %u devices lost something; 50 %% back after %.1f s, 95 %% after %.1f s\n", lost,
           Quantile(back, 0.5), Quantile(back, kMost));
    printf("  log-ins begun %u, failed %u; polls begun %u, failed %u\n",
           report["tunnel_tries"].asUInt(), report["tunnel_failures"].asUInt(),
           report["poll_tries"].asUInt(), report["poll_failures"].asUInt());
    PrintCost("the return", hubBefore, devicesBefore);
    Check(back.size() == lost && lost > 0 && last <= kBackBound,
          Text("the last of %zu is back after %.1f s", back.size(), last), "all, bound 60 s");
    if (aftermath == Aftermath::ComesBack) {
        Check(most <= kTriesBound, Text("at most %u attempts per device", most), "bound 3");
    } else {
        printf("  at most %u attempts per device\n", most);
    }
    const unsigned refused = report["refusals"].asUInt();
    Check(refused == 0, Text("%u refused", refused), "nobody may be locked out");
}

void Phases::Churn() {
    const int rate = std::min(kChurnPerSecond, swarm_.Size() / (2 * kAwaySeconds));
    printf("\nchurn: %d devices per second leave, and come back after %d s\n", rate, kAwaySeconds);
    const Usage before = hub_.Take();
    const Usage devices = swarm_.Take();
    auto next = Clock::now();
    for (int second = 0; second < kChurnSeconds + kAwaySeconds; ++second) {
        if (second < kChurnSeconds) {
            swarm_.Tell("leave", rate);
        }
        if (second >= kAwaySeconds) {
            swarm_.Tell("come", rate);
        }
        next += seconds(1);
        std::this_thread::sleep_until(next);
    }
    const double back = swarm_.WaitFor("whole", swarm_.Size(), kPatience);
    PrintCost("churn", before, devices, kChurnSeconds);
    Check(back >= 0, Text("all there %.1f s after the last one came", back), "all of them");
    poll(nullptr, 0, kAfterChurn);
    const Usage after = hub_.Take();
    const auto check = [](const char* what, double was, double is) {
        Check(is <= was * kLeakBound, Text("%s: %.0f before, %.0f after", what, was, is),
              "bound 10 % more");
    };
    check("memory in MiB", before.rss / 1024, after.rss / 1024);
    check("descriptors", static_cast<double>(before.descriptors),
          static_cast<double>(after.descriptors));
    check("threads", static_cast<double>(before.threads), static_cast<double>(after.threads));
}

void Phases::Load() {
    printf("\nsmall requests beside %d downloads and %d sessions\n", kDownloads, swarm_.Size());
    const Usage hub = hub_.Take();
    const Usage devices = swarm_.Take();
    MeasureSmallRequests(swarm_, kDownloads, kLoadTime);
    PrintCost("load", hub, devices, static_cast<double>(kLoadTime.count()) + 1);
}

void Phases::Move() {
    printf("\ndevices move to the other host with each request\n");
    swarm_.Tell("mark");
    const auto start = Clock::now();
    poll(nullptr, 0, kMoveSeconds * 1000);
    (void)swarm_.WaitFor("requests", swarm_.Size(), kPatience); // as long as one may be held
    const auto took = std::chrono::duration_cast<seconds>(Clock::now() - start);
    const Json::Value report = swarm_.Report();
    const unsigned failures = report["poll_failures"].asUInt() + report["tunnel_failures"].asUInt();
    Check(report["requests"].asInt() >= swarm_.Size(),
          Text("%u requests in %d s", report["requests"].asUInt(), static_cast<int>(took.count())),
          "at least one per device");
    Check(failures == 0 && report["lost"].asUInt() == 0,
          Text("%u failures, %u devices lost something", failures, report["lost"].asUInt()),
          "none may notice");
}

void Phases::LoseDatabase() {
    const int all = swarm_.Size();
    const int some = std::max(1, all / 20);
    printf("\nthe database away for %d s\n", kDatabaseAway);
    swarm_.Tell("mark");
    const auto back = Clock::now() + seconds(kDatabaseAway);
    switchDatabase_(false);
    swarm_.Tell("drop", some);
    const double up = swarm_.WaitFor("tunnels", all, seconds(kDatabaseAway / 2));
    Check(up >= 0, Text("%d lost tunnels are up again after %.1f s", some, up),
          "without the database");
    swarm_.Tell("leave", some);
    swarm_.Tell("come", some);
    std::this_thread::sleep_until(back);
    const Json::Value away = swarm_.Report();
    printf("  at its end %u polls and %u tunnels stand, %u are registered\n",
           away["polls"].asUInt(), away["tunnels"].asUInt(), away["registered"].asUInt());
    Check(away["tunnels"].asInt() >= all - some, "tunnels stay", "but for those that left");
    Check(away["polls"].asInt() >= all - some, "polls stay", "but for those that left");
    switchDatabase_(true);
    const double whole = swarm_.WaitFor("whole", all, seconds(kRegisteredBound));
    Check(whole >= 0, Text("all there %.1f s after its return", whole),
          Text("bound %d s", kRegisteredBound));
    const unsigned refused = swarm_.Report()["refusals"].asUInt();
    Check(refused == 0, Text("%u refused", refused), "nobody may be locked out");
    Settle();
}

void Phases::Settle() const {
    poll(nullptr, 0, kSettle);
}

void Phases::PrintCost(const char* what, const Usage& hubBefore, const Usage& devicesBefore,
                       double length) const {
    const double hub = hub_.Take().CpuSince(hubBefore);
    const double devices = swarm_.Take().CpuSince(devicesBefore);
    printf("  processor time, %s: ", what);
    if (length > 0) {
        printf("hub %.1f %% of a core, devices %.1f %%\n", 100 * hub / length,
               100 * devices / length);
    } else {
        constexpr double kMilli = 1000;
        printf("hub %.1f s, %.2f ms per device; devices %.1f s\n", hub,
               kMilli * hub / swarm_.Size(), devices);
    }
}

} // namespace ZARO::Fleet
