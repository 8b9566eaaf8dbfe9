#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/file.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/file_lock.h>

#include "tests/support/device.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using Words = std::vector<std::string>;

constexpr const char* kConfig = Device::kConfig;
constexpr const char* kStatusFile = "/tmp/.zarorelayd.status";
constexpr const char* kPidFile = Device::kPidFile;
constexpr const char* kOut = "/ctl.out";

struct Result {
    int code;
    std::string out;
    std::string err;
};

/// A device with one local service that answers and a control server that takes connections.
class Ctl : public testing::Test {
protected:
    Ctl() {
        std::filesystem::copy(ZARO_DEVICE_BIN, root_.Path("/usr/zaro/bin"));
        root_.Write("/sys/class/net/eth0/address", "00:11:22:aa:bb:cc\n");
        root_.Write("/etc/zaroinfo.conf", "runrelayd=\"yes\"\n");
        Define("web", web_.Port());
        Define("photos", 81);
        root_.Write("/usr/zaro/etc/services.d/ftp.conf", "tcp=\"20,21\"\n");
        config_ = Parse(R"({"other":{"kept":[1,2]},"log_level":6,"serverID":"044756784",
            "server_control":{"protocol":"http","host":"127.0.0.1","port":80},
            "service":[{"id":"web"}]})");
        config_["server_control"]["port"] = server_.port;
        WriteConfig();
    }

    void Define(const std::string& id, int port) {
        root_.Write("/usr/zaro/etc/services.d/" + id + ".conf",
                    "title=\"" + id + "\"\ntcp=\"" + std::to_string(port) + "\"\n");
    }

    void WriteConfig() { root_.Write(kConfig, Compact(config_)); }
    Json::Value ReadConfig() const { return Parse(root_.Read(kConfig)); }

    /// The program with these arguments, `before` in front of it, its output in `out`.
    std::unique_ptr<Process> Start(const Words& arguments, const std::string& out,
                                   const Words& before = {}, const char* variable = "A=b") const {
        const std::string err = root_.Path("/ctl.err." + out.substr(out.rfind('/') + 1));
        std::filesystem::remove(err);
        Words all = {"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", err};
        all.insert(all.end(), before.begin(), before.end());
        all.insert(all.end(), {ZARO_CTL, "--root", root_.Dir()});
        all.insert(all.end(), arguments.begin(), arguments.end());
        return std::make_unique<Process>(all, out, root_.Dir(), variable);
    }

    Result Run(const Words& arguments, const Words& before = {},
               const char* variable = "A=b") const {
        std::filesystem::remove(root_.Path(kOut));
        const int code = Start(arguments, root_.Path(kOut), before, variable)->Wait(seconds(60));
        return {code, root_.Read(kOut), root_.Read("/ctl.err.ctl.out")};
    }

    /// The JSON document that a command prints.
    Json::Value Document(const Words& arguments) const { return Parse(Run(arguments).out); }

    /// The status file of a daemon that runs: this process plays it.
    void WriteStatus(const std::string& members) const {
        root_.Write("/tmp/new", "{\"pid\":" + std::to_string(getpid()) + "," + members + "}");
        std::filesystem::rename(root_.Path("/tmp/new"), root_.Path(kStatusFile));
    }

    const TempRoot root_;
    const WebService web_{"web"};
    const Listener server_;
    Json::Value config_;
};

/// One line that begins with the program's name and holds `text`.
void ExpectLine(const std::string& err, const std::string& text) {
    EXPECT_EQ(err.find("zarorelayctl: "), 0U) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    EXPECT_THAT(err, HasSubstr(text));
}

TEST_F(Ctl, RefusesOddCommandLinesInOneLine) {
    const struct {
        Words arguments;
        const char* text;
    } kCases[] = {
        {{}, "required"},
        {{""}, "not expected"},
        {{"bogus"}, "\"bogus\" was not expected"},
        {{"\033[31mred"}, "\"?[31mred\""},
        {{"status", "extra"}, "\"extra\" was not expected"},
        {{"status", "--bogus"}, "\"--bogus\""},
        {{"status", "--service"}, "--service"},
        {{"stop", "now\nor never"}, "now?or never"},
        {{"service"}, "required"},
        {{"service", "bla"}, "\"bla\""},
        {{"service", "add"}, "ID is required"},
        {{"service", "add", ""}, "expected one of: photos, web"},
        {{"service", "add", "../../etc/passwd"}, "expected one of: photos, web"},
        {{"service", "add", "ftp"}, "expected one of: photos, web"},
        {{"service", "add", "a", "b"}, "\"b\""},
        {{"service", "remove", "nix"}, "service list"},
        {{"alias", "set"}, "NAME is required"},
        {{"alias", "set", ""}, "empty"},
        {{"alias", "set", "Big"}, "1 to 63 of a-z"},
        {{"alias", "set", "a.b"}, "1 to 63 of a-z"},
        {{"alias", "set", std::string(64, 'a')}, "1 to 63 of a-z"},
        {{"log", "start"}, "FILE is required"},
        {{"log", "start", "/no/such/folder/file"}, "existing folder"},
        {{"log", "start", "/tmp"}, "existing folder"},
        {{"id", "--verify"}, "--verify"},
        {{"status", "--root", "/no/such/folder"}, "--root"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.arguments));
        const Result result = Run(c.arguments);
        EXPECT_EQ(result.code, 2);
        EXPECT_EQ(result.out, "");
        ExpectLine(result.err, c.text);
    }
    EXPECT_EQ(ReadConfig(), config_);
}

TEST_F(Ctl, TellsWhatIsWrongWithoutADaemon) {
    const struct {
        Words command;
        int code;
    } kCases[] = {{{"status"}, 1}, {{"debug"}, 1}, {{"stop"}, 2}, {{"reload"}, 2}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.command[0]);
        const Result result = Run(c.command);
        EXPECT_EQ(result.code, c.code);
        ExpectLine(result.err, "not running; start it with: zarorelayctl start");
    }
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
    const struct {
        std::string file;
        Words arguments;
        int code;
        const char* running;
        const char* state;
        const char* err; ///< null: nothing
    } kCases[] = {
        {"", {}, 1, "false", "not_running", "not running"},
        {dead + R"(,"state":5,"serverID":"1","service":[{"id":"web"}]})",
         {},
         1,
         "false",
         "not_running",
         "not running"},
        {"{", {}, 255, "null", "unknown", "unusable"},
        {R"([{"pid":1}])", {}, 255, "null", "unknown", "unusable"},
        {R"({"pid":-1})", {}, 255, "null", "unknown", "unusable"},
        {R"({"pid":"1"})", {}, 255, "null", "unknown", "unusable"},
        {std::string(5000, '['), {}, 255, "null", "unknown", "unusable"},
        {alive + R"("state":5})", {}, 0, "true", "connected", nullptr},
        {alive + R"("state":8})", {}, 0, "true", "stoped", nullptr},
        {alive + R"("state":0,"error":8})", {}, 0, "true", "error", nullptr},
        {alive + R"("state":5,"service":[{"id":"web"}]})",
         {"--service", "web"},
         0,
         "true",
         "connected",
         nullptr},
        {alive + R"("state":5,"service":[{"id":"web"}]})",
         {"--service", "nix"},
         1,
         "true",
         "not_running",
         "does not publish"},
        {alive + R"("state":"5","service":7,"alias":[],"since":{},"serverID":5,"version":null})",
         {},
         1,
         "false",
         "not_running",
         "not running"},
        {alive + R"("state":5,"service":[1,null,[],{"tunnel":5},{"tunnel":{"relay_port":"x"},
            "up":"yes","port":1e99,"name":{}}]})",
         {},
         0,
         "true",
         "connected",
         nullptr},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.file.substr(0, 100));
        c.file.empty() ? void() : root_.Write(kStatusFile, c.file);
        Words arguments = {"status", "--json"};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        const Result json = Run(arguments);
        const Json::Value status = Parse(json.out);
        EXPECT_EQ(json.code, c.code);
        EXPECT_EQ(Compact(status["running"]), c.running);
        EXPECT_EQ(status["state"], c.state);
        ExpectWholeStatus(status);
        if (c.err != nullptr) {
            ExpectLine(json.err, c.err);
        } else {
            EXPECT_EQ(json.err, "");
        }
        arguments.erase(arguments.begin() + 1);
        EXPECT_EQ(Run(arguments).code, c.code);
    }
}

TEST_F(Ctl, TableTellsEachServicesState) {
    const std::string now = std::to_string(time(nullptr) - 90);
    const auto service = [&](const std::string& up, const std::string& tunnel) {
        WriteStatus(
            R"("state":5,"service":[{"id":"web","name":"Web","port":80,"local":"refused","up":)" +
            up + ",\"tunnel\":" + tunnel + "}]");
        const std::string table = Run({"status"}).out;
        return table.substr(table.find("\nweb"));
    };
    const std::string relay =
        R"(,"relay_ip":"203.0.113.7","relay_port":20001,"restarts":3,"since":)" + now + "}";
    const std::string head = "\nweb      Web   80    203.0.113.7:20001  ";
    const std::string tail = "  3         does not answer\n";
    EXPECT_EQ(service("true", R"({"status":"TUNNEL_STATUS_READY")" + relay),
              head + "up for 1 min" + tail);
    EXPECT_EQ(service("false", R"({"status":"TUNNEL_STATUS_READY")" + relay),
              head + "up, but the relay does not answer" + tail);
    EXPECT_EQ(service("false", R"({"status":"TUNNEL_STATUS_CLOSE")" + relay),
              head + "lost 1 min ago, being rebuilt" + tail);
    EXPECT_EQ(service("false", R"({"status":"TUNNEL_STATUS_FAILED")" + relay),
              head + "failed 1 min ago, trying on" + tail);
    EXPECT_THAT(service("false", "null"), HasSubstr("waiting for the server"));
    EXPECT_THAT(service("true", R"({"relay_ip":"2001:db8::7","relay_port":20001})"),
                HasSubstr("[2001:db8::7]:20001"));
}

TEST_F(Ctl, PlantedTextsReachNoTerminal) {
    const std::string evil = R"(\u001b]0;own\u0007\u001b[2J\r\n\u0000\u009b31m\u202e\u200b)"
                             "\x9b\xff\xc3";
    WriteStatus(R"("state":5,"serverID":")" + evil + R"(","version":")" + evil +
                R"(","alias":{"name":")" + evil + R"(","status":")" + evil + R"(","extra":")" +
                evil + R"("},"service":[{"id":")" + evil + R"(","name":")" + evil +
                R"(Größe","local":")" + evil + R"(","port":80,"up":true,"tunnel":{"status":")" +
                evil + R"(","relay_ip":")" + evil + R"(","relay_port":1}}]})");
    config_["server_alias"]["alias"] = "\033[2J";
    config_["serverID"] = "\033[2J";
    WriteConfig();
    root_.Write("/tmp/farlink_alias.status",
                R"({"alias_name":"\u001b[2J","status":"\u001b","extra":"\u001b"})");
    for (const char* locale : {"LC_ALL=C.UTF-8", "LC_ALL=C"}) {
        for (const Words& command : {Words{"status"},
                                     {"status", "--json"},
                                     {"alias", "show"},
                                     {"id"},
                                     {"service", "list"},
                                     {"service", "remove", "\033["},
                                     {"check"}}) {
            const Result result = Run(command, {}, locale);
            const std::string all = result.out + result.err;
            EXPECT_FALSE(all.empty()) << command[0];
            EXPECT_TRUE(
                std::none_of(all.begin(), all.end(),
                             [](char c) { return (c >= 0 && c < ' ' && c != '\n') || c == 0x7f; }))
                << command[0] << all;
            for (const char* mark : {"\xc2\x9b", "\u202e", "\u200b", "\x9b\xff"}) {
                EXPECT_THAT(all, Not(HasSubstr(mark))) << command[0];
            }
        }
    }
    EXPECT_THAT(Run({"status"}, {}, "LC_ALL=C.UTF-8").out, HasSubstr("Größe"));
}

TEST_F(Ctl, WatchOnATerminalLeavesItAsItWas) {
    setenv("TERM", "xterm", 1);
    for (const char* variable : {"NO_COLOR=1", "NO_COLOR="}) {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_EQ(grantpt(terminal), 0);
        ASSERT_EQ(unlockpt(terminal), 0);
        std::string seen;
        const auto sees = [&](const char* text) {
            char block[4096];
            const ssize_t size = read(terminal, block, sizeof block);
            seen.append(block, size > 0 ? static_cast<std::size_t>(size) : 0);
            return seen.find(text) != std::string::npos;
        };
        WriteStatus(R"("state":5,"serverID":"1")");
        const auto watch = Start({"status", "--watch"}, ptsname(terminal), {}, variable);
        EXPECT_TRUE(WaitFor([&] { return sees("connected"); })) << seen;
        WriteStatus(R"("state":5,"serverID":"2")");
        EXPECT_TRUE(WaitFor([&] { return sees("\033[H") && sees(" 2\033[K"); })) << seen;
        watch->Signal(SIGINT);
        EXPECT_TRUE(WaitFor([&] { return sees("\033[?7h\033[?25h\033[?1049l") && sees(" 2\r\n"); }))
            << seen;
        EXPECT_EQ(watch->Wait(seconds(10)), 0);
        EXPECT_EQ(seen.find("\033[?1049h\033[?25l\033[?7l"), 0U);
        EXPECT_EQ(seen.find("\033[32m") != seen.npos, std::string(variable) == "NO_COLOR=");
        close(terminal);
    }
}

TEST_F(Ctl, ServiceChangesNothingElse) {
    const struct {
        Words arguments;
        Words ids;
    } kCases[] = {
        {{"add", "photos"}, {"web", "photos"}}, {{"add", "photos"}, {"web", "photos"}},
        {{"remove", "web"}, {"photos"}},        {{"remove", "web"}, {"photos"}},
        {{"add", "web"}, {"photos", "web"}},    {{"remove", "ftp"}, {"photos", "web"}},
    };
    for (const auto& c : kCases) {
        Words arguments = {"service"};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        EXPECT_EQ(Run(arguments).code, 0) << testing::PrintToString(arguments);
        config_["service"].clear();
        for (const std::string& id : c.ids) {
            config_["service"].append(Parse("{\"id\":\"" + id + "\"}"));
        }
        EXPECT_EQ(ReadConfig(), config_) << testing::PrintToString(arguments);
    }
    // A service of several ports has the one that the configuration names; a new file is made.
    config_["service"] = Parse(R"([{"id":"ftp","port":21,"name":"mine"}])");
    WriteConfig();
    EXPECT_EQ(Run({"service", "add", "ftp"}).code, 0);
    EXPECT_EQ(ReadConfig(), config_);
    std::filesystem::remove(root_.Path(kConfig));
    EXPECT_EQ(Run({"service", "add", "web"}).code, 0);
    EXPECT_EQ(ReadConfig(), Parse(R"({"service":[{"id":"web"}]})"));
}

TEST_F(Ctl, LeavesBrokenFilesAlone) {
    for (const char* broken :
         {"", "{", "[]", "{\"service\":{}}", R"({"server_control":{"port":-5}})"}) {
        root_.Write(kConfig, broken);
        const bool isList = std::string(broken) == "{\"service\":{}}";
        for (const Words& command : {Words{"service", "add", "web"},
                                     {"alias", "set", "nas"},
                                     {"alias", "clear"},
                                     {"log", "start", root_.Path("/log")},
                                     {"log", "stop"}}) {
            SCOPED_TRACE(std::string(broken) + testing::PrintToString(command));
            if (isList && command[0] != "service") {
                continue; // what is no list does not stop the others
            }
            const Result result = Run(command);
            EXPECT_EQ(result.code, 255);
            ExpectLine(result.err, "zarorelayd.conf: ");
            EXPECT_EQ(root_.Read(kConfig), broken);
            EXPECT_FALSE(std::filesystem::exists(root_.Path(std::string(kConfig) + ".bad")));
        }
    }
}

TEST_F(Ctl, LosesNoChangeOfTwoAtATime) {
    for (int round = 0; round < 100; ++round) {
        config_["service"].clear();
        WriteConfig();
        const auto one = Start({"service", "add", "web"}, root_.Path("/one"));
        const auto two = Start({"service", "add", "photos"}, root_.Path("/two"));
        ASSERT_EQ(one->Wait(seconds(30)) + two->Wait(seconds(30)), 0) << round;
        Json::Value now = ReadConfig();
        ASSERT_EQ(now["service"].size(), 2U) << round;
        now["service"].clear();
        ASSERT_EQ(now, config_) << round;
    }
}

TEST_F(Ctl, ChangesAliasSwitchAndLog) {
    EXPECT_EQ(Run({"alias", "set", "my-nas"}).code, 0);
    EXPECT_EQ(Compact(Document({"alias", "show", "--json"})),
              R"({"extra":"","name":"my-nas","status":""})");
    root_.Write("/tmp/farlink_alias.status",
                R"({"alias_name":"my-nas","status":"success","extra":"more"})");
    EXPECT_EQ(Run({"alias", "show"}).out, "my-nas: success, more\n");
    EXPECT_EQ(Run({"alias", "clear"}).code, 0);
    EXPECT_EQ(Run({"alias", "show"}).out, "no alias\n");

    EXPECT_EQ(Run({"log", "start", "here.log"}).err, "");
    EXPECT_EQ(ReadConfig()["log_file"], root_.Path("/here.log"));
    EXPECT_EQ(Run({"log", "stop"}).code, 0);
    config_.removeMember("log_level");
    config_["server_alias"]["alias"] = "";
    EXPECT_EQ(ReadConfig(), config_);

    EXPECT_EQ(Run({"disable"}).code, 0);
    EXPECT_THAT(root_.Read("/etc/zaroinfo.conf"), HasSubstr("runrelayd=\"no\""));
    EXPECT_EQ(Run({"enable"}).code, 0);
    EXPECT_THAT(root_.Read("/etc/zaroinfo.conf"), HasSubstr("runrelayd=\"yes\""));

    EXPECT_EQ(Run({"id"}).out, "044756784\n");
    EXPECT_EQ(Run({"id", "--verify", "044756784"}).code, 0);
    EXPECT_EQ(Run({"id", "--verify", "044756785"}).code, 1);
    EXPECT_EQ(Run({"version"}).code, 0);
}

TEST_F(Ctl, SignalsNoOtherProgramsProcess) {
    const pid_t other = fork();
    if (other == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            pause();
        }
    }
    root_.Write(kPidFile, std::to_string(other) + "\n");
    for (const Words& command : {Words{"stop"},
                                 {"reload"},
                                 {"debug"},
                                 {"service", "add", "photos"},
                                 {"log", "start", "/tmp/x"},
                                 {"alias", "set", "nas"},
                                 {"disable"}}) {
        Run(command);
        EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << command[0];
    }
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
}

TEST_F(Ctl, SaysThatRightsAreMissing) {
    // Process 1 is root's, and so is the folder.
    root_.Write(kStatusFile, R"({"pid":1,"state":5})");
    root_.Write(kPidFile, "1\n");
    const Words asNobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const Words before = geteuid() == 0 ? asNobody : Words();
    std::filesystem::permissions(root_.Dir(), std::filesystem::perms(0755));
    std::filesystem::permissions(root_.Path("/usr/zaro/etc"), std::filesystem::perms(0555));
    for (const Words& command : {Words{"status"},
                                 {"status", "--json"},
                                 {"service", "add", "photos"},
                                 {"alias", "clear"},
                                 {"log", "stop"}}) {
        const Result result = Run(command, before);
        EXPECT_EQ(result.code, 2) << command[0];
        ExpectLine(result.err, "run this as root");
    }
    std::filesystem::permissions(root_.Path("/usr/zaro/etc"), std::filesystem::perms(0755));
}

TEST_F(Ctl, StartEndsWithTheDaemonsCode) {
    root_.Write(kConfig, "{");
    EXPECT_EQ(Run({"start"}).code, 2); // the one beside it finds the fault
    root_.Write("/usr/zaro/bin/zarorelayd", "#!/bin/sh\necho \"$@\"\nexit 7\n", 0755);
    const std::string copy = root_.Path("/zarorelayctl");
    std::filesystem::copy(ZARO_CTL, copy);
    Process alone({copy, "restart", "--root", root_.Dir()}, root_.Path("/own"));
    EXPECT_EQ(alone.Wait(seconds(10)), 7);
    EXPECT_EQ(root_.Read("/own"), "--root " + root_.Dir() + "\n");
}

TEST_F(Ctl, CheckNamesTheFirstBrokenLink) {
    const Listener silent;
    const auto control = [&](const char* key, const Json::Value& value) {
        return [=] {
            config_["server_control"][key] = value;
            WriteConfig();
        };
    };
    const struct {
        const char* link;
        std::function<void()> breaks; ///< on top of what was broken before, further down
    } kCases[] = {
        {"daemon", [] {}},
        {"service web", [&] { Define("web", 1); }},
        {"ssh client", [&] { std::filesystem::remove(root_.Path("/usr/zaro/bin/ssh")); }},
        {"wait-command server",
         [&] {
             config_["server_waitcmd"] = Parse(R"({"host":"127.0.0.1","port":1})");
             WriteConfig();
         }},
        {"control server", control("port", 1)},
        {"control server name", control("host", "no.such.host.invalid")},
        {"credentials",
         [&] {
             std::filesystem::remove(root_.Path("/usr/zaro/etc/device.key"));
             root_.Write("/usr/zaro/etc/device.key/x", "");
         }},
        {"switch", [&] { root_.Write("/etc/zaroinfo.conf", ""); }},
        {"configuration", [&] { root_.Write(kConfig, "{"); }},
        {"hardware address", [&] { root_.Write(kConfig, R"({"serverID":"123456789"})"); }},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.link);
        c.breaks();
        const Result result = Run({"check", "--json"});
        EXPECT_EQ(result.code, 1);
        const Json::Value document = Parse(result.out);
        EXPECT_EQ(document["good"], false);
        std::string first;
        for (const Json::Value& link : document["link"]) {
            EXPECT_THAT(link.getMemberNames(), ElementsAre("detail", "name", "outcome", "remedy"));
            const bool broken = link["outcome"] == "broken";
            EXPECT_EQ(broken, !link["remedy"].asString().empty()) << link;
            first = broken && first.empty() ? link["name"].asString() : first;
        }
        EXPECT_EQ(first, c.link) << result.out;
        EXPECT_THAT(Run({"check"}).out, HasSubstr("Remedy (" + std::string(c.link) + "): "));
    }
}

TEST_F(Ctl, CheckWaitsForNoServerForLong) {
    config_["server_control"]["protocol"] = "https"; // the listener never says a word
    WriteConfig();
    Json::Value document;
    EXPECT_TRUE(Takes("silent server", seconds(8), [&] {
        document = Document({"check", "--json"});
        return true;
    }));
    std::map<std::string, std::string> outcome;
    for (const Json::Value& link : document["link"]) {
        outcome[link["name"].asString()] = link["outcome"].asString();
    }
    EXPECT_EQ(outcome["control server"], "good");
    EXPECT_EQ(outcome["control server TLS"], "broken");
}

TEST(CtlProgram, WorksWithARealDaemonAndHub) {
    const HubProcess hub;
    const WebService web("web");
    Device device(hub);
    device.Publish(web);
    device.root.Write(kConfig, Compact(device.config));
    const auto run = [&](Words arguments) {
        arguments.insert(arguments.begin(), {ZARO_CTL, "--root", device.root.Dir()});
        std::filesystem::remove(device.root.Path(kOut));
        Process program(arguments, device.root.Path(kOut), device.root.Dir(),
                        "ZARO_TEST_DEVICE=" + device.root.Dir());
        // A daemon without a parent is our child; while it is a zombie it looks alive.
        const pid_t daemon = atoi(device.root.Read(kPidFile).c_str());
        const auto ended = [&] {
            daemon > 0 ? waitpid(daemon, nullptr, WNOHANG) : 0;
            return program.Wait(milliseconds(0)) != Process::kRuns;
        };
        EXPECT_TRUE(Within(seconds(60), ended));
        return Result{program.Wait(milliseconds(0)), device.root.Read(kOut), ""};
    };
    ASSERT_EQ(run({"start"}).code, 0);
    ASSERT_TRUE(WaitFor([&] { return device.Serves(web) && device.IsAllUp(); })) << device.Status();
    const Json::Value status = Parse(run({"status", "--json"}).out);
    ExpectWholeStatus(status);
    EXPECT_EQ(status["service"][0]["up"], true);
    EXPECT_EQ(run({"status", "--service", "web"}).code, 0);

    const Result check = run({"check"});
    EXPECT_EQ(check.code, 0) << check.out;
    const Result debug = run({"debug"});
    EXPECT_EQ(debug.code, 0);
    EXPECT_EQ(Parse(debug.out)["tunnels"][0]["relay_pass"], "***");
    device.Enter();
    const std::string token = ZARO::Relay::AuthConf(true).token;
    ASSERT_FALSE(token.empty());
    EXPECT_THAT(check.out + debug.out, Not(HasSubstr(token)));

    EXPECT_EQ(run({"service", "remove", "web"}).code, 0);
    EXPECT_TRUE(WaitFor([&] { return device.Status()["service"].empty(); }));
    EXPECT_EQ(run({"service", "add", "web"}).code, 0);
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Status();
    const pid_t before = atoi(device.root.Read(kPidFile).c_str());
    EXPECT_EQ(run({"restart"}).code, 0);
    EXPECT_NE(atoi(device.root.Read(kPidFile).c_str()), before);
    EXPECT_TRUE(WaitFor([&] { return device.Serves(web); })) << device.Status();
    EXPECT_EQ(run({"stop"}).code, 0);
    EXPECT_EQ(run({"status"}).code, 1);
}

} // namespace
