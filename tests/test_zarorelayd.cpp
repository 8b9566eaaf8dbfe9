#include <gmock/gmock.h>

#include "tests/support/device.h"

using testing::ContainsRegex;
using testing::StartsWith;

namespace {

using Zarorelayd = DeviceTest;

/// The exit code, a blank and the output of the program with these options.
std::string Outcome(const Device& device, const std::string& options) {
    return ::Outcome(Words(options, {ZARO_DAEMON, "--root", device.root.Dir()}));
}

/// What reading a file must not change.
std::string Fingerprint(const std::string& path) {
    const std::string facts = ::Outcome({"/usr/bin/stat", "-c", "%i %f %y", path});
    EXPECT_EQ(facts[0], '0') << facts;
    return facts + ReadFile(path);
}

TEST_F(Zarorelayd, ServesSoonAndReloadTouchesOnlyWhatChanged) {
    const WebService moved("moved");
    const WebService elsewhere("elsewhere");
    device.Publish(moved);
    device.Start();
    EXPECT_TRUE(Takes("start to first byte", seconds(1), [&] { return device.Serves(web); }));
    ASSERT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(moved); }));
    EXPECT_EQ(device.Status()["service"][0U]["local"], "reachable");
    const pid_t kept = device.Ssh("web");
    const pid_t movedSsh = device.Ssh("moved");
    const int port = device.RelayPort("moved");
    const Visitor visitor(device.RelayPort("web"));
    EXPECT_EQ(visitor.Line(), "web");

    device.Define("moved", elsewhere.Port());
    device.Reload([](Json::Value&) {});
    EXPECT_TRUE(Takes("port change", seconds(2), [&] { return Greeting(port) == "elsewhere"; }));
    EXPECT_TRUE(WaitFor([&] { return device.Ssh("moved") > 0; }));
    EXPECT_NE(device.Ssh("moved"), movedSsh);

    device.Reload([](Json::Value& now) { now["service"].resize(1); });
    EXPECT_TRUE(Takes("withdrawal", seconds(2),
                      [&] { return Visitor(port).IsRefused() && device.Ssh("moved") < 0; }));
    // A typo.
    device.Reload([](Json::Value& now) { now["service"] = Json::Value(now["service"][0U]); });
    EXPECT_TRUE(WaitFor([&] { return device.Logs("expected a list"); }));
    EXPECT_TRUE(device.ComesToRest());
    EXPECT_EQ(device.Ssh("web"), kept);
    EXPECT_EQ(visitor.Ask("still there?"), "still there?");
    EXPECT_EQ(hub.Registrations(), 1U);
}

TEST_F(Zarorelayd, GoesIntoTheBackgroundOnceAndLeavesNothing) {
    PublishMore(4);
    device.config["log_file"] = device.root.Path(Device::kLog);
    device.root.Write(Device::kPidFile, "4194305\n"); // left by a killed daemon
    const std::string stray = "ssh -d " + device.root.Path("/tmp/.tunnel.1.web");
    const Process slow({"/bin/sh", "-c", "trap '' TERM; kill -STOP $$", stray}); // takes 1 s to end
    device.Start({});
    Process second({ZARO_DAEMON, "--root", device.root.Dir()}, "/dev/null", "/", device.Mark());
    Process third({ZARO_DAEMON, "--root", device.root.Dir()}, "/dev/null", "/", device.Mark());
    const int lost = second.Wait(seconds(10)) + third.Wait(seconds(10));
    EXPECT_EQ(device.Daemon().Wait(seconds(10)) + lost, 2); // one ends with 0, two with 1
    EXPECT_TRUE(device.Status().isObject());                // once the start has returned
    ASSERT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(web); }));
    EXPECT_TRUE(WaitFor([&] { return device.Processes().size() == 6; }));
    const std::string pidFile = Fingerprint(device.root.Path(Device::kPidFile));
    const pid_t pid = device.Status()["pid"].asInt();
    EXPECT_EQ(device.root.Read(Device::kPidFile), std::to_string(pid) + "\n");
    EXPECT_NE(getsid(pid), getsid(0));
    fs::remove(device.root.Path(Device::kLog));
    kill(pid, SIGHUP);
    EXPECT_TRUE(WaitFor([&] { return device.Logs("configuration reloaded"); }));
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closed; // by the daemon, after the listing
        EXPECT_EQ(Count(fs::read_symlink(fd, closed), ".log (deleted)"), 0U);
    }
    EXPECT_THAT(Outcome(device, ""), ContainsRegex("^1 .* Daemon already running on PID file " +
                                                   std::to_string(pid) + "\n$"));
    EXPECT_THAT(Outcome(device, "--foreground"), StartsWith("1 ")); // the reason is in the log
    EXPECT_EQ(Fingerprint(device.root.Path(Device::kPidFile)), pidFile);
    EXPECT_TRUE(device.Serves(web));
    kill(pid, SIGTERM);
    int status = -1; // it became our child when its parent ended
    EXPECT_TRUE(Within(seconds(2) * kSlow, [&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(device.Processes().size() + device.PasswordFiles(), 0U);
    EXPECT_FALSE(fs::exists(device.root.Path(Device::kPidFile)));
    EXPECT_TRUE(device.Status().isNull());
}

TEST_F(Zarorelayd, StopsInTheMiddleOfALogIn) {
    device.root.Write("/) S 1 (", "#!/usr/bin/tail -f\n", 0755); // never ends; /proc shows its name
    device.WrapSsh("touch $ZARO_ROOT/in; exec \"$ZARO_ROOT/) S 1 (\"");
    device.Start();
    EXPECT_TRUE(WaitFor([&] { return fs::exists(device.root.Path("/in")); }));
    device.Daemon().Signal(SIGTERM);
    EXPECT_TRUE(Takes("stop in a log-in", seconds(2),
                      [&] { return device.Daemon().Wait(milliseconds(0)) == 0; }));
    EXPECT_EQ(device.Processes().size() + device.PasswordFiles(), 0U);
}

TEST_F(Zarorelayd, StartsOverAStalePidFile) {
    const Device neighbour(hub);
    const Process elsewhere({ZARO_DAEMON, "--foreground"}, "/dev/null", "/",
                            "ZARO_ROOT=" + neighbour.root.Dir());
    EXPECT_TRUE(WaitFor([&] { return neighbour.Status().isObject(); }));
    for (const std::string& text :
         {std::to_string(elsewhere.Pid()), std::to_string(getpid()), std::string("nonsense")}) {
        device.root.Write(Device::kPidFile, text);
        device.Start();
        EXPECT_TRUE(WaitFor([&] { return device.Status()["pid"] == device.Daemon().Pid(); }))
            << text;
        device.Daemon().Signal(SIGKILL);
        device.Daemon().Wait(seconds(10));
    }
    device.root.Write("/zarorelayd", "#!/usr/bin/tail -f\n", 0755); // a daemon without a lock file
    const Process former({device.root.Path("/zarorelayd")});
    const std::string process = std::to_string(former.Pid());
    EXPECT_TRUE(WaitFor([&] { return ReadFile("/proc/" + process + "/comm") == "zarorelayd\n"; }));
    device.root.Write(Device::kPidFile, process);
    EXPECT_THAT(Outcome(device, ""), StartsWith("1 "));
    EXPECT_EQ(device.root.Read(Device::kPidFile), process);
}

TEST_F(Zarorelayd, AnswersTheCommandLine) {
    const std::pair<const char*, const char*> rows[] = {
        {"--version", "^0 zarorelayd [0-9.]+\n$"},
        {"--help", "^0 .*--foreground.*--check"},
        {"--frobnicate", "^2 zarorelayd: [^\n]*--frobnicate[^\n]*\n$"},
        {"stray", "^2 zarorelayd: [^\n]*stray[^\n]*\n$"},
        {"--root", "^2 zarorelayd: [^\n]*--root[^\n]*\n$"},
        {"--check /no/such/file", "^2 zarorelayd: /no/such/file: can't be read: [^\n]*\n$"},
        // It can't even be opened, as a socket can't, by a process without a terminal.
        {"--check /dev/tty", "^2 zarorelayd: /dev/tty: can't be read: not a file\n$"}};
    for (const auto& [options, pattern] : rows) {
        EXPECT_THAT(Outcome(device, options), ContainsRegex(pattern));
    }
    EXPECT_THAT(::Outcome({ZARO_DAEMON, "--root", "/no/such/folder"}),
                ContainsRegex("^2 zarorelayd: --root: [^\n]*\n$"));
}

TEST_F(Zarorelayd, ChecksAConfigurationWithoutTouchingIt) {
    const std::pair<std::string, const char*> rows[] = {
        {"{}", ""},
        {R"({"log_level":7,"service":[{"id":"web"},{"id":"b","port":80}],"unknown":[]})", ""},
        {"", "expected JSON"},
        {"{} {}", "expected JSON"},
        {R"({"service":[],})", "expected JSON"}, // the library would move it aside
        {std::string(100000, '['), "expected JSON"},
        {"[]", "expected a JSON object"},
        {R"({"log_level":"7"})", "\"log_level\": expected a level from 0 to 7"},
        {R"({"log_file":{}})", "\"log_file\": expected a text"},
        {R"({"service":{}})", "\"service\": expected a list"},
        {R"({"service":[{"id":"../b","port":80}]})", "\"service[0].id\": expected 1 to 63"},
        {R"({"service":[{"id":"b","port":99999}]})", "\"service[0].port\": expected a port"},
        {R"({"service":[{"id":"b"}]})", "service \"b\" has no port"},
        {R"({"server_control":7})", "\"server_control\": expected an object"},
        {R"({"server_control":{"protocol":"gopher"}})", "expected \"http\" or \"https\""},
        {R"({"server_alias":{"poll_seconds":0}})", "\"server_alias.poll_seconds\": expected"},
        {R"({"serverID":"123456789"})", "\"serverID\": belongs to another device"}};
    const std::string path = device.root.Path(Device::kConfig);
    for (const auto& [file, fault] : rows) {
        device.root.Write(Device::kConfig, file, 0640);
        const std::string before = Fingerprint(path);
        const std::string outcome = Outcome(device, "--check");
        EXPECT_THAT(outcome, StartsWith(*fault == '\0' ? "0 " + path + ": good\n"
                                                       : "2 zarorelayd: " + path + ": "));
        EXPECT_THAT(outcome, testing::HasSubstr(fault));
        EXPECT_EQ(Count(outcome, "\n"), 1U) << outcome;
        EXPECT_EQ(Outcome(device, "--check " + path), outcome);
        EXPECT_EQ(Fingerprint(path), before);
    }
}

TEST_F(Zarorelayd, ServesManyAndThenRests) {
    PublishMore(49);
    const auto start = Clock::now();
    device.Start();
    ASSERT_TRUE(WaitFor([&] { return Count(Compact(device.Status()), "\"up\":true") > 0; }));
    const milliseconds alone = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    Clock::duration slowest{}; // a busy machine may take 50 times as long as for one
    EXPECT_TRUE(Takes("50 services", std::max<milliseconds>(seconds(10), 50 * alone), [&] {
        const auto asked = Clock::now();
        EXPECT_TRUE(device.Dump().isObject());
        slowest = std::max(slowest, Clock::now() - asked);
        return Within(milliseconds(100), [&] { return device.IsAllUp(); });
    }));
    EXPECT_LE(slowest, seconds(2) * kSlow); // a dump waits for the end of a log-in
    EXPECT_TRUE(device.Serves(web));
    for (const WebService& service : more) {
        EXPECT_TRUE(device.Serves(service)) << service.Name();
    }

    device.Reload([](Json::Value& now) { now["service"].resize(1); });
    ASSERT_TRUE(WaitFor([&] { return device.Processes().size() == 2; }));
    ASSERT_TRUE(WaitFor([&] { // only a wait command is under way
        return device.ComesToRest() && device.Dump()["exchange"]["wait_command"] == true;
    }));
    const long before = device.WakeUps();
    EXPECT_FALSE(Within(seconds(11), [&] { return device.WakeUps() - before > 11; }));
    const std::string pages = ReadFile("/proc/" + std::to_string(device.Daemon().Pid()) + "/statm");
    const long memory = atol(pages.c_str() + pages.find(' ')) * sysconf(_SC_PAGESIZE) / 1024;
    std::cout << "[ measured ] at rest: " << memory << " KiB, " << device.WakeUps() - before
              << " wake-ups in 11 s" << std::endl;
    EXPECT_LT(memory, kSlow == 1 ? 16 * 1024 : 1024 * 1024); // a sanitizer keeps freed memory
    EXPECT_TRUE(device.Serves(web));
}

} // namespace
