/// What goes wrong around a device, row by row: while it lasts, the status says so; after it, all
/// is as it was.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zarorelayd/daemon.h>

#include "tests/support/device.h"
#include "tests/support/fault_proxy.h"
#include "tests/support/namespaces.h"

namespace {

namespace fs = std::filesystem;

// How soon visitors get through again.
constexpr milliseconds kNow{0};
constexpr milliseconds kClean{1000};
constexpr milliseconds kSilent{20000};
constexpr milliseconds kNetwork{3000};
constexpr milliseconds kHub{5000};
/// After up to 10 s of failed log-ins; nothing tells that the next one would be good.
constexpr milliseconds kTries{3000};

/// What a fault may cost at most until all is well: requests, log-ins and connections together;
/// turns of the daemon's loop; memory, of which the heap keeps what the first failures needed, and
/// a sanitizer what was freed last. And how long a step of the loop may take, in ms.
constexpr std::size_t kMostAttempts = 50;
constexpr int kMostPasses = 2000;
constexpr long kMostKb = kSlow == 1 ? 512 : 65536;
constexpr int kLongestStep = 200 * kSlow;

/// What is special: web's tunnel is a new one afterwards; there is a second service; the device has
/// a network of its own, and the tunnel the second address there; it may register.
enum Kinds { kSame = 0, kNew = 1, kPhoto = 2, kAddress = 4, kRegisters = 8, kSecond = 16 };

/// A device with its hub, a path of its own to the control server and one to the relay.
struct Site {
    explicit Site(int kind) {
        device.UseServer("https", control.Port());
        const std::string bind = (kind & kSecond) != 0    ? "BindAddress 10.9.0.3\n"
                                 : (kind & kAddress) != 0 ? "BindInterface eth0\n"
                                                          : "";
        device.root.Write("/usr/zaro/etc/ssh/config",
                          "Port " + std::to_string(relay.Port()) + "\n" + bind);
        device.Publish(*web);
        (kind & kPhoto) != 0 ? device.Publish(photo) : void();
        device.Define(late.Name(), late.Port());
    }

    bool Serves(const std::string& id) const {
        const int port = device.RelayPort(id);
        return port != 0 && Greeting(port) == id;
    }

    /// The state, but for a good one, or the error in its place, and each service: "+" is up and
    /// serves, "-" is neither; "?" is up and refused by its program, "~" silent; "*" only serves.
    /// So a visitor checks what the status claims.
    std::string Word() const {
        std::string id;
        std::string state;
        std::string error;
        device.Enter();
        (void)ZARO::Relay::Daemon::GetStatus(id, state, error, nullptr);
        std::string word = state == "connected" ? "" : (state == "error" ? error : state) + " ";
        const Json::Value status = device.Status();
        for (const Json::Value& service : status["service"]) {
            const std::string name = service["id"].asString();
            const bool up = service["up"] == true;
            const char* const silent = service["local"] == "refused" ? "?" : "~";
            word += (Serves(name) ? up ? "+" : "*" : up ? silent : "-") + name;
        }
        return word;
    }

    std::size_t Attempts() {
        const std::string log = device.Log();
        return Count(log, "\"command\":") + Count(log, "bin/ssh -d ") + control.Accepted() +
               relay.Accepted();
    }

    Json::Value Dump() const {
        Json::Value dump;
        EXPECT_TRUE(device.AnswersADump(dump));
        return dump;
    }

    std::string OfDaemon(const char* file) const {
        return "/proc/" + std::to_string(device.Daemon().Pid()) + "/" + file;
    }

    /// What the device holds: processes, password files, and of the daemon's descriptors those of
    /// sockets or of all others.
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

Act operator+(const Act& first, const Act& second) {
    return [=](Site& site) { first(site), second(site); };
}

Act operator*(int times, const Act& act) {
    return [=](Site& site) {
        for (int i = 0; i < times; ++i) {
            act(site);
        }
    };
}

using Paths = std::vector<FaultProxy Site::*>;
const Paths kControl = {&Site::control};
const Paths kRelay = {&Site::relay};
const Paths kBoth = {&Site::control, &Site::relay};
/// The connections on a path: all are reset, or end in order, or stay with a new fault; or only
/// those that stand have it.
enum Connections { kReset, kEnd, kStay, kOld };
Act On(const Paths& paths, const PathFaults& faults = PathFaults(), Connections all = kReset) {
    return [=](Site& site) {
        for (const auto path : paths) {
            (site.*path).Set(faults, all != kOld);
            all < kStay ? (site.*path).Cut(all == kReset) : void();
        }
    };
}
const Act kHeal = On(kBoth, PathFaults(), kStay);
const Act kWait = [](Site&) {};

/// Waits until the status shows something, and goes on showing it.
Act Shows(const std::string& word, milliseconds lasts = kNow) {
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
/// Connections are refused meanwhile, not accepted by a proxy without a target.
const Act kEndHub = On(kBoth, kRefuses) + [](Site& s) { s.hub.Kill(); };
const Act kStartHub = Act([](Site& s) { s.hub.Start(); }) + kHeal;

Act Ssh(int number, const char* service = "web") {
    return [=](Site& site) { EXPECT_TRUE(site.device.SignalSsh(service, number)); };
}
/// A tunnel that stood is back at once, but for what a log-in takes.
const Act kLose = Shows("+web", seconds(1)) + [](Site& site) {
    const pid_t former = site.device.Ssh("web");
    const milliseconds logIn{site.Dump()["longest_ms"]["a log-in"].asInt()};
    const auto back = [&] { return site.device.Ssh("web") != former && site.Serves("web"); };
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
/// How many descriptors the daemon may have from now on.
Act Descriptors(rlim_t most) {
    return [=](Site& site) {
        const rlimit limit = {most, 1024};
        EXPECT_EQ(prlimit(site.device.Daemon().Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    };
}

/// Puts another file in the place of one of the device's, or none; and the first one back.
Act Take(const std::string& file, const char* instead = nullptr) {
    return [=](Site& site) {
        fs::rename(site.device.root.Path(file), site.device.root.Path(file + ".away"));
        instead != nullptr ? site.device.root.Write(file, instead, 0600) : void();
    };
}
Act Back(const std::string& file) {
    return [=](Site& site) {
        fs::remove(site.device.root.Path(file));
        fs::rename(site.device.root.Path(file + ".away"), site.device.root.Path(file));
    };
}
/// Folders that are in the way of the status file.
const Act kPlant = [](Site& site) {
    const fs::path file = site.device.root.Path("/tmp/.zarorelayd.status");
    fs::remove(file);
    fs::create_directories(file / "x");
    fs::create_directories(file.string() + ".tmp." + std::to_string(site.device.Daemon().Pid()) +
                           "/x");
};
/// Has log-ins begin with this shell command; $2 is the password file.
const auto Wrap = [](auto command) -> Act { return [=](Site& s) { s.device.WrapSsh(command); }; };

const Act kServeNowhere = [](Site& site) { site.web.reset(); };
const Act kServeElsewhere = [](Site& site) {
    site.web = std::make_unique<WebService>("web");
    site.device.Define("web", site.web->Port());
};
const Act kServeSilence = [](Site& site) { site.device.Define("web", site.mute.port); };
/// Changes that come at once.
const auto Ip = [](const std::string& changes) -> Act {
    const std::string line = R"(printf 'a %s %s/24 dev eth0\n' )" + changes + " | ip -b -";
    return [=](Site&) { EXPECT_EQ(system(line.c_str()), 0) << line; };
};

/// The control server's answer does not wait for a time limit.
const Act kHears = [](Site& site) {
    EXPECT_TRUE(Takes("an answer", kNetwork, [&] { return site.Word() == "+web"; }));
};

const std::string kConfig = Device::kConfig;
const std::string kHosts = "/usr/zaro/etc/ssh/known_hosts";
const std::string kSsh = "/usr/zaro/bin/ssh";
const std::string kStatus = "/tmp/.zarorelayd.status";
const std::string kTmp = "/tmp";

struct Row {
    const char* name;
    const char* shows;  ///< while it lasts; empty for what mends itself at once
    int kind;           ///< Kinds together
    milliseconds bound; ///< until visitors get through again
    Act act;
    Act heal = kHeal;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

const Row kRows[] = {
    // Silent losses come first: they take long.
    {"ControlForgets", "+web", kSame, kSilent, On(kControl, kLoses, kOld), kWait},
    {"BothForget", "~web", kNew, kSilent, On(kBoth, kLoses, kOld), kWait},
    {"RelayForgetsUpwards", "~web", kNew, kSilent, On(kRelay, kLosesUp, kOld)},
    {"RelayForgetsDownwards", "~web", kNew, kSilent, On(kRelay, kLosesDown, kOld)},
    {"RelayForgetsTwo", "~web~photo", kNew | kPhoto, kSilent, On(kRelay, kLoses, kOld)},
    {"RelayIsBlackHole", "-web", kNew, kSilent, On(kRelay, kLoses, kStay)},
    {"RelayNeverAnswers", "-web", kNew, kSilent, On(kRelay, kLoses)},
    {"ControlNeverAnswers", "+web", kSame, kSilent, On(kControl, kLoses)},
    {"StartsUnanswered", "err_network -web", kNew | kRegisters, kSilent + kHub,
     On(kBoth, kLoses) + kKill + kStart},
    // The control server's path.
    {"ControlIsReset", "", kSame, kClean, On(kControl)},
    {"ControlEnds", "", kSame, kClean, On(kControl, {}, kEnd)},
    {"ControlRefuses", "err_network +web", kSame, kClean, On(kControl, kRefuses)},
    {"ControlIsHeld", "+web", kSame, kClean, On(kControl, kHolds, kStay)},
    {"ControlIsGarbled", "err_network +web", kSame, kClean, On(kControl, kGarbles)},
    {"ControlCrawls", "+web", kSame, kClean, On(kControl, Delays(kNow, 1))},
    {"ControlEndsInHandshake", "err_network +web", kSame, kClean, On(kControl, EndsAfter(100))},
    // The relay's path.
    {"RelayIsReset", "", kNew, kClean, On(kRelay)},
    {"RelayIsHeld", "~web", kSame, kClean, On(kRelay, kHolds, kStay)},
    {"RelayIsHeldInLogIn", "-web", kNew, kClean, On(kRelay, kHolds)},
    {"RelayIsGarbled", "-web", kNew, kSilent, On(kRelay, kGarbles, kStay)},
    {"RelayIsSlow", "+web", kNew, kClean, On(kRelay, Delays(milliseconds(100)))},
    {"RelayCrawls", "+web", kNew, kClean, On(kRelay, Delays(kNow, 1))},
    {"RelayEndsInLogIn", "-web", kNew, kTries, On(kRelay, EndsAfter(1500))},
    {"OneOfTwoIsWithdrawnOffline", "err_network +web", kPhoto, kHub,
     On(kControl, kRefuses) + Shows("err_network +web+photo") + kWithdraw, kOffer + kHeal},
    {"RelayRefusesOneOfTwo", "+web-photo", kPhoto, kTries,
     On(kRelay, kRefuses, kStay) + Ssh(SIGKILL, "photo")},
    // Both at once, as when the device's own line fails.
    {"BothRefuse", "err_network -web", kNew, kTries, On(kBoth, kRefuses)},
    {"AllIsLost", "", kNew, kHub, Ssh(SIGKILL) + On(kBoth) + kEndHub + kStartHub},
    // The SSH client and its log-in.
    {"SshFreezes", "~web", kSame, kClean, Ssh(SIGSTOP), Ssh(SIGCONT)},
    {"RelayIsAwayAfterLosses", "-web", kNew, kTries,
     5 * kLose + 3 * (kUp + Ssh(SIGKILL)) + On(kRelay, kRefuses) + Shows("-web", seconds(9))},
    {"OneOfTwoIsKilled", "", kPhoto, kClean, Ssh(SIGKILL, "photo"), kWait},
    {"SshIsGone", "-web", kNew, kTries, Take(kSsh) + Ssh(SIGKILL), Back(kSsh)},
    {"PasswordIsWrong", "-web", kNew, kTries, Wrap("echo wrong >\"$2\"") + Ssh(SIGKILL),
     Back(kSsh)},
    // The hub.
    {"HubIsRestarted", "", kNew, kHub, kEndHub + kStartHub},
    {"HubIsDown", "err_network -web", kNew, kHub, kEndHub, kStartHub},
    {"HubFreezes", "~web", kSame, kClean, Hub(SIGSTOP), Hub(SIGCONT)},
    {"HubForgetsAll", "", kNew | kRegisters, kSilent, kEndHub + kHubForgets + kStartHub, kWait},
    {"HubHasNewCertificate", "", kNew, kHub, kEndHub + Lose("https.pem") + kStartHub},
    {"HubHasNewHostKey", "-web", kNew, kTries, kEndHub + Lose("relay.key") + kStartHub,
     Take(kHosts)},
    {"HubRunsOutOfPorts", "err_server_limit -web-photo", kNew | kPhoto | kRegisters, kHub,
     kEndHub + kHubForgets + Pool(1) + kStartHub, kEndHub + Pool(90) + kStartHub + kReload},
    // The daemon.
    {"DaemonIsKilled", "not_running +web", kNew | kRegisters, kHub, kKill, kStart},
    {"DaemonIsStopped", "not_running ", kNew | kRegisters, kHub, kStop, kStart},
    {"DaemonFreezes", "+web", kSame, kClean, kUp + Daemon(SIGSTOP), Daemon(SIGCONT)},
    {"StartsOffline", "err_network -web", kNew | kRegisters, kSilent,
     On(kBoth, kRefuses) + kKill + kStart},
    {"DaemonIsReloadedOften", "", kSame, kClean, 200 * kReload},
    {"DaemonIsAskedOften", "", kSame, kClean, 200 * Daemon(SIGUSR1)},
    {"DescriptorsAreShort", "~web", kNew, kTries, Descriptors(3) + On(kBoth), Descriptors(1024)},
    // Files of the device.
    {"StatusFileIsGone", "not_running ", kNew, kClean, Take(kStatus), Ssh(SIGKILL)},
    {"StatusFileIsAFolder", "", kNew, kClean, kPlant + Ssh(SIGKILL), kWait},
    {"TmpIsNoFolder", "not_running ", kNew, kTries, Take(kTmp, "") + Ssh(SIGKILL), Back(kTmp)},
    {"ConfigurationIsGone", "+web", kSame, kClean, Take(kConfig) + kReload,
     Back(kConfig) + kReload},
    {"ConfigurationIsGarbled", "+web", kSame, kClean, Take(kConfig, "{\"serv") + kReload,
     Back(kConfig) + kReload},
    {"KnownHostsAreGarbled", "", kNew, kClean, Take(kHosts, "\n\x01 x\n") + On(kRelay)},
    // Local services.
    {"ServiceRefuses", "?web", kNew, kNetwork, kServeNowhere + kReload, kServeElsewhere + kReload},
    {"ServiceHangs", "~web", kNew, kNetwork, kServeSilence + kReload, kServeElsewhere + kReload},
    {"ServiceMoves", "", kNew, kNetwork, kServeElsewhere + kReload},
    // The network.
    {"AddressChanges", "", kNew | kAddress, kNetwork, Ip("add 10.9.1.2 del 10.9.0.2"), kWait},
    {"AddressChangesUnheard", "login +web", kNew | kAddress, kNetwork,
     On(kControl, kLoses) + Ip("add 10.9.1.2 del 10.9.0.2"), kHeal + kHears},
    {"AddressIsGone", "-web", kNew | kAddress, kNetwork, Ip("del 10.9.0.2"), Ip("add 10.9.1.2")},
    {"OtherAddressComes", "", kAddress | kSecond, kNetwork, Ip("add 10.9.1.2"), kWait},
    {"SecondAddressIsGone", "-web", kNew | kAddress | kSecond, kNetwork, Ip("del 10.9.0.3"),
     Ip("add 10.9.0.3")},
    {"AddressBlinks", "", kAddress, kNetwork, Ip("del 10.9.0.2 add 10.9.0.2"), kWait},
};

/// Enters a network of this process's own, with a first port; that takes no privilege.
void EnterNetwork() {
    ASSERT_TRUE(EnterNamespaces(CLONE_NEWUSER | CLONE_NEWNET)) << strerror(errno);
    ASSERT_EQ(system("ip link set lo up && ip link add eth0 type veth peer name eth1 && ip addr "
                     "add 10.9.0.2/24 dev eth0 && ip addr add 10.9.0.3/24 dev eth0 && ip link "
                     "set eth0 up && ip link set eth1 up"),
              0);
}

/// How long the machine keeps a program from running, seen by one that does nothing but look.
class Stalls : NoCopy {
public:
    ~Stalls() {
        ends_ = true;
        thread_.join();
    }
    int LongestMs() const { return longest_; }

private:
    void Look() {
        while (!ends_) {
            const auto start = Clock::now();
            poll(nullptr, 0, 5);
            const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
            longest_ = std::max(longest_.load(), static_cast<int>(took.count()));
        }
    }

    std::atomic<bool> ends_{false};
    std::atomic<int> longest_{0};
    std::thread thread_{[this] { Look(); }};
};

struct Faults : testing::TestWithParam<Row> {};

TEST_P(Faults, Heal) {
    const Row& row = GetParam();
    // On a disk, whoever replaces a file may have to wait for other programs' files.
    const bool inMemory = EnterDiskInMemory("512m");
    if ((row.kind & kAddress) != 0) {
        ASSERT_NO_FATAL_FAILURE(EnterNetwork());
    }
    Site site(row.kind);
    const Stalls stalls;
    Device& device = site.device;
    const std::string good = (row.kind & kPhoto) != 0 ? "+web+photo" : "+web";
    device.Start();
    Shows(good)(site);
    ASSERT_TRUE(!HasFailure() && device.ComesToRest()) << device.Log();
    const pid_t ssh = device.Ssh("web");
    const int port = device.RelayPort("web");
    const std::size_t holds[] = {site.Holds(false), site.Holds(true)};
    const long kb = site.Kb();
    const std::size_t registrations = site.hub.Registrations();
    const std::size_t attempts = site.Attempts();
    const Json::Value before = site.Dump();

    row.act(site);
    *row.shows != 0 ? Shows(row.shows, seconds(1))(site) : void();
    row.heal(site);
    EXPECT_TRUE(Takes(row.name, row.bound, [&] {
        return site.Serves("web") && (site.Serves("photo") || good == "+web");
    })) << site.Word();
    EXPECT_TRUE(Takes("the status", kSilent, [&] { return site.Word() == good; })) << site.Word();

    EXPECT_EQ(device.Ssh("web") != ssh, (row.kind & kNew) != 0);
    EXPECT_EQ(device.RelayPort("web"), port);
    const bool registers = (row.kind & kRegisters) != 0;
    EXPECT_LE(site.hub.Registrations() - registrations, registers ? 4U : 0U);
    EXPECT_TRUE(WaitFor([&] { return site.Holds(false) == holds[0]; })) << site.Holds(false);
    EXPECT_LE(site.Holds(true), holds[1] + 1); // libcurl may keep a connection at hand
    EXPECT_LE(site.Kb(), kb + kMostKb);
    EXPECT_LE(site.Attempts() - attempts, kMostAttempts);
    const Json::Value after = site.Dump();
    const int passes = after["passes"].asInt() - before["passes"].asInt();
    EXPECT_LE(passes, kMostPasses);
    const Json::Value& steps = after["longest_ms"];
    std::cout << "[ measured ] " << site.Kb() - kb << " kB, " << site.Attempts() - attempts
              << " attempts, " << passes << " passes, steps " << Compact(steps) << std::endl;
    for (const std::string& step : steps.getMemberNames()) {
        if (inMemory && step != "a log-in") {
            EXPECT_LE(steps[step].asInt(), kLongestStep + stalls.LongestMs()) << step;
        }
    }
    // Whatever it went through, it hears of a change and acts on it.
    device.Reload([](Json::Value& now) { now["service"].append(Parse(R"({"id":"late"})")); });
    EXPECT_TRUE(Takes("a new service", row.bound + kNetwork, [&] {
        return site.Word() == good + "+late";
    })) << site.Word();
    EXPECT_GT(device.Ssh("web"), 0);
    EXPECT_GT(device.Ssh("late"), 0);
    if (HasFailure()) {
        std::cout << device.Log();
    }
}

INSTANTIATE_TEST_SUITE_P(All, Faults, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

} // namespace
