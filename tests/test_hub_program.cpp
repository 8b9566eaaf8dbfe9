/// The program itself: command line, start, signals, sudden death, shortage of descriptors.
#include <sys/resource.h>

#include <future>
#include <list>

#include <gmock/gmock.h>

#include "tests/support/hub_kit.h"
#include "tests/support/temp_root.h"

namespace ZARO::RelayHub {
namespace {

std::string OutcomeOf(const std::string& options) {
    const TempRoot root;
    std::filesystem::create_directories(root.Dir() + "/foreign/lock");
    return Outcome(Words(options, {ZARO_HUB}), root.Dir());
}

TEST(HubProgram, RefusesAWrongCommandLineInOneLine) {
    const std::pair<const char*, const char*> kRows[] = {
        {"", "2 .*--data is required"},
        {"--data x --frobnicate", "2 .*--frobnicate"},
        {"--data x --http-port 70000", "2 .*--http-port: expected a number"},
        {"--data x --relay-port ssh", "2 .*--relay-port: expected a number"},
        {"--data x --ports 300-200", "2 .*--ports: expected a range"},
        {"--data x --address localhost", "2 .*--address: expected an IP address"},
        {"--data x --host a,DNS:b", "2 .*--host: expected a host name"},
        {"--data x --log-level 9", "2 .*--log-level: expected a number from 3 to 7"},
        {"--data /proc/none", "1 .*can't make /proc/none"},
        {"--data usr", "1 .*no hub's alone"},
        {"--data foreign", "1 .*no hub's alone"},
        {"--version", "0 zarorelay-hub "}};
    for (const auto& [options, pattern] : kRows) {
        const std::string outcome = OutcomeOf(options);
        EXPECT_THAT(outcome, testing::ContainsRegex(std::string("^") + pattern));
        EXPECT_EQ(outcome.find('\n'), outcome.size() - 1) << outcome;
    }
    EXPECT_THAT(OutcomeOf("--help"), testing::ContainsRegex("^0 .*\n.*--alias-ttl"));
}

TEST(HubProgram, RefusesASecondHub) {
    const HubProcess hub;
    EXPECT_THAT(OutcomeOf("--data " + hub.Data()), testing::ContainsRegex("^1 .*another hub"));
    EXPECT_THAT(OutcomeOf("--data x --relay-port " + std::to_string(hub.RelayPort())),
                testing::ContainsRegex("^1 .*Address already in use"));
}

TEST(HubProgram, EndsInOrderWhileHoldingSessions) {
    const HubProcess hub;
    TestDevice device(hub, 1, "web");
    const TestTunnel tunnel(hub, device.Tunnels()["web"]);
    const Visitor idle(hub.HttpsPort()); // never speaks
    hub.End();
}

TEST(HubProgram, ShortageOfDescriptorsOnlyDelays) {
    const HubProcess hub;
    TestDevice device(hub, 1, "web");
    const Json::Value web = device.Tunnels()["web"];
    TestTunnel tunnel(hub, web);
    const Visitor served(web["relay_port"].asInt());
    const ssh_channel channel = tunnel.Accept();

    const pid_t pid = hub.Program().Pid();
    rlimit before{};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit low{10, before.rlim_max}; // poll() works, but all of them are taken
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &low, nullptr), 0);
    std::list<Visitor> waiting;
    for (int i = 0; i < 5; ++i) {
        waiting.emplace_back(web["relay_port"].asInt());
    }
    const Visitor stranger(hub.RelayPort());
    EXPECT_TRUE(WaitFor([&] { return hub.Count("visitors of port") > 0; })) << hub.Log();
    ASSERT_TRUE(TestTunnel::Write(channel, "still here"));
    EXPECT_EQ(served.Read(10), "still here");

    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &before, nullptr), 0);
    for (const Visitor& visitor : waiting) {
        EXPECT_TRUE(tunnel.Serves(visitor));
    }
    EXPECT_EQ(stranger.Read(4), "SSH-") << "it waited, too";
}

} // namespace
} // namespace ZARO::RelayHub
