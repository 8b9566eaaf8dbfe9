/// A device: a root directory and the daemon that runs in it.
#pragma once

#include <list>

#include <zarorelayd/daemon.h>
#include <zarorelayd/result.h>

#include "base/paths.h"
#include "tests/support/hub_process.h"
#include "tests/support/json_values.h"
#include "tests/support/temp_root.h"
#include "tests/support/web_service.h"

/// Its destructor ends everything that ran in its root, and prints its log after a failure. There
/// may be several at once; Enter() selects the one that this process's calls into the library use.
class Device : NoCopy {
public:
    static constexpr const char* kConfig = "/usr/zaro/etc/zarorelayd.conf";
    static constexpr const char* kLog = "/daemon.log";
    static constexpr const char* kPidFile = "/var/run/zarorelayd.pid";

    /// `number`: two hexadecimal digits, the end of its hardware address.
    explicit Device(const HubProcess& hub, const std::string& number = "01") {
        (void)prctl(PR_SET_CHILD_SUBREAPER, 1); // orphans become our children
        fs::copy(ZARO_DEVICE_BIN, root.Path("/usr/zaro/bin"));
        root.Write("/sys/class/net/eth0/address", "02:00:00:aa:bb:" + number + "\n");
        root.Write("/etc/zaroinfo.conf", "runrelayd=\"yes\"\n");
        UseRelay(hub.RelayPort());
        UseServer("https", hub.HttpsPort());
        config["log_level"] = 7;
        config["service"] = Json::Value(Json::arrayValue);
    }

    ~Device() {
        daemon_.reset();
        EXPECT_TRUE(WaitFor([this] {
            const std::vector<pid_t> left = Processes();
            for (const pid_t pid : left) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0); // returns at once unless it is our child
            }
            return left.empty();
        }));
        if (testing::Test::HasFailure()) {
            std::cout << "[ log of " << root.Dir() << " ]\n" << Log() << std::endl;
        }
    }

    /// `more`: further lines of the SSH client's configuration.
    void UseRelay(int port, const std::string& more = "") const {
        root.Write("/usr/zaro/etc/ssh/config", "Port " + std::to_string(port) + "\n" + more);
    }

    void UseServer(const std::string& protocol, int port) {
        config["server_control"] = Parse(R"({"host":"127.0.0.1"})");
        config["server_control"]["protocol"] = protocol;
        config["server_control"]["port"] = port;
    }

    /// Defines a service of this device and its port.
    void Define(const std::string& id, int port) const {
        root.Write("/usr/zaro/etc/services.d/" + id + ".conf",
                   "tcp=\"" + std::to_string(port) + "\"\n");
    }

    void Publish(const WebService& service) {
        Define(service.Name(), service.Port());
        config["service"].append(Parse("{\"id\":\"" + service.Name() + "\"}"));
    }

    /// Makes its ssh run this shell command first.
    void WrapSsh(const std::string& command) const {
        const std::string ssh = root.Path("/usr/zaro/bin/ssh");
        fs::rename(ssh, ssh + ".away");
        root.Write("/usr/zaro/bin/ssh", "#!/bin/sh\n" + command + "\nexec \"$0.away\" \"$@\"\n",
                   0755);
    }

    /// Starts the daemon with `config`, in the foreground unless told otherwise.
    void Start(std::vector<std::string> options = {"--foreground"}, mode_t mask = 022) {
        root.Write(kConfig, Compact(config), 0600);
        options.insert(options.begin(), {ZARO_DAEMON, "--root", root.Dir()});
        daemon_ = std::make_unique<Process>(options, root.Path(kLog), root.Dir(), Mark(), mask);
    }

    /// The process that Start has started.
    Process& Daemon() const { return *daemon_; }

    /// Changes the daemon's configuration file and makes it reload.
    template <class Change> void Reload(Change change) const {
        Json::Value now = ReadJson(kConfig);
        change(now);
        root.Write(kConfig, Compact(now), 0600);
        daemon_->Signal(SIGHUP);
    }

    void Enter() const {
        ZARO::paths::SetRoot(root.Dir());
        ZARO::Relay::Daemon::SetName("zarorelayd");
    }

    /// The dump that the daemon writes on request.
    Json::Value Dump() const {
        Json::Value dump;
        Enter();
        EXPECT_TRUE(WaitFor([&] { return ZARO::Relay::Daemon::DebugStatus(dump) == 0; }));
        return dump;
    }

    std::string Log() const { return root.Read(kLog); }
    bool Logs(const std::string& text) const { return Log().find(text) != std::string::npos; }

    /// The content of a file of this device; null when there is no such file.
    Json::Value ReadJson(const std::string& path) const {
        const std::string text = root.Read(path);
        return text.empty() ? Json::Value() : Parse(text);
    }
    Json::Value Status() const { return ReadJson("/tmp/.zarorelayd.status"); }
    bool IsAllUp() const {
        return Count(Compact(Status()["service"]), "\"up\":true") == config["service"].size();
    }

    /// The relay's port for a service; 0 while there is none.
    int RelayPort(const std::string& id) const {
        const Json::Value status = Status();
        for (const Json::Value& service : status["service"]) {
            if (service["id"] == id && service["tunnel"].isObject()) {
                return service["tunnel"]["relay_port"].asInt();
            }
        }
        return 0;
    }

    /// Whether a visitor of the relay gets through to a service.
    bool Serves(const std::string& id) const {
        const int port = RelayPort(id);
        return port != 0 && Greeting(port) == id;
    }
    bool Serves(const WebService& service) const { return Serves(service.Name()); }

    /// The ssh process of a service; -1 unless there is exactly one, in the background.
    pid_t Ssh(const std::string& id) const {
        const std::string files = "ssh -d " + root.Path("/tmp/.tunnel.");
        std::vector<pid_t> found;
        for (const pid_t pid : ProcessesWith("cmdline", files)) {
            const std::string start = ReadFile("/proc/" + std::to_string(pid) + "/cmdline").c_str();
            if (start.substr(start.rfind('.') + 1) == id) {
                found.push_back(pid);
            }
        }
        return found.size() == 1 ? found[0] : -1;
    }

    /// Stands in the environment of every process that belongs to this device.
    std::string Mark() const { return "ZARO_TEST_DEVICE=" + root.Dir(); }

    /// False, without a signal, unless there is exactly one: kill(-1) would reach every process.
    bool SignalSsh(const std::string& id, int number = SIGKILL) const {
        const pid_t pid = Ssh(id);
        return pid > 0 && kill(pid, number) == 0;
    }

    /// Every living process that was started in this root, by us or by our children.
    std::vector<pid_t> Processes() const { return ProcessesWith("environ", Mark()); }

    /// How many files in its temporary folder hold a tunnel's password.
    std::size_t PasswordFiles() const {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(root.Path("/tmp"))) {
            count += ::Count(entry.path().filename(), ".tunnel.");
        }
        return count;
    }

    /// How often the daemon has gone to sleep, and so has woken up.
    long WakeUps() const {
        const std::string text = ReadFile("/proc/" + std::to_string(daemon_->Pid()) + "/status");
        const std::string key = "\nvoluntary_ctxt_switches:";
        return atol(text.c_str() + text.find(key) + key.size());
    }

    /// Waits until the daemon has slept for a second.
    bool ComesToRest() const {
        long count = -1;
        auto since = Clock::now();
        return WaitFor([&] {
            since = WakeUps() == count ? since : Clock::now();
            count = WakeUps();
            return Clock::now() - since >= seconds(1);
        });
    }

    const TempRoot root;
    Json::Value config;

private:
    std::unique_ptr<Process> daemon_;
};

/// A device that publishes one service, or more, and its hub.
struct DeviceTest : testing::Test {
    DeviceTest() { device.Publish(web); }

    /// Starts the daemon, in the foreground by default, and waits until visitors get through.
    void StartUp(const std::vector<std::string>& options = {"--foreground"}) {
        device.Start(options);
        ASSERT_TRUE(WaitFor([this] { return device.IsAllUp() && device.Serves(web); }));
    }

    /// Publishes s1, s2, ...
    void PublishMore(int count) {
        for (int i = 1; i <= count; ++i) {
            device.Publish(more.emplace_back("s" + std::to_string(i)));
        }
    }

    HubProcess hub{600}; // longer than any test: no wait command times out
    const WebService web{"web"};
    std::list<WebService> more;
    Device device{hub};
};
