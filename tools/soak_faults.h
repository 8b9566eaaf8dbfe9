/// The hub and the devices of tools/soak.cpp, and the faults that happen to them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fault_proxy.h"

constexpr std::size_t kDevices = 3;
constexpr std::size_t kServices = 3; // of each device

struct Site : NoCopy {
    Site(const HubProcess& hub, std::size_t place, int control, int relay)
        : device(hub, "0" + std::to_string(place + 1)) {
        device.UseServer("https", control);
        device.UseRelay(relay);
        device.config["log_level"] = 6;
        for (std::size_t i = 0; i < kServices; ++i) {
            names.push_back("web-" + std::to_string(place) + "-" + std::to_string(i));
            services.push_back(std::make_unique<WebService>(names.back()));
            device.Publish(*services.back());
        }
    }

    /// Moves a service to another port.
    void Open(std::size_t i) {
        services[i] = std::make_unique<WebService>(names[i]);
        device.Define(names[i], services[i]->Port());
        device.Reload([](Json::Value&) {});
    }

    bool IsWell() const {
        return device.Status()["state"] == ZARO::Relay::RELAYD_STATE_CONNECTED &&
               device.IsAllUp() && device.PasswordFiles() == 0 &&
               std::all_of(services.begin(), services.end(), [this](const auto& service) {
                   return device.Serves(*service) && device.Ssh(service->Name()) > 0;
               });
    }

    std::vector<std::string> names;
    std::vector<std::unique_ptr<WebService>> services;
    Device device;
};

struct World : NoCopy {
    World() {
        for (std::size_t i = 0; i < kDevices; ++i) {
            sites.push_back(std::make_unique<Site>(hub, i, paths[0].Port(), paths[1].Port()));
            sites.back()->device.Start();
        }
    }

    bool IsWell() const {
        return std::all_of(sites.begin(), sites.end(),
                           [](const auto& site) { return site->IsWell(); });
    }

    HubProcess hub;
    FaultProxy paths[2] = {FaultProxy{hub.HttpsPort()}, FaultProxy{hub.RelayPort()}};
    std::vector<std::unique_ptr<Site>> sites;
};

using Heal = std::function<void()>;
using Strike = std::function<Heal(World&, Site&, std::size_t service)>;

enum Place { kControl, kRelay, kHub, kDevice };

/// A fault of the hub, a path or a device; two at once never hit the same one.
struct Fault {
    std::string name;
    Place place;
    bool kills; ///< the hub or a daemon
    Strike strike;
};

inline void Nothing() {
}

inline Heal Stop(pid_t pid) {
    // An ssh may be gone by then; another process with its id must get no signal.
    const std::string file = "/proc/" + std::to_string(pid) + "/cmdline";
    const std::string line = ReadFile(file);
    if (pid > 0) {
        kill(pid, SIGSTOP);
    }
    return [pid, file, line] {
        if (pid > 0 && ReadFile(file) == line) {
            kill(pid, SIGCONT);
        }
    };
}

inline Heal StopHub(World& world, Site&, std::size_t) {
    return Stop(world.hub.Pid());
}

inline Heal StopDaemon(World&, Site& site, std::size_t) {
    return Stop(site.device.Daemon().Pid());
}

inline Heal StopSsh(World&, Site& site, std::size_t i) {
    return Stop(site.device.Ssh(site.names[i]));
}

inline Heal KillHub(World& world, Site&, std::size_t) {
    world.hub.Kill();
    return [&world] { world.hub.Start(); };
}

inline Heal KillDaemon(World&, Site& site, std::size_t) {
    site.device.Daemon().Signal(SIGKILL);
    site.device.Daemon().Wait(seconds(10));
    return [&site] { site.device.Start(); };
}

inline Heal KillSsh(World&, Site& site, std::size_t i) {
    (void)site.device.SignalSsh(site.names[i]); // it may be gone already
    return Nothing;
}

inline Heal MoveService(World&, Site& site, std::size_t i) {
    site.Open(i);
    return Nothing;
}

inline Heal CloseService(World&, Site& site, std::size_t i) {
    site.services[i].reset();
    return [&site, i] { site.Open(i); };
}

inline Heal WithdrawService(World&, Site& site, std::size_t i) {
    Json::Value all;
    site.device.Reload([&](Json::Value& now) {
        all = now["service"];
        now["service"].removeIndex(static_cast<Json::ArrayIndex>(i), nullptr);
    });
    return [&site, all] { site.device.Reload([&](Json::Value& now) { now["service"] = all; }); };
}

inline Strike Set(Place path, const PathFaults& faults, bool alsoNew = true) {
    return [path, faults, alsoNew](World& world, Site&, std::size_t) {
        world.paths[path].Set(faults, alsoNew);
        return [&world, path] { world.paths[path].Set(); };
    };
}

inline Strike Cut(Place path, bool reset) {
    return [path, reset](World& world, Site&, std::size_t) {
        world.paths[path].Cut(reset);
        return Nothing;
    };
}

inline std::vector<Fault> MakeDeck() {
    std::vector<Fault> deck = {
        {"hub killed", kHub, true, KillHub},
        {"daemon killed", kDevice, true, KillDaemon},
        {"daemon killed", kDevice, true, KillDaemon},
        {"hub stopped", kHub, false, StopHub},
        {"daemon stopped", kDevice, false, StopDaemon},
        {"ssh killed", kDevice, false, KillSsh},
        {"ssh stopped", kDevice, false, StopSsh},
        {"service moved", kDevice, false, MoveService},
        {"service gone", kDevice, false, CloseService},
        {"service withdrawn", kDevice, false, WithdrawService},
    };
    for (const Place path : {kControl, kRelay}) {
        const std::string name = path == kControl ? "control " : "relay ";
        const Fault faults[] = {
            {name + "is reset", path, false, Cut(path, true)},
            {name + "ends", path, false, Cut(path, false)},
            {name + "refuses", path, false, Set(path, kRefuses)},
            {name + "never answers", path, false, Set(path, kLoses)},
            {name + "is half-open", path, false, Set(path, kLoses, false)},
            {name + "is half-open upwards", path, false, Set(path, kLosesUp, false)},
            {name + "is half-open downwards", path, false, Set(path, kLosesDown, false)},
            {name + "is held", path, false, Set(path, kHolds)},
            {name + "is garbled", path, false, Set(path, kGarbles)},
            {name + "is slow", path, false, Set(path, Delays(milliseconds(150)))},
            {name + "goes byte by byte", path, false, Set(path, Delays(milliseconds(0), 1))},
            {name + "ends early", path, false, Set(path, EndsAfter(1500))},
        };
        deck.insert(deck.end(), std::begin(faults), std::end(faults));
    }
    return deck;
}
