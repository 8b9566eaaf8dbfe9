#include <sys/inotify.h>

#include <atomic>
#include <future>
#include <set>

#include <zarorelayd/config.h>

#include "tests/support/device.h"

namespace {

/// Collects every command line and environment of a device's processes until `over`.
std::set<std::string> ProcessTexts(const Device& device, const std::atomic<bool>& over) {
    std::set<std::string> texts;
    while (!over) {
        for (const pid_t pid : device.Processes()) {
            const std::string process = "/proc/" + std::to_string(pid);
            texts.insert({ReadFile(process + "/cmdline"), ReadFile(process + "/environ")});
        }
    }
    return texts;
}

/// Looks at every file in a device's temporary folder as soon as it appears.
struct Onlooker : NoCopy {
    explicit Onlooker(const Device& device) : folder(device.root.Path("/tmp/")) {
        const uint32_t events = IN_CREATE | IN_ATTRIB | IN_MODIFY | IN_MOVED_TO;
        EXPECT_GE(inotify_add_watch(inotify, folder.c_str(), events), 0);
    }
    ~Onlooker() { close(inotify); }

    void LookUntil(const std::atomic<bool>& over) {
        alignas(inotify_event) char events[4096];
        for (pollfd ready = {inotify, POLLIN, 0}; !over; (void)poll(&ready, 1, 10)) {
            const ssize_t size = read(inotify, events, sizeof events);
            for (ssize_t at = 0; at < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(events + at);
                at += static_cast<ssize_t>(sizeof *event + event->len);
                struct stat info = {};
                const std::string name = folder + event->name;
                if (event->len != 0 && stat(name.c_str(), &info) == 0) { // it may be gone
                    const bool isOpen = (info.st_mode & 077) != 0;
                    (isOpen ? openFiles : closedFiles) += name + (isOpen ? ReadFile(name) : "");
                }
            }
        }
    }

    const std::string folder;
    const int inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    std::string openFiles;   ///< names and contents of files that others could read
    std::string closedFiles; ///< names of the other files
};

using ZarorelaydSecrets = DeviceTest;

TEST_F(ZarorelaydSecrets, StayWithTheirOwner) {
    PublishMore(9);
    device.WrapSsh(R"({ cat "$2"; echo; } >> "$ZARO_ROOT/passwords")");
    Onlooker onlooker(device);
    std::atomic<bool> over{false};
    auto files = std::async(std::launch::async, [&] { onlooker.LookUntil(over); });
    auto texts = std::async(std::launch::async, ProcessTexts, std::cref(device), std::cref(over));
    device.Start({"--foreground"}, 0);
    EXPECT_TRUE(Within(seconds(10) * kSlow, [&] { return device.IsAllUp(); }));
    const Json::Value dump = device.Dump();
    over = true;
    files.get();

    const std::vector<std::string> passwords = Words(device.root.Read("/passwords"));
    ASSERT_EQ(passwords.size(), 10U);
    const std::string token = ZARO::Relay::AuthConf(true).token;
    EXPECT_TRUE(device.Logs(token)); // the queue logs what it sends
    EXPECT_EQ(Count(onlooker.openFiles, ".tunnel."), 0U) << onlooker.openFiles;
    EXPECT_GE(Count(onlooker.closedFiles, ".tunnel."), 5U); // it is fast enough to see most
    std::string seen = Compact(dump) + Compact(device.Status()) + hub.Log() + onlooker.openFiles;
    const std::set<std::string> ofProcesses = texts.get();
    EXPECT_GE(ofProcesses.size(), 20U);
    for (const std::string& text : ofProcesses) {
        seen += text;
    }
    // The log without the lines in which the queue shows what it sends.
    const std::string others =
        Outcome({"/bin/grep", "-v", "add request", device.root.Path(Device::kLog)});
    EXPECT_EQ(others.rfind("0 ", 0), 0U);
    EXPECT_EQ(Count(seen + others, token), 0U);
    seen += device.Log();
    for (const std::string& password : passwords) {
        EXPECT_EQ(seen.find(password), seen.npos) << seen.substr(seen.find(password) - 200, 300);
    }
}

TEST_F(ZarorelaydSecrets, DaemonKeepsLittlePowerAndLeavesNoCore) {
    StartUp();
    const std::string process = "/proc/" + std::to_string(device.Daemon().Pid());
    EXPECT_EQ(Count(ReadFile(process + "/limits"), "Max core file size        0 "), 1U);
    const std::string status = ReadFile(process + "/status");
    EXPECT_EQ(Count(status, "NoNewPrivs:\t1\n"), 1U);
    const std::string key = geteuid() == 0 ? "CapBnd:\t" : "CapEff:\t";
    const auto kept = strtoull(status.c_str() + status.find(key) + key.size(), nullptr, 16);
    EXPECT_EQ(kept & ~0xebULL, 0U) << std::hex << kept;
}

TEST_F(ZarorelaydSecrets, NoDescriptorReachesTheSshClient) {
    PublishMore(1);
    device.config["log_file"] = device.root.Path(Device::kLog);
    device.WrapSsh("echo $(ls /proc/self/fd) >> \"$ZARO_ROOT/descriptors\"");
    StartUp({});
    // Descriptor 3 is the listing's own. The second client starts while the first one is watched.
    EXPECT_EQ(device.root.Read("/descriptors"), "0 1 2 3\n0 1 2 3\n");
}

} // namespace
