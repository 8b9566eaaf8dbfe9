/// Faults around a device, row by row: while one lasts, the status shows it; afterwards everything
/// is as before.
#include <atomic>
#include <thread>

#include "tests/support/fault_acts.h"
#include "tests/support/namespaces.h"

namespace {

/// The most that a fault may cost until all is well: requests, log-ins and connections together;
/// passes of the daemon's loop; memory (the heap keeps what the first failures needed, a sanitizer
/// what was freed last); and the longest step of the loop, in ms.
constexpr std::size_t kMostAttempts = 50;
constexpr int kMostPasses = 2000;
constexpr long kMostKb = kSlow == 1 ? 512 : 65536;
constexpr int kLongestStep = 200 * kSlow;

struct Row {
    const char* name;
    const char* shows;  ///< while it lasts; empty: it mends itself at once
    int kind;           ///< Kinds, combined
    milliseconds bound; ///< until visitors get through again
    Act act;
    Act heal = kHeal;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

const Row kRows[] = {
    // Silent losses come first: they take the longest.
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
    // Both paths at once, as when the device's own line fails.
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

/// Enters a network of this process's own with one port; this needs no privilege.
void EnterNetwork() {
    ASSERT_TRUE(EnterNamespaces(CLONE_NEWUSER | CLONE_NEWNET)) << strerror(errno);
    ASSERT_EQ(system("ip link set lo up && ip link add eth0 type veth peer name eth1 && ip addr "
                     "add 10.9.0.2/24 dev eth0 && ip addr add 10.9.0.3/24 dev eth0 && ip link "
                     "set eth0 up && ip link set eth1 up"),
              0);
}

/// Measures how long the machine keeps a program from running, by a thread that only looks.
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
    // On a disk, replacing a file may have to wait for other programs' files.
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
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(device.ComesToRest());
    const pid_t ssh = device.Ssh("web");
    const int port = device.RelayPort("web");
    const std::size_t holds[] = {site.Holds(false), site.Holds(true)};
    const long kb = site.Kb();
    const std::size_t registrations = site.hub.Registrations();
    const std::size_t attempts = site.Attempts();
    const Json::Value before = device.Dump();

    row.act(site);
    if (*row.shows != '\0') {
        Shows(row.shows, seconds(1))(site);
    }
    row.heal(site);
    EXPECT_TRUE(Takes(row.name, row.bound, [&] {
        return device.Serves("web") && (device.Serves("photo") || good == "+web");
    })) << site.Word();
    EXPECT_TRUE(Takes("the status", kSilent, [&] { return site.Word() == good; })) << site.Word();

    EXPECT_EQ(device.Ssh("web") != ssh, (row.kind & kNew) != 0);
    EXPECT_EQ(device.RelayPort("web"), port);
    EXPECT_LE(site.hub.Registrations() - registrations, (row.kind & kRegisters) != 0 ? 4U : 0U);
    EXPECT_TRUE(WaitFor([&] { return site.Holds(false) == holds[0]; })) << site.Holds(false);
    EXPECT_LE(site.Holds(true), holds[1] + 1); // libcurl may keep a connection
    EXPECT_LE(site.Kb(), kb + kMostKb);
    EXPECT_LE(site.Attempts() - attempts, kMostAttempts);
    const Json::Value after = device.Dump();
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
    // It still notices a change and acts on it.
    device.Reload([](Json::Value& now) { now["service"].append(Parse(R"({"id":"late"})")); });
    EXPECT_TRUE(Takes("a new service", row.bound + kNetwork, [&] {
        return site.Word() == good + "+late";
    })) << site.Word();
    EXPECT_GT(device.Ssh("web"), 0);
    EXPECT_GT(device.Ssh("late"), 0);
}

INSTANTIATE_TEST_SUITE_P(All, Faults, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

} // namespace
