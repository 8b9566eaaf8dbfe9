#include <zarorelayd/config.h>

#include "tests/support/ctl.h"

using testing::HasSubstr;
using testing::Not;

TEST_F(Ctl, RefusesWhatCanNotBeInOneLine) {
    const std::pair<std::string, const char*> kCases[] = {
        {"", "required"},
        {"bogus", "\"bogus\" was not expected"},
        {"status extra", "\"extra\" was not expected"},
        {"stop 'now\nor \033[31mnever'", "now?or ?[31mnever"},
        {"service", "required"},
        {"service add", "ID is required"},
        {"service add ../../etc/passwd", "expected one of: photos, web"},
        {"service add ftp", "expected one of: photos, web"},
        {"service remove nix", "service list"},
        {"alias set ''", "empty"},
        {"alias set a.B", "1 to 63 of a-z"},
        {"alias set " + std::string(64, 'a'), "1 to 63 of a-z"},
        {"log start /no/such/folder/file", "existing folder"},
        {"log start /tmp", "existing folder"},
        {"status --root /no/such/folder", "--root"},
        {"stop", "not running; start it with: zarorelayctl start"},
        {"reload", "not running; start it with: zarorelayctl start"}};
    for (const auto& [words, text] : kCases) {
        EXPECT_EQ(Fails(words, 2, text), "") << words;
    }
    EXPECT_EQ(ReadConfig(), config_);
}

TEST_F(Ctl, ServiceChangesNothingElse) {
    const char* const both = R"([{"id":"web"},{"id":"photos"}])";
    // For a service with several ports the configuration names one.
    const char* const named = R"([{"id":"ftp","port":21,"name":"mine"}])";
    const std::tuple<const char*, const char*, const char*> kCases[] = {
        {R"([{"id":"web"}])", "add photos", both},
        {both, "add photos", both},
        {both, "remove web", R"([{"id":"photos"}])"},
        {both, "remove ftp", both},
        {named, "add ftp", named}};
    for (const auto& [before, words, after] : kCases) {
        config_["service"] = Parse(before);
        WriteConfig();
        EXPECT_EQ(Run(std::string("service ") + words).code, 0) << words;
        config_["service"] = Parse(after);
        EXPECT_EQ(ReadConfig(), config_) << words;
    }
    fs::remove(root_.Path(Device::kConfig));
    EXPECT_EQ(Run("service add web").code, 0);
    EXPECT_EQ(ReadConfig(), Parse(R"({"service":[{"id":"web"}]})")) << "a new file";
}

TEST_F(Ctl, LeavesBrokenFilesAlone) {
    const auto leaves = [this](const char* broken, const char* words) {
        root_.Write(Device::kConfig, broken);
        Fails(words, 255, "zarorelayd.conf: ");
        EXPECT_EQ(root_.Read(Device::kConfig), broken) << words;
        EXPECT_FALSE(fs::exists(root_.Path(std::string(Device::kConfig) + ".bad")));
    };
    for (const char* broken : {"", "{", "[]", R"({"server_control":{"port":-5}})"}) {
        for (const char* words :
             {"service add web", "alias set nas", "alias clear", "log start log", "log stop"}) {
            leaves(broken, words);
        }
    }
    leaves("{\"service\":{}}", "service add web"); // other commands accept it
}

TEST_F(Ctl, LosesNoChangeOfTwoAtATime) {
    for (int round = 0; round < 100; ++round) {
        config_["service"].clear();
        WriteConfig();
        const auto one = Start(root_, "service add web");
        const auto two = Start(root_, "service add photos");
        ASSERT_EQ(one->Wait(seconds(30)) + two->Wait(seconds(30)), 0) << round;
        Json::Value now = ReadConfig();
        ASSERT_EQ(now["service"].size(), 2U) << round;
        now["service"].clear();
        ASSERT_EQ(now, config_) << round;
    }
}

TEST_F(Ctl, ChangesAliasSwitchAndLog) {
    EXPECT_EQ(Run("alias set my-nas").code, 0);
    root_.Write("/tmp/farlink_alias.status",
                R"({"alias_name":"my-nas","status":"success","extra":"more"})");
    EXPECT_EQ(Parse(Run("alias show --json").out),
              Parse(R"({"extra":"more","name":"my-nas","status":"success"})"));
    EXPECT_EQ(Run("alias clear").code, 0);
    EXPECT_EQ(Run("alias show").out, "no alias\n");

    EXPECT_EQ(Run("log start here.log").err, "");
    EXPECT_EQ(ReadConfig()["log_file"], root_.Path("/here.log"));
    EXPECT_EQ(Run("log stop").code, 0);
    config_.removeMember("log_level");
    config_["server_alias"]["alias"] = "";
    EXPECT_EQ(ReadConfig(), config_);

    for (const auto& [command, value] : {std::pair("disable", "\"no\""), {"enable", "\"yes\""}}) {
        EXPECT_EQ(Run(command).code, 0);
        EXPECT_THAT(root_.Read("/etc/zaroinfo.conf"), HasSubstr(value));
    }
    EXPECT_EQ(Run("id").out, "044756784\n");
    EXPECT_EQ(Run("id --verify 044756784").code, 0);
    EXPECT_EQ(Run("id --verify 044756785").code, 1);
}

TEST_F(Ctl, SignalsNoOtherProgramsProcess) {
    // The second one looks like a daemon of another root: it has such a lock file open.
    root_.Write("/zarorelayd", "#!/usr/bin/tail -f\n", 0755);
    for (const std::string program :
         {"/bin/sleep 600", "$ZARO_ROOT/zarorelayd 9>$ZARO_ROOT/z.pid.lock"}) {
        Process other({"/bin/sh", "-c", "exec " + program});
        const std::string process = std::to_string(other.Pid());
        EXPECT_TRUE(WaitFor([&] { return ReadFile("/proc/" + process + "/comm") != "sh\n"; }));
        root_.Write(Device::kPidFile, process + "\n");
        for (const char* words : {"stop", "reload", "debug", "service add photos",
                                  "log start /tmp/x", "alias set nas", "disable"}) {
            Run(words);
            EXPECT_EQ(other.Wait(milliseconds(0)), Process::kRuns) << words;
        }
    }
}

TEST_F(Ctl, SaysThatRightsAreMissing) {
    // Process 1 belongs to root, and so does the folder.
    root_.Write(kStatusFile, R"({"pid":1,"state":5})");
    root_.Write(Device::kPidFile, "1\n");
    // The build folder may be closed to other users, so they get a copy.
    const char* const copy = "ldd \"$0\" | grep -o '/.*/libzaro[a-z]*.so[.0-9]*' | "
                             "xargs -d '\\n' install -Dt copies \"$0\"";
    ASSERT_EQ(Outcome({"/bin/sh", "-c", copy, ZARO_CTL}, root_.Dir()), "0 ");
    const std::string copies = root_.Path("/copies");
    const std::string other =
        std::string("env LD_LIBRARY_PATH=") + copies +
        (geteuid() == 0 ? " setpriv --reuid=65534 --regid=65534 --clear-groups " : " ") + copies +
        "/zarorelayctl";
    fs::permissions(root_.Dir(), fs::perms(0755));
    fs::permissions(root_.Path("/usr/zaro/etc"), fs::perms(0555));
    for (const char* words :
         {"status", "status --json", "service add photos", "alias clear", "log stop"}) {
        Fails(words, 2, "run this as root", other);
    }
    fs::permissions(root_.Path("/usr/zaro/etc"), fs::perms(0755));
}

TEST_F(Ctl, StartEndsWithTheDaemonsCode) {
    root_.Write(Device::kConfig, "{");
    EXPECT_EQ(Run("start").code, 2); // the daemon beside it finds the fault
    root_.Write("/usr/zaro/bin/zarorelayd", "#!/bin/sh\necho \"$@\"\nexit 7\n", 0755);
    const std::string copy = root_.Path("/zarorelayctl");
    fs::copy(ZARO_CTL, copy);
    Process alone({copy, "restart", "--root", root_.Dir()}, root_.Path("/own"));
    EXPECT_EQ(alone.Wait(seconds(10)), 7);
    EXPECT_EQ(root_.Read("/own"), "--root " + root_.Dir() + "\n");
}

/// The name of the first broken link. Expects a remedy for each broken one.
static std::string FirstBroken(const Json::Value& document) {
    std::string first;
    for (const Json::Value& link : document["link"]) {
        EXPECT_EQ(link.getMemberNames(), Words("detail name outcome remedy"));
        const bool broken = link["outcome"] == "broken";
        EXPECT_EQ(broken, !link["remedy"].asString().empty()) << link;
        first = broken && first.empty() ? link["name"].asString() : first;
    }
    return first;
}

TEST_F(Ctl, CheckNamesTheFirstBrokenLink) {
    Json::Value noWaiting = config_;
    noWaiting["server_waitcmd"] = Parse(R"({"host":"127.0.0.1","port":1})");
    const Listener silent;
    device.UseServer("https", silent.port);
    // The link and the file that breaks it, in addition to the rows above, which break later links.
    const std::tuple<std::string, const char*, std::string> kCases[] = {
        {"daemon", "/harmless", ""},
        {"service web", "/usr/zaro/etc/services.d/web.conf", "tcp=1\n"},
        {"ssh client", "/usr/zaro/bin/ssh", "not executable"},
        {"wait-command server", Device::kConfig, Compact(noWaiting)},
        {"control server TLS", Device::kConfig, Compact(config_)},
        {"control server", Device::kConfig, R"({"server_control":{"host":"127.0.0.1","port":1}})"},
        {"control server name", Device::kConfig, R"({"server_control":{"host":"a..invalid"}})"},
        {"credentials", "/usr/zaro/etc/device.key", "damaged"},
        {"switch", "/etc/zaroinfo.conf", ""},
        {"configuration", Device::kConfig, "{"},
        {"hardware address", Device::kConfig, R"({"serverID":"123456789"})"}};
    for (const auto& [link, file, text] : kCases) {
        SCOPED_TRACE(link);
        root_.Write(file, text);
        const auto start = Clock::now();
        const Result result = Run("check --json");
        EXPECT_LT(Clock::now() - start, seconds(8) * kSlow);
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(Parse(result.out)["good"], false);
        EXPECT_EQ(FirstBroken(Parse(result.out)), link) << result.out;
        EXPECT_THAT(Run("check").out, HasSubstr("Remedy (" + link + "): "));
    }
}

TEST_F(Ctl, WorksWithARealDaemonAndHub) {
    const auto run = [&](const std::string& words) {
        return Run(words, "env " + device.Mark() + " " + kProgram);
    };
    ASSERT_EQ(run("start").code, 0);
    ASSERT_TRUE(WaitFor([&] { return device.Serves(web) && device.IsAllUp(); }));
    const Json::Value status = Parse(run("status --json").out);
    ExpectWholeStatus(status);
    EXPECT_EQ(status["service"][0]["up"], true);

    const Result check = run("check");
    EXPECT_EQ(check.code, 0) << check.out;
    const Result debug = run("debug");
    EXPECT_EQ(debug.code, 0);
    EXPECT_EQ(Parse(debug.out)["tunnels"][0]["relay_pass"], "***");
    device.Enter();
    const std::string token = ZARO::Relay::AuthConf(true).token;
    ASSERT_FALSE(token.empty());
    EXPECT_THAT(check.out + debug.out, Not(HasSubstr(token)));

    EXPECT_EQ(run("service remove web").code, 0);
    EXPECT_TRUE(WaitFor([&] { return device.Status()["service"].empty(); }));
    EXPECT_EQ(run("service add web").code, 0);
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); }));
    const pid_t before = atoi(root_.Read(Device::kPidFile).c_str());
    EXPECT_EQ(run("restart").code, 0);
    EXPECT_NE(atoi(root_.Read(Device::kPidFile).c_str()), before);
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); }));
    EXPECT_EQ(run("stop").code, 0);
    EXPECT_EQ(run("status").code, 1);
    EXPECT_EQ(run("debug").code, 1);
}
