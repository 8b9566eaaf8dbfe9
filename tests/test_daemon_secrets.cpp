#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/device.h"
#include "tests/support/scripted_hub.h"

namespace {

/// Looks on while a device works, until Stop(): at every command line and environment of its
/// processes, and at every file of its temporary folder from the instant it is there.
class Onlooker : NoCopy {
public:
    explicit Onlooker(const Device& device)
        : folder_(device.root.Path("/tmp/")), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_GE(inotify_add_watch(inotify_, folder_.c_str(),
                                    IN_CREATE | IN_ATTRIB | IN_MODIFY | IN_MOVED_TO),
                  0);
        processes_ = std::thread([this, &device] {
            while (!stopped_) {
                for (const pid_t pid : device.Processes()) {
                    const std::string process = "/proc/" + std::to_string(pid);
                    lines.insert(ReadFile(process + "/cmdline"));
                    lines.insert(ReadFile(process + "/environ"));
                }
            }
        });
        files_ = std::thread([this] {
            pollfd ready = {inotify_, POLLIN, 0};
            while (!stopped_) {
                (void)poll(&ready, 1, 10);
                LookAtFiles();
            }
        });
    }
    ~Onlooker() { Stop(); }

    void Stop() {
        if (!stopped_.exchange(true)) {
            processes_.join();
            files_.join();
            close(inotify_);
        }
    }

    std::set<std::string> lines;       ///< of the processes
    std::set<std::string> openFiles;   ///< names and contents of those that others could read
    std::set<std::string> closedFiles; ///< names of the others

private:
    void LookAtFiles() {
        alignas(inotify_event) char events[4096];
        const ssize_t size = read(inotify_, events, sizeof events);
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            struct stat info = {};
            if (event->len == 0 || stat((folder_ + event->name).c_str(), &info) != 0) {
                continue; // gone already
            }
            if ((info.st_mode & 077) == 0) {
                closedFiles.insert(event->name);
            } else {
                openFiles.insert({event->name, ReadFile(folder_ + event->name)});
            }
        }
    }

    const std::string folder_;
    const int inotify_;
    std::atomic<bool> stopped_{false};
    std::thread processes_;
    std::thread files_;
};

/// The values of a member in a text full of JSON.
std::set<std::string> Members(const std::string& text, const std::string& name) {
    std::set<std::string> values;
    const std::string key = "\"" + name + "\":\"";
    for (std::size_t at = 0; (at = text.find(key, at)) != text.npos;) {
        at += key.size();
        values.insert(text.substr(at, text.find('"', at) - at));
    }
    return values;
}

/// The lines of a log but those by which the queue shows what it sends.
std::string WithoutRequestTrace(const std::string& log) {
    std::istringstream lines(log);
    std::string rest;
    for (std::string line; std::getline(lines, line);) {
        rest += line.find("add request") == line.npos ? line + "\n" : "";
    }
    return rest;
}

using DaemonSecrets = DeviceTest;

TEST_F(DaemonSecrets, StayWithTheirOwner) {
    const ScriptedHub server(hub);
    device.UseServer("http", server.Port());
    PublishMore(9);
    Onlooker onlooker(device);
    device.Start({"--foreground"}, 0);
    ASSERT_TRUE(Within(seconds(10) * kSlow, [&] { return device.IsAllUp(); })) << device.Log();
    Json::Value dump;
    EXPECT_TRUE(device.AnswersADump(dump));
    onlooker.Stop();

    const std::set<std::string> passwords = Members(server.Talk(), "relay_pass");
    const std::set<std::string> tokens = Members(server.Talk(), "token");
    ASSERT_EQ(passwords.size(), 10U);
    ASSERT_EQ(tokens.size(), 1U);
    EXPECT_TRUE(device.Logs(*tokens.begin())); // where the queue shows what it sends

    std::string seen = Compact(dump) + Compact(device.Status()) + hub.Log();
    for (const auto* texts : {&onlooker.lines, &onlooker.openFiles}) {
        for (const std::string& text : *texts) {
            seen += text + "\n";
        }
    }
    EXPECT_EQ((seen + WithoutRequestTrace(device.Log())).find(*tokens.begin()), seen.npos);
    seen += device.Log();
    for (const std::string& password : passwords) {
        EXPECT_EQ(seen.find(password), seen.npos) << seen.substr(seen.find(password) - 200, 300);
    }
    std::size_t passwordFiles = 0;
    for (const std::string& name : onlooker.closedFiles) {
        passwordFiles += Count(name, ".tunnel.");
    }
    EXPECT_GE(passwordFiles, 5U); // the onlooker was quick enough to see most
    for (const std::string& name : onlooker.openFiles) {
        EXPECT_NE(name.find(".tunnel."), 0U) << name;
    }
    EXPECT_GE(onlooker.lines.size(), 20U);
    hub.Kill(); // the server between would wait for the reply that it holds
}

TEST_F(DaemonSecrets, DaemonKeepsLittlePowerAndLeavesNoCore) {
    StartUp();
    const std::string process = "/proc/" + std::to_string(device.Daemon().Pid());
    EXPECT_EQ(Count(ReadFile(process + "/limits"), "Max core file size        0 "), 1U);
    const std::string status = ReadFile(process + "/status");
    EXPECT_EQ(Count(status, "NoNewPrivs:\t1\n"), 1U);
    const std::string key = geteuid() == 0 ? "CapBnd:\t" : "CapEff:\t";
    const auto kept = strtoull(status.c_str() + status.find(key) + key.size(), nullptr, 16);
    EXPECT_EQ(kept & ~0xebULL, 0U) << std::hex << kept;
}

TEST_F(DaemonSecrets, NoDescriptorReachesTheSshClient) {
    PublishMore(1);
    device.config["log_file"] = device.root.Path(Device::kLog);
    device.WrapSsh("echo $(ls /proc/self/fd) >> \"$ZARO_ROOT/descriptors\"");
    StartUp({});
    // The fourth is the listing's own; the second client starts beside the first one's watch.
    EXPECT_EQ(device.root.Read("/descriptors"), "0 1 2 3\n0 1 2 3\n");
}

} // namespace
