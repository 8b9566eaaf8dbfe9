#include <gtest/gtest.h>

#include "tests/support/device.h"
#include "tests/support/fault_proxy.h"

namespace {

/// Logs in at the relay as the daemon would that has lost its connection without being told.
struct Takeover : testing::Test {
    /// Has the daemon log in once, keeps how it did, and sends it away.
    void LearnLogIn() {
        device.Publish(web);
        device.UseRelay(proxy.Port());
        device.WrapSsh("cp -p $2 $ZARO_ROOT/kept\n"
                       "echo \"cp -p $ZARO_ROOT/kept $2; exec $0.away $*\" > $ZARO_ROOT/again");
        device.Start();
        ASSERT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Log();
        port = device.RelayPort("web");
        device.Daemon().Signal(SIGTERM);
        ASSERT_EQ(device.Daemon().Wait(seconds(10)), 0);
    }

    /// Whether a log-in succeeds; the visitors that knock meanwhile may not be `refused`.
    bool LogsIn(int& refused) {
        Process client({"/bin/sh", device.root.Path("/again")}, "/dev/null", "/", device.Mark());
        (void)WaitFor([&] {
            refused += Visitor(port).IsRefused();
            return client.Wait(milliseconds(0)) != Process::kRuns;
        });
        return client.Wait(milliseconds(0)) == 0;
    }

    HubProcess hub;
    FaultProxy proxy{hub.RelayPort()};
    const WebService web{"web"};
    Device device{hub};
    int port = 0;
};

TEST_F(Takeover, WaitsForNoGhost) {
    ASSERT_NO_FATAL_FAILURE(LearnLogIn());
    int refused = 0;
    ASSERT_TRUE(LogsIn(refused)) << device.Log();
    refused = 0; // before that nobody held the port
    for (int round = 0; round < 200; ++round) {
        const pid_t ghost = device.Ssh("web");
        ASSERT_GT(ghost, 0) << round;
        round % 2 == 0 ? (void)kill(ghost, SIGSTOP) : proxy.Set(kLoses, false);
        ASSERT_TRUE(LogsIn(refused)) << round << device.Log();
        ASSERT_EQ(Greeting(port), "web") << round;
        kill(ghost, SIGKILL);
        ASSERT_EQ(waitpid(ghost, nullptr, 0), ghost);
    }
    EXPECT_EQ(refused, 0);
    device.Start();
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Log();
    EXPECT_EQ(device.RelayPort("web"), port);
}

} // namespace
