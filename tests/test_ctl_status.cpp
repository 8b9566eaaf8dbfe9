#include <regex>

#include "tests/support/ctl.h"

using testing::HasSubstr;
using testing::Not;

TEST_F(Ctl, StatusFollowsTheStatusFile) {
    const std::string alive = "{\"pid\":" + std::to_string(getpid()) + ",";
    const std::string dead = "{\"pid\":4194304"; // above the highest possible one
    // The file and options; then exit code, running and state; then what standard error contains.
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
        if (!file.empty()) {
            root_.Write(kStatusFile, file);
        }
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
    const auto old = fs::file_time_type::clock::now() - std::chrono::minutes(5);
    fs::last_write_time(root_.Path(kStatusFile), old);
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
