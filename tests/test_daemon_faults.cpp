#include <gtest/gtest.h>

#include <sys/file.h>

#include <string>

#include <zarorelayd/file_lock.h>
#include <zarorelayd/zarorelayd.h>

#include "tests/support/device.h"

namespace {

/// One service that is up at the relay.
struct DaemonFaults : testing::Test {
    DaemonFaults() : web("web"), device(hub) { device.Publish(web); }

    void Start() {
        device.Start();
        ASSERT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(web); }))
            << device.Log();
        ASSERT_GT(device.Ssh("web"), 0);
    }

    HubProcess hub;
    const WebService web;
    Device device;
};

TEST_F(DaemonFaults, HearsTheHubDuringALogIn) {
    device.WrapSsh("sleep 1"); // longer than the hub waits before it tells
    Start();
    ASSERT_TRUE(device.ComesToRest());
    const std::string ask = "\"command\":\"wait_command\"";
    const std::size_t asked = Count(device.Log(), ask);
    ASSERT_TRUE(device.SignalSsh("web"));
    // That the port is down comes while the new tunnel is being built.
    EXPECT_TRUE(Takes("the hub's word during a log-in", seconds(3),
                      [&] { return Count(device.Log(), ask) > asked; }));
}

TEST_F(DaemonFaults, DropsAnotherDevicesId) {
    Device other(hub, "02");
    other.Start();
    ASSERT_TRUE(WaitFor([&] { return other.IsConnected(); })) << other.Log();
    device.root.Write("/usr/zaro/bin/zarowosnotify",
                      "#!/bin/sh\necho \"$*\" >> \"$ZARO_ROOT/notified\"\n", 0755);
    device.config["serverID"] = other.Status()["serverID"];
    Start();
    const std::string id = device.Status()["serverID"].asString();
    device.Enter();
    EXPECT_EQ(TLIBRelaydVerifyServerId(id.c_str()), 1);
    EXPECT_NE(id, other.Status()["serverID"].asString());
    device.Reload([&](Json::Value& now) { EXPECT_EQ(now["serverID"], id); });
    EXPECT_TRUE(WaitFor([&] { return device.Logs("configuration reloaded"); }));
    EXPECT_EQ(device.root.Read("/notified"),
              "@administrators relayservice:relayservice_serverid_change_title "
              "relayservice:relayservice_serverid_change_msg\n");
    EXPECT_EQ(hub.Registrations(), 2U);
    // An older copy of the file is put back, at first while somebody else changes it.
    const auto drop = [](Json::Value& now) { now.removeMember("serverID"); };
    FileLock editor(device.root.Path("/usr/zaro/etc/.zarorelayd.conf.lock").c_str());
    EXPECT_TRUE(editor.Lock(LOCK_EX));
    device.Reload(drop);
    EXPECT_TRUE(WaitFor([&] { return device.Logs("the server id is not written"); }));
    EXPECT_FALSE(Parse(device.root.Read(Device::kConfig)).isMember("serverID"));
    editor.Unlock();
    device.Reload(drop);
    EXPECT_TRUE(
        WaitFor([&] { return Parse(device.root.Read(Device::kConfig))["serverID"] == id; }));
}

TEST_F(DaemonFaults, LeavesABrokenConfigurationToItsOwner) {
    Start();
    const std::string broken = "{\"service\":[{\"id\":\"web\"},]}";
    device.root.Write(Device::kConfig, broken, 0600);
    hub.Kill();
    for (const char* file : {"/hub.db", "/hub.db-wal", "/hub.db-shm"}) {
        std::filesystem::remove(hub.Data() + file);
    }
    hub.Start();
    EXPECT_TRUE(Within(seconds(20), [&] { return device.Logs("the server id is not written"); }));
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Log();
    EXPECT_EQ(device.root.Read(Device::kConfig), broken);
    device.root.Write("/etc/zaroinfo.conf", "runrelayd=\"no\"\n");
    device.Daemon().Signal(SIGHUP);
    EXPECT_TRUE(WaitFor([&] { return device.Ssh("web") < 0; })); // switched off all the same
}

TEST_F(DaemonFaults, IsQuietWhenItsTokenIsRefused) {
    const char* const keyFile = "/usr/zaro/etc/device.key";
    const std::string serial = "serial=\"TESTDEVICE\"\nsecret=\"";
    device.root.Write(keyFile, serial + std::string(64, '1') + "\"\n", 0600);
    Start();
    Device thief(hub, "02");
    thief.root.Write(keyFile, serial + std::string(64, '2') + "\"\n", 0600);
    thief.Start();
    thief.Enter();
    std::string id;
    std::string state;
    std::string error;
    EXPECT_TRUE(WaitFor([&] {
        return ZARO::Relay::Daemon::GetStatus(id, state, error, nullptr) && state == "error";
    })) << thief.Log();
    EXPECT_EQ(error, "err_auth");
    EXPECT_FALSE(Within(seconds(4), [&] { return hub.Count("is not admitted") > 2; })) << hub.Log();
    EXPECT_GE(hub.Count("is not admitted"), 1U);
    EXPECT_EQ(hub.Registrations(), 1U);
    EXPECT_TRUE(device.Serves(web));
}

} // namespace
