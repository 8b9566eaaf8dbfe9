#include <sys/file.h>

#include <zarorelayd/file_lock.h>
#include <zarorelayd/zarorelayd.h>

#include "tests/support/device.h"

using ZarorelaydFaults = DeviceTest;

TEST_F(ZarorelaydFaults, HearsTheHubDuringALogIn) {
    device.WrapSsh("sleep 1"); // longer than the hub waits with its word
    StartUp();
    ASSERT_TRUE(device.ComesToRest());
    const std::string ask = "\"command\":\"wait_command\"";
    const std::size_t asked = Count(device.Log(), ask);
    ASSERT_TRUE(device.SignalSsh("web"));
    // The hub reports the lost tunnel while the new one is being built.
    EXPECT_TRUE(Takes("the hub's word during a log-in", seconds(3),
                      [&] { return Count(device.Log(), ask) > asked; }));
}

TEST_F(ZarorelaydFaults, DropsAnotherDevicesId) {
    device.root.Write("/usr/zaro/bin/zarowosnotify",
                      "#!/bin/sh\necho notified >> \"$ZARO_ROOT/notified\"\n", 0755);
    device.config["serverID"] = "044756784";
    StartUp();
    const std::string id = device.Status()["serverID"].asString();
    device.Enter();
    EXPECT_EQ(TLIBRelaydVerifyServerId(id.c_str()), 1);
    device.Reload([&](Json::Value& now) { EXPECT_EQ(now["serverID"], id); });
    EXPECT_TRUE(WaitFor([&] { return device.Logs("configuration reloaded"); }));
    EXPECT_EQ(device.root.Read("/notified"), "notified\n");
    EXPECT_EQ(hub.Registrations(), 1U);
    // An older copy of the file is put back, the first time while another program holds the lock.
    const auto drop = [](Json::Value& now) { now.removeMember("serverID"); };
    FileLock editor(device.root.Path("/usr/zaro/etc/.zarorelayd.conf.lock").c_str());
    EXPECT_TRUE(editor.Lock(LOCK_EX));
    device.Reload(drop);
    EXPECT_TRUE(WaitFor([&] { return device.Logs("the server id is not written"); }));
    EXPECT_FALSE(device.ReadJson(Device::kConfig).isMember("serverID"));
    editor.Unlock();
    device.Reload(drop);
    EXPECT_TRUE(WaitFor([&] { return device.ReadJson(Device::kConfig)["serverID"] == id; }));
}

TEST_F(ZarorelaydFaults, LeavesABrokenConfigurationToItsOwner) {
    StartUp();
    const std::string broken = "{\"service\":[{\"id\":\"web\"},]}";
    device.root.Write(Device::kConfig, broken, 0600);
    hub.Kill();
    for (const char* file : {"/hub.db", "/hub.db-wal", "/hub.db-shm"}) {
        fs::remove(hub.Data() + file);
    }
    hub.Start();
    EXPECT_TRUE(Within(seconds(20), [&] { return device.Logs("the server id is not written"); }));
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); }));
    EXPECT_EQ(device.root.Read(Device::kConfig), broken);
    device.root.Write("/etc/zaroinfo.conf", "runrelayd=\"no\"\n");
    device.Daemon().Signal(SIGHUP);
    EXPECT_TRUE(WaitFor([&] { return device.Ssh("web") < 0; })); // the switch works nevertheless
}

TEST_F(ZarorelaydFaults, IsQuietWhenItsTokenIsRefused) {
    const char* const keyFile = "/usr/zaro/etc/device.key";
    const std::string serial = "serial=\"TESTDEVICE\"\nsecret=\"";
    device.root.Write(keyFile, serial + std::string(64, '1') + "\"\n", 0600);
    StartUp();
    Device thief(hub, "02");
    thief.root.Write(keyFile, serial + std::string(64, '2') + "\"\n", 0600);
    thief.Start();
    const auto isRefused = [&] { return thief.Status()["error"] == ZARO::Relay::RELAYD_RET_AUTH; };
    EXPECT_TRUE(WaitFor(isRefused));
    EXPECT_FALSE(Within(seconds(4), [&] { return hub.Count("is not admitted") > 2; })) << hub.Log();
    EXPECT_GE(hub.Count("is not admitted"), 1U);
    EXPECT_EQ(hub.Registrations(), 1U);
    EXPECT_TRUE(device.Serves(web));
}

TEST(ZarorelaydAlias, IsKeptUntilItRunsOut) {
    const HubProcess hub(50, "--alias-ttl 3");
    Device owner(hub, "01");
    Device rival(hub, "02");
    const auto is = [](const Device& device, const std::string& text) {
        const Json::Value now = device.ReadJson("/tmp/farlink_alias.status");
        return now["alias_name"].asString() + " " + now["status"].asString() == text;
    };
    for (Device* device : {&owner, &rival}) {
        Json::Value& alias = device->config["server_alias"];
        alias["url"] = "https://127.0.0.1:" + std::to_string(hub.HttpsPort());
        alias["poll_seconds"] = 1;
        alias["alias"] = device == &owner ? "nas" : "";
        device->Start();
    }
    ASSERT_TRUE(WaitFor([&] { return is(owner, "nas success"); }));
    // Longer than it lasts without a renewal.
    EXPECT_FALSE(Within(seconds(4), [&] { return !is(owner, "nas success"); }));
    const std::tuple<Device&, const char*, const char*> steps[] = {
        {rival, "nas", "nas error_inused"},
        {owner, "", "nas deleted"},
        {rival, "other", "other success"},
        {rival, "nas", "nas success"}};
    for (const auto& [device, name, text] : steps) {
        device.Reload([&, to = name](Json::Value& now) { now["server_alias"]["alias"] = to; });
        EXPECT_TRUE(WaitFor([&, &asked = device, word = text] { return is(asked, word); })) << text;
    }
    rival.Daemon().Signal(SIGKILL); // now nobody renews it
    int interval = 1;
    EXPECT_TRUE(WaitFor([&] { // a refusal holds until the settings change
        owner.Reload([&](Json::Value& now) {
            now["server_alias"]["alias"] = "nas";
            now["server_alias"]["poll_seconds"] = ++interval;
        });
        return Within(milliseconds(500), [&] { return is(owner, "nas success"); });
    }));
}
