#include <gmock/gmock.h>

#include <regex>

#include <zarorelayd/config.h>

#include "tests/support/device.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* kStatusFile = "/tmp/.zarorelayd.status";

struct Result {
    int code;
    std::string out;
    std::string err;
};

const std::string kProgram = "'" ZARO_CTL "'";

/// A program, which may run under another, with a shell's words for arguments, in the root.
std::unique_ptr<Process> Start(const TempRoot& root, const std::string& words,
                               const std::string& program = kProgram,
                               const std::string& out = "ctl.out") {
    const std::string line =
        "exec " + program + " --root " + root.Dir() + " " + words + " >" + out + " 2>ctl.err";
    const std::vector<std::string> shell = {"/bin/sh", "-c", line};
    return std::make_unique<Process>(shell, "/dev/null", root.Dir());
}

struct Ctl : DeviceTest {
    /// Where everybody can go, however closed the folders of this user are.
    static void SetUpTestSuite() { setenv("TMPDIR", "/tmp", 1); }

    Ctl() {
        root_.Write("/sys/class/net/eth0/address", "00:11:22:aa:bb:cc\n");
        device.Define("photos", 81);
        root_.Write("/usr/zaro/etc/services.d/ftp.conf", "tcp=\"20,21\"\n");
        config_["serverID"] = "044756784";
        config_["other"] = Parse(R"({"kept":[1,2]})");
        WriteConfig();
    }

    void WriteConfig() { root_.Write(Device::kConfig, Compact(config_)); }
    Json::Value ReadConfig() const { return Parse(root_.Read(Device::kConfig)); }

    Result Run(const std::string& words, const std::string& program = kProgram) const {
        // A daemon without a parent is reaped there; while it is a zombie it looks alive.
        const int code = InChild([&] { return Start(root_, words, program)->Wait(seconds(60)); });
        return {code, root_.Read("/ctl.out"), root_.Read("/ctl.err")};
    }

    /// Runs what fails with one line, which begins with the program's name and holds `text`.
    /// Gives the other output.
    std::string Fails(const std::string& words, int code, const std::string& text,
                      const std::string& program = kProgram) const {
        SCOPED_TRACE(words);
        const Result result = Run(words, program);
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.err.find("zarorelayctl: "), 0U) << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr(text));
        return result.out;
    }

    /// The status file of a daemon that runs: this process plays it.
    void WriteStatus(const std::string& members) const {
        root_.Write("/tmp/new", "{\"pid\":" + std::to_string(getpid()) + "," + members + "}");
        std::filesystem::rename(root_.Path("/tmp/new"), root_.Path(kStatusFile));
    }

    const TempRoot& root_ = device.root;
    Json::Value& config_ = device.config;
};

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

/// What a script relies on.
void ExpectWholeStatus(const Json::Value& status) {
    EXPECT_THAT(status.getMemberNames(), ElementsAre("alias", "error", "pid", "running", "serverID",
                                                     "service", "since", "state", "version"));
    EXPECT_THAT(status["alias"].getMemberNames(), ElementsAre("extra", "name", "status"));
    for (const char* text : {"error", "serverID", "state", "version"}) {
        EXPECT_TRUE(status[text].isString()) << text;
    }
    ASSERT_TRUE(status["service"].isArray());
    for (const Json::Value& service : status["service"]) {
        EXPECT_THAT(service.getMemberNames(),
                    ElementsAre("id", "local", "name", "port", "tunnel", "up"));
        if (!service["tunnel"].isNull()) {
            EXPECT_THAT(service["tunnel"].getMemberNames(),
                        ElementsAre("relay_ip", "relay_port", "restarts", "since", "status"));
        }
    }
}

TEST_F(Ctl, StatusFollowsTheStatusFile) {
    const std::string alive = "{\"pid\":" + std::to_string(getpid()) + ",";
    const std::string dead = "{\"pid\":4194304"; // one above the highest that there can be
    // The file, options, exit code and whether it runs and the state, what is said of it.
    const std::tuple<std::string, const char*, const char*, const char*> kCases[] = {
        {"", "", "1 false not_running", "not running"},
        {dead + R"(,"state":5,"serverID":"1"})", "", "1 false not_running", "not running"},
        {"{", "", "255 null unknown", "unusable"},
        {R"({"pid":"1"})", "", "255 null unknown", "unusable"},
        {std::string(5000, '['), "", "255 null unknown", "unusable"},
        {alive + R"("state":8})", "", "0 true stoped", ""},
        {alive + R"("state":0,"error":8})", "", "0 true error", ""},
        {alive + R"("state":5,"service":[{"id":"web"}]})", "--service web", "0 true connected", ""},
        {alive + R"("state":5})", "--service nix", "1 true not_running", "does not publish"},
        {alive + R"("state":"5","service":7,"alias":[],"since":{},"serverID":5,"version":null})",
         "", "1 false not_running", "not running"},
        {alive + R"("state":5,"service":[1,null,[],{"tunnel":5},{"tunnel":{"relay_port":"x"},
            "up":"yes","port":1e99,"name":{}}]})",
         "", "0 true connected", ""}};
    for (const auto& [file, options, outcome, err] : kCases) {
        SCOPED_TRACE(file.substr(0, 100));
        file.empty() ? void() : root_.Write(kStatusFile, file);
        const Result json = Run(std::string("status --json ") + options);
        const Json::Value status = Parse(json.out);
        EXPECT_EQ(std::to_string(json.code) + " " + Compact(status["running"]) + " " +
                      status["state"].asString(),
                  outcome);
        ExpectWholeStatus(status);
        EXPECT_EQ(json.err.empty(), *err == '\0');
        EXPECT_THAT(json.err, HasSubstr(err));
        EXPECT_EQ(Run(std::string("status ") + options).code, json.code);
    }
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::minutes(5);
    std::filesystem::last_write_time(root_.Path(kStatusFile), old);
    Fails("status", 255, "is as it was on");
}

TEST_F(Ctl, TableTellsEachServicesState) {
    const std::string since = std::to_string(time(nullptr) - 90);
    const std::string kCases[][3] = {{"true", "READY", "up for 1 min"},
                                     {"false", "READY", "up, but the relay does not answer"},
                                     {"false", "CLOSE", "lost 1 min ago, being rebuilt"},
                                     {"false", "FAILED", "failed 1 min ago, trying on"}};
    for (const auto& [up, tunnel, text] : kCases) {
        WriteStatus(R"("state":5,"service":[{"id":"web","name":"Web","port":80,"local":"refused",
            "up":)" +
                    up + R"(,"tunnel":{"status":"TUNNEL_STATUS_)" + tunnel + R"(",
            "relay_ip":"203.0.113.7","relay_port":20001,"restarts":3,"since":)" +
                    since + "}}]");
        EXPECT_THAT(Run("status").out, HasSubstr("\nweb      Web   80    203.0.113.7:20001  " +
                                                 text + "  3         does not answer\n"));
    }
    WriteStatus(R"("state":5,"service":[{"up":false,"tunnel":null},
        {"tunnel":{"relay_ip":"2001:db8::7","relay_port":20001}}])");
    EXPECT_THAT(Run("status").out, testing::ContainsRegex("waiting for the server.*\n.*"
                                                          "\\[2001:db8::7\\]:20001"));
}

TEST_F(Ctl, PlantedTextsReachNoTerminal) {
    const std::string evil = R"(\u001b]0;own\u0007\u001b[2J\r\n\u0000\u009b31m\u202e\u200b)"
                             "\x9b\xff\xc3";
    const char* const status = R"("state":5,"serverID":"@","version":"@",
        "alias":{"name":"@","status":"@","extra":"@"},"service":[{"id":"@","name":"@Größe",
        "local":"@","port":80,"up":true,"tunnel":{"status":"@","relay_ip":"@","relay_port":1}}])";
    WriteStatus(std::regex_replace(status, std::regex("@"), evil));
    config_["server_alias"]["alias"] = config_["serverID"] = "\033[2J";
    WriteConfig();
    root_.Write("/tmp/farlink_alias.status",
                R"({"alias_name":"\u001b[2J","status":"\u001b","extra":"\u001b"})");
    for (const char* locale : {"env LC_ALL=C.UTF-8 ", "env LC_ALL=C "}) {
        for (const char* command : {"status", "status --json", "alias show", "id", "service list",
                                    "service remove '\033['", "check"}) {
            SCOPED_TRACE(command);
            const Result result = Run(command, locale + kProgram);
            const std::string all = result.out + result.err;
            EXPECT_FALSE(all.empty());
            EXPECT_TRUE(std::none_of(all.begin(), all.end(), [](unsigned char c) {
                return c < 0x80 && iscntrl(c) != 0 && c != '\n';
            })) << all;
            for (const char* mark : {"\xc2\x9b", "\u202e", "\u200b", "\x9b\xff"}) {
                EXPECT_THAT(all, Not(HasSubstr(mark)));
            }
        }
    }
    EXPECT_THAT(Run("status", "env LC_ALL=C.UTF-8 " + kProgram).out, HasSubstr("Größe"));
}

TEST_F(Ctl, WatchOnATerminalLeavesItAsItWas) {
    for (const char* colour : {"NO_COLOR=1", "NO_COLOR="}) {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_EQ(grantpt(terminal) + unlockpt(terminal), 0);
        std::string seen;
        const auto sees = [&](const char* text) {
            char block[4096];
            const ssize_t size = read(terminal, block, sizeof block);
            seen.append(block, size > 0 ? static_cast<std::size_t>(size) : 0);
            return seen.find(text) != std::string::npos;
        };
        WriteStatus(R"("state":5,"serverID":"1")");
        const auto watch =
            Start(root_, "status --watch", std::string("env TERM=xterm ") + colour + " " + kProgram,
                  ptsname(terminal));
        EXPECT_TRUE(WaitFor([&] { return sees("connected"); })) << seen;
        WriteStatus(R"("state":5,"serverID":"2")");
        EXPECT_TRUE(WaitFor([&] { return sees("\033[H") && sees(" 2\033[K"); })) << seen;
        watch->Signal(SIGINT);
        EXPECT_TRUE(WaitFor([&] { return sees("\033[?7h\033[?25h\033[?1049l") && sees(" 2\r\n"); }))
            << seen;
        EXPECT_EQ(watch->Wait(seconds(10)), 0);
        EXPECT_EQ(seen.find("\033[?1049h\033[?25l\033[?7l"), 0U);
        EXPECT_EQ(seen.find("\033[32m") != seen.npos, std::string(colour) == "NO_COLOR=");
        close(terminal);
    }
}

TEST_F(Ctl, ServiceChangesNothingElse) {
    const char* const both = R"([{"id":"web"},{"id":"photos"}])";
    // A service of several ports has the one that the configuration names.
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
    std::filesystem::remove(root_.Path(Device::kConfig));
    EXPECT_EQ(Run("service add web").code, 0);
    EXPECT_EQ(ReadConfig(), Parse(R"({"service":[{"id":"web"}]})")) << "a new file";
}

TEST_F(Ctl, LeavesBrokenFilesAlone) {
    const auto leaves = [this](const char* broken, const char* words) {
        root_.Write(Device::kConfig, broken);
        Fails(words, 255, "zarorelayd.conf: ");
        EXPECT_EQ(root_.Read(Device::kConfig), broken) << words;
        EXPECT_FALSE(std::filesystem::exists(root_.Path(std::string(Device::kConfig) + ".bad")));
    };
    for (const char* broken : {"", "{", "[]", R"({"server_control":{"port":-5}})"}) {
        for (const char* words :
             {"service add web", "alias set nas", "alias clear", "log start log", "log stop"}) {
            leaves(broken, words);
        }
    }
    leaves("{\"service\":{}}", "service add web"); // what is no list does not stop the others
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
    // The second one plays a daemon of another root, by the lock that it has open.
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
    // Process 1 is root's, and so is the folder.
    root_.Write(kStatusFile, R"({"pid":1,"state":5})");
    root_.Write(Device::kPidFile, "1\n");
    // Nobody else may be able to read what was built here.
    const char* const copy = "ldd \"$0\" | grep -o '/.*/libzaro[a-z]*.so[.0-9]*' | "
                             "xargs -d '\\n' install -Dt copies \"$0\"";
    ASSERT_EQ(Outcome({"/bin/sh", "-c", copy, ZARO_CTL}, root_.Dir()), "0 ");
    const std::string copies = root_.Path("/copies");
    const std::string other =
        std::string("env LD_LIBRARY_PATH=") + copies +
        (geteuid() == 0 ? " setpriv --reuid=65534 --regid=65534 --clear-groups " : " ") + copies +
        "/zarorelayctl";
    std::filesystem::permissions(root_.Dir(), std::filesystem::perms(0755));
    std::filesystem::permissions(root_.Path("/usr/zaro/etc"), std::filesystem::perms(0555));
    for (const char* words :
         {"status", "status --json", "service add photos", "alias clear", "log stop"}) {
        Fails(words, 2, "run this as root", other);
    }
    std::filesystem::permissions(root_.Path("/usr/zaro/etc"), std::filesystem::perms(0755));
}

TEST_F(Ctl, StartEndsWithTheDaemonsCode) {
    root_.Write(Device::kConfig, "{");
    EXPECT_EQ(Run("start").code, 2); // the one beside it finds the fault
    root_.Write("/usr/zaro/bin/zarorelayd", "#!/bin/sh\necho \"$@\"\nexit 7\n", 0755);
    const std::string copy = root_.Path("/zarorelayctl");
    std::filesystem::copy(ZARO_CTL, copy);
    Process alone({copy, "restart", "--root", root_.Dir()}, root_.Path("/own"));
    EXPECT_EQ(alone.Wait(seconds(10)), 7);
    EXPECT_EQ(root_.Read("/own"), "--root " + root_.Dir() + "\n");
}

/// The name of the first link that is broken; each broken one tells its remedy.
std::string FirstBroken(const Json::Value& document) {
    std::string first;
    for (const Json::Value& link : document["link"]) {
        EXPECT_THAT(link.getMemberNames(), ElementsAre("detail", "name", "outcome", "remedy"));
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
    // The link, what breaks it on top of what was broken before, further down.
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
    ASSERT_TRUE(WaitFor([&] { return device.Serves(web) && device.IsAllUp(); })) << device.Status();
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
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Status();
    const pid_t before = atoi(root_.Read(Device::kPidFile).c_str());
    EXPECT_EQ(run("restart").code, 0);
    EXPECT_NE(atoi(root_.Read(Device::kPidFile).c_str()), before);
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Status();
    EXPECT_EQ(run("stop").code, 0);
    EXPECT_EQ(run("status").code, 1);
    EXPECT_EQ(run("debug").code, 1);
}

} // namespace
