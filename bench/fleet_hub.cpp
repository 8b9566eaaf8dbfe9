#include "bench/fleet_hub.h"

#include <algorithm>

namespace ZARO::Fleet {

namespace {

/// A device takes three descriptors of its relay, out of the 20000 that a process may have, and
/// visitors and strangers need some.
constexpr int kDevicesPerRelay = 6000;
/// Without roles it takes four.
constexpr int kDevicesPerHub = 4400;

constexpr char kTunnelPorts[] = "20000-29999";

/// Where the addresses of each kind begin, in the run's network.
constexpr int kFirstControl = 1;
constexpr int kFirstRelay = 11;
constexpr int kFirstSpare = 101;

std::string RunNetwork() {
    return Text("127.%d.0.", 100 + getpid() % 100);
}

} // namespace

FleetHub::FleetHub(const HubPlan& plan) : folder_(plan.folder), network_(RunNetwork()) {
    const std::string help = Outcome({plan.program, "--help"});
    hasRoles_ = Count(help, "--roles") > 0;
    admits_ = Count(help, "--admit") > 0 ? " --admit open" : "";
    if (!hasRoles_ && plan.devices > kDevicesPerHub) {
        throw std::runtime_error(
            Text("this hub runs as one process, which carries up to %d devices", kDevicesPerHub));
    }
    for (int host = 0; host < plan.hosts; ++host) {
        PlanHost(plan, host);
    }
    Start([](const HubPart&) { return true; });
}

void FleetHub::PlanHost(const HubPlan& plan, int host) {
    const std::string number = std::to_string(host + 1);
    const std::string control =
        Text(" --http-port -1 --https-port %d --hold %d", kHttpsPort, plan.hold);
    const std::string relay =
        Text(" --relay-port %d --ports %s --relay-host ", kSshPort, kTunnelPorts);
    const auto address = [this](int last) { return network_ + std::to_string(last); };
    if (!hasRoles_) {
        const std::string only = address(kFirstControl);
        Add(plan, {"hub", host, true, true, false, only, {}, nullptr}, control + relay + only);
        return;
    }
    Add(plan,
        {"control" + number, host, true, false, false, address(kFirstControl + host), {}, nullptr},
        control + " --roles control,alias");
    const int relays =
        (plan.devices + kDevicesPerRelay * plan.hosts - 1) / (kDevicesPerRelay * plan.hosts);
    for (int i = 0; i < relays; ++i) {
        const int at = host * relays + i;
        const std::string own = address(kFirstRelay + at);
        Add(plan, {"relay" + std::to_string(at + 1), host, false, true, false, own, {}, nullptr},
            relay + own + " --roles relay --relay-name r" + std::to_string(at + 1));
        if (plan.hosts > 1) {
            const std::string spare = address(kFirstSpare + at);
            Add(plan,
                {"spare" + std::to_string(at + 1), host, false, true, true, spare, {}, nullptr},
                relay + spare + " --roles relay --relay-spare");
        }
    }
}

void FleetHub::Add(const HubPlan& plan, HubPart part, const std::string& options) {
    const std::string data = folder_ + "/data" + std::to_string(part.host + 1) +
                             (part.isSpare ? part.name : ""); // as if on a machine of its own
    part.line = Words(options + admits_, {plan.program, "--data", data, "--address", part.address,
                                          "--log-level", "4"});
    if (!plan.database.empty()) {
        part.line.insert(part.line.end(), {"--database", plan.database});
    }
    parts_.push_back(std::move(part));
}

std::vector<std::string> FleetHub::Controls() const {
    std::vector<std::string> all;
    for (const HubPart& part : parts_) {
        if (part.isControl) {
            all.push_back(part.address);
        }
    }
    return all;
}

void FleetHub::Kill(const Which& which) {
    for (const HubPart& part : parts_) {
        if (which(part) && part.process != nullptr) {
            part.process->Signal(SIGKILL);
        }
    }
    for (HubPart& part : parts_) {
        if (which(part)) {
            part.process.reset();
        }
    }
}

void FleetHub::Start(const Which& which) {
    for (HubPart& part : parts_) {
        if (!which(part)) {
            continue;
        }
        const std::string log = LogOf(part);
        // A spare listens only when it takes over.
        const char* const ready = part.isRelay ? "relay ssh://" : "control https://";
        const std::size_t before = Count(ReadFile(log), ready);
        part.process = std::make_unique<Process>(part.line, log);
        const auto listens = [&] { return Count(ReadFile(log), ready) > before; };
        const auto ended = [&] { return part.process->Wait(milliseconds(0)) != Process::kRuns; };
        if (!part.isSpare &&
            (!Within(seconds(20), [&] { return listens() || ended(); }) || ended())) {
            throw std::runtime_error(part.name + " does not start: " + ReadFile(log));
        }
    }
}

bool FleetHub::End() {
    bool good = true;
    for (const HubPart& part : parts_) {
        if (part.process != nullptr) {
            part.process->Signal(SIGTERM);
        }
    }
    for (const HubPart& part : parts_) {
        good = (part.process == nullptr || part.process->Wait(seconds(20)) == 0) && good;
    }
    return good;
}

Usage FleetHub::Take() const {
    Usage usage;
    for (const HubPart& part : parts_) {
        if (part.process != nullptr) {
            usage.Add(part.process->Pid());
        }
    }
    return usage;
}

int FleetHub::Running() const {
    return static_cast<int>(std::count_if(parts_.begin(), parts_.end(), [](const HubPart& part) {
        return part.process != nullptr && part.process->Wait(milliseconds(0)) == Process::kRuns;
    }));
}

std::string FleetHub::Complaints() const {
    constexpr int kMostLines = 5; // of each process
    std::string all;
    for (const HubPart& part : parts_) {
        std::ifstream log(LogOf(part));
        int lines = 0;
        for (std::string line; lines < kMostLines && std::getline(log, line);) {
            if (line.rfind("error", 0) == 0 || line.rfind("warning", 0) == 0) {
                all += "  " + part.name + ": " + line + "\n";
                ++lines;
            }
        }
    }
    return all;
}

} // namespace ZARO::Fleet
