/// What goes wrong around a device, and what puts it right: the building blocks of the fault
/// table's rows.
#pragma once

#include <sys/resource.h>

#include <functional>

#include "tests/support/device.h"
#include "tests/support/fault_proxy.h"

// How soon visitors get through again.
constexpr milliseconds kNow{0};
constexpr milliseconds kClean{1000};
constexpr milliseconds kSilent{20000};
constexpr milliseconds kNetwork{3000};
constexpr milliseconds kHub{5000};
/// After up to 10 s of failed log-ins; nothing announces that the next one would succeed.
constexpr milliseconds kTries{3000};

/// What is special about a row. kNew: web's tunnel is a new one afterwards. kPhoto: there is a
/// second service. kAddress: the device has a network of its own. kSecond: the tunnel uses the
/// second address there. kRegisters: the device may register again.
enum Kinds { kSame = 0, kNew = 1, kPhoto = 2, kAddress = 4, kRegisters = 8, kSecond = 16 };

/// A device with its hub, a path of its own to the control server and one to the relay.
struct Site {
    explicit Site(int kind) {
        device.UseServer("https", control.Port());
        const std::string bind = (kind & kSecond) != 0    ? "BindAddress 10.9.0.3\n"
                                 : (kind & kAddress) != 0 ? "BindInterface eth0\n"
                                                          : "";
        device.UseRelay(relay.Port(), bind);
        device.Publish(*web);
        if ((kind & kPhoto) != 0) {
            device.Publish(photo);
        }
        device.Define(late.Name(), late.Port());
    }

    /// What the status claims and what a visitor finds, as one text: the state unless it is good,
    /// or the error in its place; then each service behind a sign. "+": up, and it serves. "-":
    /// neither.
    /// "*": it serves, though not up. "?": up, but its program refuses. "~": up, but silent.
    std::string Word() const {
        std::string id, state, error;
        device.Enter();
        (void)ZARO::Relay::Daemon::GetStatus(id, state, error, nullptr);
        std::string word = state == "connected" ? "" : (state == "error" ? error : state) + " ";
        const Json::Value status = device.Status();
        for (const Json::Value& service : status["service"]) {
            const std::string name = service["id"].asString();
            const bool up = service["up"] == true;
            const char* const silent = service["local"] == "refused" ? "?" : "~";
            word += (device.Serves(name) ? up ? "+" : "*" : up ? silent : "-") + name;
        }
        return word;
    }

    std::size_t Attempts() {
        const std::string log = device.Log();
        return Count(log, "\"command\":") + Count(log, "bin/ssh -d ") + control.Accepted() +
               relay.Accepted();
    }

    std::string OfDaemon(const char* file) const {
        return "/proc/" + std::to_string(device.Daemon().Pid()) + "/" + file;
    }

    /// How many sockets the daemon has open; or its other descriptors, with the device's processes
    /// and password files.
    std::size_t Holds(bool sockets) const {
        std::size_t count = sockets ? 0 : device.Processes().size() + device.PasswordFiles();
        for (const auto& entry : fs::directory_iterator(OfDaemon("fd"))) {
            std::error_code gone;
            count += (fs::read_symlink(entry, gone).string().find("socket:") == 0) == sockets;
        }
        return count;
    }

    long Kb() const {
        const std::string status = ReadFile(OfDaemon("status"));
        return atol(status.c_str() + status.find("VmRSS:") + 6);
    }

    HubProcess hub;
    std::unique_ptr<WebService> web = std::make_unique<WebService>("web");
    const WebService photo{"photo"};
    const WebService late{"late"};
    const Listener mute;
    FaultProxy control{hub.HttpsPort()};
    FaultProxy relay{hub.RelayPort()};
    Device device{hub};
};

using Act = std::function<void(Site&)>;

inline Act operator+(const Act& first, const Act& second) {
    return [=](Site& site) { first(site), second(site); };
}

inline Act operator*(int times, const Act& act) {
    return [=](Site& site) {
        for (int i = 0; i < times; ++i) {
            act(site);
        }
    };
}

using Paths = std::vector<FaultProxy Site::*>;
const Paths kControl = {&Site::control}, kRelay = {&Site::relay};
const Paths kBoth = {&Site::control, &Site::relay};
/// What happens to the connections on a path: all are reset, end in order, or stay and have the
/// fault, as new ones have. kOld: only those that exist have it.
enum Connections { kReset, kEnd, kStay, kOld };
inline Act On(const Paths& paths, const PathFaults& faults = PathFaults(),
              Connections all = kReset) {
    return [=](Site& site) {
        for (const auto path : paths) {
            (site.*path).Set(faults, all != kOld);
            if (all < kStay) {
                (site.*path).Cut(all == kReset);
            }
        }
    };
}
const Act kHeal = On(kBoth, PathFaults(), kStay);
const Act kWait = [](Site&) {};

/// Waits until the status shows `word`, and goes on showing it.
inline Act Shows(const std::string& word, milliseconds lasts = kNow) {
    return [=](Site& site) {
        const auto is = [&] { return site.Word() == word; };
        const auto stays = [&] { return is() && !Within(lasts, [&] { return !is(); }); };
        EXPECT_TRUE(Within(seconds(30) * kSlow, stays)) << site.Word() << ", expected " << word;
    };
}
const Act kUp = Shows("+web");

const auto Hub = [](int number) -> Act { return [=](Site& s) { s.hub.Program().Signal(number); }; };
const auto Lose = [](auto file) -> Act {
    return [=](Site& s) { fs::remove(s.hub.Data() + "/" + file); };
};
const auto Pool = [](int ports) -> Act { return [=](Site& s) { s.hub.UsePorts(ports); }; };
const Act kHubForgets = Lose("hub.db") + Lose("hub.db-wal") + Lose("hub.db-shm");
/// The proxies refuse connections meanwhile: they have no target.
const Act kEndHub = On(kBoth, kRefuses) + [](Site& s) { s.hub.Kill(); };
const Act kStartHub = Act([](Site& s) { s.hub.Start(); }) + kHeal;

inline Act Ssh(int number, const char* service = "web") {
    return [=](Site& site) { EXPECT_TRUE(site.device.SignalSsh(service, number)); };
}
/// A tunnel that was up is back at once, apart from the time that a log-in takes.
const Act kLose = Shows("+web", seconds(1)) + [](Site& site) {
    const pid_t former = site.device.Ssh("web");
    const milliseconds logIn{site.device.Dump()["longest_ms"]["a log-in"].asInt()};
    const auto back = [&] { return site.device.Ssh("web") != former && site.device.Serves("web"); };
    Ssh(SIGKILL)(site);
    EXPECT_TRUE(Takes("a loss", kClean + logIn, back));
};
const auto Daemon = [](int n) -> Act { return [=](Site& s) { s.device.Daemon().Signal(n); }; };
const Act kReload = Daemon(SIGHUP);
const Act kWithdraw = [](Site& site) {
    site.device.Reload([](Json::Value& now) { now["service"].resize(1); });
};
const Act kOffer = [](Site& site) {
    site.device.Reload([](Json::Value& now) { now["service"].append(Parse(R"({"id":"photo"})")); });
};
const Act kStart = [](Site& site) { site.device.Start(); };
const Act kKill = Daemon(SIGKILL) + [](Site& site) {
    const std::string pid = std::to_string(site.device.Daemon().Pid());
    site.device.root.Write("/tmp/.tunnel." + pid + ".left", "x", 0600);
    EXPECT_EQ(site.device.Daemon().Wait(seconds(10)), 128 + SIGKILL);
};
const Act kStop = Daemon(SIGTERM) + [](Site& site) {
    EXPECT_TRUE(Takes("stop", seconds(2), [&] { return site.device.Daemon().Wait(kNow) == 0; }));
    EXPECT_EQ(site.device.Processes().size() + site.device.PasswordFiles(), 0U);
};
/// Limits the daemon's descriptors from now on.
inline Act Descriptors(rlim_t most) {
    return [=](Site& site) {
        const rlimit limit = {most, 1024};
        EXPECT_EQ(prlimit(site.device.Daemon().Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    };
}

const std::string kConfig = Device::kConfig, kStatus = "/tmp/.zarorelayd.status", kTmp = "/tmp";
const std::string kHosts = "/usr/zaro/etc/ssh/known_hosts", kSsh = "/usr/zaro/bin/ssh";

/// Takes one of the device's files away, with or without a substitute; Back restores it.
inline Act Take(const std::string& file, const char* instead = nullptr) {
    return [=](Site& site) {
        fs::rename(site.device.root.Path(file), site.device.root.Path(file + ".away"));
        if (instead != nullptr) {
            site.device.root.Write(file, instead, 0600);
        }
    };
}
inline Act Back(const std::string& file) {
    return [=](Site& site) {
        fs::remove(site.device.root.Path(file));
        fs::rename(site.device.root.Path(file + ".away"), site.device.root.Path(file));
    };
}
/// Puts folders in the way of the status file.
const Act kPlant = [](Site& site) {
    const std::string pid = std::to_string(site.device.Daemon().Pid());
    fs::remove(site.device.root.Path(kStatus));
    site.device.root.Write(kStatus + "/x", "");
    site.device.root.Write(kStatus + ".tmp." + pid + "/x", "");
};
/// Makes log-ins begin with this shell command; $2 is the password file.
const auto Wrap = [](auto command) -> Act { return [=](Site& s) { s.device.WrapSsh(command); }; };

const Act kServeNowhere = [](Site& site) { site.web.reset(); };
const Act kServeElsewhere = [](Site& site) {
    site.web = std::make_unique<WebService>("web");
    site.device.Define("web", site.web->Port());
};
const Act kServeSilence = [](Site& site) { site.device.Define("web", site.mute.port); };
/// Changes of addresses, all at once.
const auto Ip = [](const std::string& changes) -> Act {
    const std::string line = R"(printf 'a %s %s/24 dev eth0\n' )" + changes + " | ip -b -";
    return [=](Site&) { EXPECT_EQ(system(line.c_str()), 0) << line; };
};

/// The control server is heard again before any time limit.
const Act kHears = [](Site& site) {
    EXPECT_TRUE(Takes("an answer", kNetwork, [&] { return site.Word() == "+web"; }));
};
