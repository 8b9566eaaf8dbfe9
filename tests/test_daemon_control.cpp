// What other programs see of a daemon that is busy, and the alias it keeps at the hub.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/device.h"

namespace {

using DaemonControl = DeviceTest;

TEST_F(DaemonControl, TellsTheWholeTruthWhileItIsBusy) {
    PublishMore(49);
    device.Start();
    ASSERT_TRUE(WaitFor([&] { return device.Status().isObject(); }));
    std::atomic<bool> over{false};
    int looks = 0;
    int broken = 0;
    std::thread reader([&] { // a half-written file would not parse
        for (; !over; ++looks) {
            broken += Parse(device.root.Read("/tmp/.zarorelayd.status")).isObject() ? 0 : 1;
        }
    });
    for (int i = 0; i < 200; ++i) {
        if (i % 20 == 0) { // a batch for the server, and one tunnel less or more
            device.Reload([&](Json::Value& now) { now["service"].resize(i % 40 == 0 ? 49 : 50); });
        }
        Json::Value dump;
        EXPECT_TRUE(device.AnswersADump(dump)) << i;
        EXPECT_TRUE(dump["tunnels"].isArray()) << i;
    }
    over = true;
    reader.join();
    EXPECT_EQ(broken, 0) << "of " << looks;
    EXPECT_GT(looks, 200);
    const std::string pid = std::to_string(device.Daemon().Pid());
    EXPECT_FALSE(std::filesystem::exists(device.root.Path("/tmp/.zarorelayd." + pid + ".debug")));
}

TEST(DaemonAlias, IsKeptUntilItRunsOut) {
    const HubProcess hub(50, "--alias-ttl 3");
    Device owner(hub, "01");
    Device rival(hub, "02");
    const auto set = [&](const Device& device, const std::string& name) {
        device.Reload([&](Json::Value& now) { now["server_alias"]["alias"] = name; });
    };
    const auto is = [](const Device& device, const std::string& name, const std::string& status) {
        const std::string file = device.root.Read("/tmp/farlink_alias.status");
        return file.find("\"" + name + "\"") != std::string::npos &&
               file.find("\"" + status + "\"") != std::string::npos;
    };
    const auto becomes = [&](const Device& device, const std::string& name,
                             const std::string& status) {
        return WaitFor([&] { return is(device, name, status); });
    };
    for (Device* device : {&owner, &rival}) {
        Json::Value& alias = device->config["server_alias"];
        alias["url"] = "https://127.0.0.1:" + std::to_string(hub.HttpsPort());
        alias["poll_seconds"] = 1;
        alias["alias"] = device == &owner ? "nas" : "";
        device->Start();
    }
    ASSERT_TRUE(becomes(owner, "nas", "success")) << owner.Log();
    // Longer than it would last unless it were kept alive.
    EXPECT_FALSE(Within(seconds(4), [&] { return !is(owner, "nas", "success"); }));
    set(rival, "nas");
    EXPECT_TRUE(becomes(rival, "nas", "error_inused")) << rival.Log();
    set(owner, "");
    EXPECT_TRUE(becomes(owner, "nas", "deleted")) << owner.Log();
    set(rival, "other");
    EXPECT_TRUE(becomes(rival, "other", "success")) << rival.Log();
    set(rival, "nas");
    EXPECT_TRUE(becomes(rival, "nas", "success")) << rival.Log();
    rival.Daemon().Signal(SIGKILL); // nobody keeps it alive any more
    int interval = 1;
    EXPECT_TRUE(WaitFor([&] { // a refusal holds until the settings change
        owner.Reload([&](Json::Value& now) {
            now["server_alias"]["alias"] = "nas";
            now["server_alias"]["poll_seconds"] = ++interval;
        });
        return Within(milliseconds(500), [&] { return is(owner, "nas", "success"); });
    })) << owner.Log();
}

} // namespace
