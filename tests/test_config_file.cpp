#include <zarorelayd/config.h>

#include "tests/support/no_memory.h"
#include "tests/support/platform_standin.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

constexpr char kConf[] = "/usr/zaro/etc/zarorelayd.conf";
constexpr char kInfo[] = "/etc/zaroinfo.conf";
const std::string kHostA = "control-a.zaro.example", kHostB = "control-b.zaro.example";

struct ConfigFileTest : RootTest {
    ConfigFileTest() {
        gPlatform = {};
        root_.Write("/proc/sys/kernel/zaro_mac_address1", "02004caabbcc"); // its id: 044756784
        root_.Write("/usr/zaro/bin/zarowosnotify",
                    "#!/bin/sh\nprintf '%s\\n' \"$@\" >> \"$ZARO_ROOT/notified\"\n", 0755);
        root_.Write("/usr/zaro/etc/services.d/web.conf", "title=\"T\"\ntcp=\"80\"\n");
    }

    /// The record of a file with this text.
    RelaydConf Conf(const std::string& text) {
        root_.Write(kConf, text);
        return RelaydConf(root_.Path(kConf).c_str());
    }

    std::string File() { return Compact(Parse(root_.Read(kConf))); }

    const std::string x_ = root_.Path("/etc/x");
};

} // namespace

TEST_F(ConfigFileTest, MovesBrokenFilesAside) {
    Json::Value out = 7;
    for (const std::string& broken :
         {std::string(), std::string("{\0}", 3), std::string(1001, '[') + std::string(1001, ']')}) {
        root_.Write("/etc/x", broken);
        EXPECT_EQ(LogOf("config", 3, [&] { EXPECT_TRUE(RelaydConf::ReadJsonFile(x_, out)); }),
                  std::vector<std::string>{"bad json format [" + x_ + "]"});
        EXPECT_EQ(Signs({out.isNull(), fs::exists(x_)}), "+-") << broken.substr(0, 9);
        EXPECT_EQ(root_.Read("/etc/x.bad"), broken);
    }
    for (const char* fine : {"/* c */ {\"a\":1}", "5", "{\"\xff\xfe\":\"\xc3\x28\"}"}) {
        root_.Write("/etc/x", fine);
        EXPECT_TRUE(RelaydConf::ReadJsonFile(x_, out)) << fine;
        EXPECT_EQ(Signs({fs::exists(x_), !out.isNull()}), "++") << fine;
    }
    fs::remove(x_ + ".bad");
    root_.Write("/etc/x.bad/in the way", "");
    EXPECT_TRUE(Logs("config", 3, "rename " + x_ + " to .bad failed. Is a directory", [&] {
        root_.Write("/etc/x", "{");
        EXPECT_TRUE(RelaydConf::ReadJsonFile(x_, out));
    }));
    EXPECT_FALSE(fs::exists(x_)); // deleted
}

TEST_F(ConfigFileTest, ReplacesFilesWhole) {
    const std::string styled = "{\n   \"a\" : 1\n}\n";
    const mode_t mask = umask(077);
    EXPECT_TRUE(RelaydConf::WriteJsonFile(x_, Parse(styled)));
    umask(mask);
    EXPECT_EQ(fs::status(x_).permissions(), fs::perms(0644));
    EXPECT_EQ(root_.Read("/etc/x"), styled);
    EXPECT_EQ(Captured(STDOUT_FILENO, [] { RelaydConf::WriteJsonFile("-", Parse("[]")); }), "[]\n");
    fs::create_symlink(x_, x_ + "y.tmp." + std::to_string(getpid()));
    RelaydConf::WriteJsonFile(x_ + "y", 7);
    EXPECT_EQ(root_.Read("/etc/x"), styled); // a planted link was not followed
}

TEST_F(ConfigFileTest, JudgesFiles) {
    const std::tuple<const char*, bool, const char*> rows[] = {
        {R"({"service":[{"id":"web"},{"id":"web"}]})", true, ""},
        {R"({"service":{"0":1},"serverID":5,"log_level":3e9,"server_control":7})", true, ""},
        {R"({"service":[{"id":"web"},"web"]})", true, "invalid service config: 1"},
        {R"({"server_control":{"port":-1},"server_waitcmd":{"port":-1}})", false,
         "wrong control server config"},
        {R"({"server_waitcmd":{"host":""}})", false, "wrong wait cmd server config"},
        {"{", false, "invalid relayd config: can not overwrite default"}};
    for (const auto& [text, valid, fault] : rows) {
        root_.Write(kConf, text);
        const auto log = LogOf("config", 3, [&, isValid = valid] {
            RelaydConf conf(nullptr);
            EXPECT_EQ(conf.ReadConfigFile(root_.Path(kConf)), isValid);
            EXPECT_EQ(conf.log_level, 4);
            EXPECT_LT(conf.services.size(), 2U);
        });
        EXPECT_EQ(std::count(log.begin(), log.end(), fault), *fault != '\0') << text;
    }
    const RelaydConf missing(root_.Path("/etc/none").c_str());
    EXPECT_EQ(missing.control.GetUrl(nullptr) + " " + missing.waitcmd.GetUrl(nullptr),
              "https://" + kHostA + ":443/Serv.php http://" + kHostA + ":80/Serv.php");
}

TEST_F(ConfigFileTest, RewritesWholeOrOneKey) {
    // A file; then what it becomes when all of it, its server id or its alias is written.
    const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
        {R"({"x":1,"log_level":5,"service":[{"id":"web","port":9}]})",
         R"({"log_level":5,"serverID":"9","server_alias":{"alias":""},"service":[{"id":"web"}]})",
         R"({"log_level":5,"serverID":"9","service":[{"id":"web","port":9}],"x":1})",
         R"({"log_level":5,"server_alias":{"alias":"n"},"service":[{"id":"web","port":9}],"x":1})"},
        {R"({"server_control":{"host":"c"},"server_alias":{"y":2,"url":"u"}})",
         R"({"serverID":"9","server_alias":{"alias":"","url":"u"},"server_control":{"host":"c"},)"
         R"("service":[]})",
         R"({"serverID":"9","server_alias":{"url":"u","y":2},"server_control":{"host":"c"}})",
         R"({"server_alias":{"alias":"n","url":"u","y":2},"server_control":{"host":"c"}})"}};
    for (const auto& [file, whole, id, alias] : rows) {
        RelaydConf conf = Conf(file);
        conf.serverID = "9";
        EXPECT_TRUE(conf.WriteConfigFile(root_.Path(kConf)));
        EXPECT_EQ(File(), whole);
        root_.Write(kConf, file);
        EXPECT_TRUE(conf.WriteServerId(root_.Path(kConf)));
        EXPECT_EQ(File(), id);
        root_.Write(kConf, file);
        EXPECT_TRUE(conf.WriteAliasName(root_.Path(kConf), "n"));
        EXPECT_EQ(File(), alias);
    }
    EXPECT_FALSE(fs::exists(root_.Path("/notified")));
    RelaydConf conf = Conf("{}");
    EXPECT_EQ(Parse(Written(conf, true))["mode"], "async");
    conf.control.port = -1;
    EXPECT_EQ(Signs({conf.WriteServerId(""), conf.WriteAliasName("", "a"), conf.WriteConfigFile()}),
              "---");
    EXPECT_EQ(File(), "{}");
}

TEST_F(ConfigFileTest, DropsAnIdOnlyWhenItIsForeign) {
    const RelaydConf cut = Conf(R"({"serverID":"044756784\u0000x"})");
    EXPECT_EQ(cut.serverID, std::string("044756784\0x", 11));
    const char* const text = R"({"serverID":"044756784"})";
    RelaydConf conf = Conf(text);
    const Json::Value nothing(Json::objectValue);
    WithEachAllocationFailing([&] { conf.Overwrite(nothing); },
                              [&] { ASSERT_EQ(conf.serverID, "044756784"); });
    EXPECT_FALSE(conf.serverIdCleared);
    Json::Value out;
    const auto read = [&] { RelaydConf::ReadJsonFile(conf.path, out); };
    WithEachAllocationFailing(read, [&] {
        ASSERT_TRUE(fs::exists(conf.path));
        ASSERT_THAT(Compact(out), testing::AnyOf("null", text));
    });
}

TEST_F(ConfigFileTest, DropsAForeignServerIdAndTellsOnce) {
    RelaydConf conf = Conf(R"({"serverID":"044756785"})");
    EXPECT_EQ(Signs({conf.serverIdCleared, conf.serverID.empty()}), "++");
    EXPECT_FALSE(conf.WriteConfigFile("/no/folder"));
    EXPECT_EQ(root_.Read("/notified"), "");
    EXPECT_EQ(Signs({conf.WriteConfigFile(), conf.WriteConfigFile()}), "++");
    EXPECT_EQ(root_.Read("/notified"),
              "@administrators\nrelayservice:relayservice_serverid_change_title\n"
              "relayservice:relayservice_serverid_change_msg\n");
}

TEST_F(ConfigFileTest, ReloadKeepsWhatTheServersGave) {
    RelaydConf conf(nullptr);
    conf.auth.Overwrite(Parse(R"({"serial":"s","token":"t","mac":"m"})"));
    conf.waitcmd = ServerConf("wait", "page");
    conf.network.mode = "mode";
    conf.debug = conf.sync = true;
    gPlatform.pppoe = 1;
    root_.Write(kInfo, "runrelayd=\"YES\"\n");
    root_.Write(kConf, R"({"service":[{"id":"web"}],"server_waitcmd":{"host":"w"},
                           "serverID":"044756784","server_control":{"host":"c"}})");
    // The second time the network replaces what was read before.
    EXPECT_EQ(Signs({conf.Reload(), conf.Reload()}), "++");
    EXPECT_EQ(conf.auth.serial + conf.auth.token + conf.auth.mac + conf.network.mode, "stmmode");
    EXPECT_EQ(conf.waitcmd.GetUrl(nullptr), "http://wait:80/page");
    EXPECT_EQ(conf.control.host + conf.serverID + conf.path, "c044756784" + root_.Path(kConf));
    EXPECT_EQ(Signs({conf.debug, conf.enable, conf.sync, conf.alias.IsChanged()}), "++--");
    EXPECT_EQ(conf.network.interfaces.size() + conf.services.size(), 2u);
    root_.Write(kConf, R"({"server_control":{"port":-1}})");
    const std::string before = Written(conf, true);
    EXPECT_FALSE(conf.Reload());
    EXPECT_EQ(Written(conf, true), before);
    for (const char* change : {R"("alias":"a"})", R"("alias":"a","url":"u"})",
                               R"("alias":"a","url":"u","poll_seconds":5})"}) {
        root_.Write(kConf, std::string("{\"server_alias\":{") + change + "}");
        // Until it is acted on, the change stays marked.
        EXPECT_EQ(Signs({conf.Reload(), conf.Reload(), conf.alias.IsChanged()}), "+++") << change;
        conf.alias.CommitChange();
        EXPECT_EQ(Signs({conf.Reload(), conf.alias.IsChanged()}), "+-") << change;
    }
}

TEST_F(ConfigFileTest, EditsServices) {
    RelaydConf conf(nullptr);
    EXPECT_EQ(Signs({conf.AddServiceById("web"), conf.AddServiceById("web")}), "++");
    EXPECT_EQ(Signs({conf.AddServiceById("absent"), conf.RemoveServiceById("absent")}), "--");
    EXPECT_TRUE(conf.RemoveServiceById("web"));
    EXPECT_TRUE(conf.GetServiceById("web") == conf.services.end());
}

TEST_F(ConfigFileTest, ChoosesTheControlServerByTimeZone) {
    for (const std::string& zone : Words("Amman WAT tokyo Toky Tokyoo A Europe/London")) {
        EXPECT_EQ(RelaydConf::GetServerHost(zone.c_str()), kHostA) << zone;
    }
    for (const std::string& zone : Words("Adelaide Manaus Tokyo Yerevan")) {
        EXPECT_EQ(RelaydConf::GetServerHost(zone.c_str()), kHostB) << zone;
    }
    EXPECT_EQ(RelaydConf::GetServerHost(nullptr) + RelaydConf::GetTimeZone(), kHostA);
    root_.Write(kInfo, "timezone=\"Tokyo\"\n");
    EXPECT_EQ(RelaydConf(nullptr).control.host + RelaydConf::GetServerHost(""), kHostB + kHostA);
}
