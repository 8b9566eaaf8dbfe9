// What happens to files when their writers are killed or the disk is full.
#include <zarorelayd/config.h>

#include <random>
#include <set>

#include <zaro/platform.h>

#include "app/daemon/status_file.h"
#include "tests/support/device.h"
#include "tests/support/namespaces.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

constexpr char kInfo[] = "/etc/zaroinfo.conf", kStatus[] = "/tmp/.zarorelayd.status";
constexpr char kBallast[] = "/mnt/ballast";

/// Makes a file, if there is one, look as if it was last written to `age` seconds ago.
void Age(const std::string& path, time_t age = 7200) {
    const timespec then = {time(nullptr) - age, 0}, times[] = {then, then};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

} // namespace

TEST(TornFiles, KilledWritersLeaveWholeFilesAndNoOthers) {
    // In memory, so that the kill hits the writer while it writes, not while it waits for the disk.
    setenv("TMPDIR", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp", 1);
    const TempRoot root;
    const std::string filler(20000, 'x');
    root.Write(Device::kConfig, "{\"other\":\"" + filler + "\"}");
    root.Write(kInfo, "#" + filler + "\n");
    RelaydConf conf(root.Path(Device::kConfig).c_str());
    const std::string name = conf.path;
    const std::pair<const char*, std::function<void(bool)>> writers[] = {
        {Device::kConfig, [&](bool odd) { RelaydConf::WriteJsonFile(name, filler + "01"[odd]); }},
        {Device::kConfig, [&](bool odd) { conf.serverID = "01"[odd], conf.WriteServerId(name); }},
        {Device::kConfig, [&](bool odd) { conf.WriteAliasName(name, odd ? "a" : "b"); }},
        {kInfo, [&](bool odd) { TLIBCINFOSetKeyValue("k", odd ? "a" : "b"); }},
        {kStatus, [&](bool odd) {
             static app::StatusFile status;
             status.Write(filler + "01"[odd]);
         }}};
    const auto seed = std::random_device()();
    std::cout << "[ measured ] seed " << seed << std::endl;
    std::minstd_rand random(seed);
    for (int round = 0; round < 500; round++) {
        const auto& [file, write] = writers[round % 5];
        const std::string path = root.Path(file);
        std::set<std::string> states;
        const auto settle = [&, work = write] {
            for (const bool odd : {false, true}) {
                work(odd);
                states.insert(ReadFile(path));
            }
            return std::distance(fs::directory_iterator(fs::path(path).parent_path()), {});
        };
        (void)settle();
        const pid_t writer = fork();
        while (writer == 0) {
            write(false);
            write(true);
        }
        const auto end = Clock::now() + std::chrono::microseconds(random() % 4000);
        while (Clock::now() < end) {
            states.insert(ReadFile(path));
        }
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        Age(path + ".tmp." + std::to_string(writer)); // a young one may be another container's
        states.insert(ReadFile(path));
        ASSERT_LE(settle(), 3) << "killed writers leave ever more files; " << round << " " << file;
        ASSERT_EQ(states.size(), 2U) << round << " " << file;
    }
}

TEST(TornFiles, OnlyOldOnesOfOursAreCleanedUp) {
    const TempRoot root;
    for (const std::string kind : {"old", "young", "link", "root gives it away"}) {
        const std::string left = root.Path("/etc/" + kind + ".tmp.4194305"); // not a possible pid
        const char* const name = left.c_str();
        EXPECT_EQ(kind == "link" ? symlink("x", name) : mknod(name, S_IFREG | 0644, 0), 0);
        Age(left, kind == "young" ? 0 : 7200);
        const bool theirs = kind[0] == 'r' && chown(name, 65534, 65534) == 0;
        EXPECT_TRUE(RelaydConf::WriteJsonFile(root.Path("/etc/" + kind), 1));
        EXPECT_EQ(fs::exists(fs::symlink_status(left)), theirs || kind == "young" || kind == "link")
            << kind;
    }
}

/// A device gets a new service. The daemon logs once that it can't write its status, the hub fails
/// to store the service; both go on with what they have, and catch up later.
TEST(TornFiles, DaemonAndHubOutlastAFullDisk) {
    if (!EnterDiskInMemory("24m")) {
        GTEST_SKIP() << "no mounts are allowed here: " << strerror(errno);
    }
    const WebService web("web"), more("more");
    const HubProcess hub;
    Device device(hub);
    const TempRoot& root = device.root;
    mount("none", root.Path("/var").c_str(), "tmpfs", 0, nullptr); // room for the log
    fs::create_directory(root.Path("/var/run"));
    fs::create_symlink("var/log", root.Path(Device::kLog));
    device.Publish(web);
    device.Start();
    ASSERT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(web); }));
    const pid_t ssh = device.Ssh("web");
    device.Publish(more);
    Json::Value config = device.ReadJson(Device::kConfig);
    config["service"] = device.config["service"];
    root.Write(Device::kConfig, Compact(config), 0600);
    std::ofstream ballast(kBallast);
    while (ballast << std::string(4096, 'x') << std::flush) {
    }
    ballast.close();
    const Json::Value before = device.Status();
    device.Daemon().Signal(SIGHUP);
    EXPECT_TRUE(WaitFor([&] {
        return device.Logs("] can't be written, No space left on device") &&
               device.Logs("update_service failed: 1");
    }));
    EXPECT_TRUE(device.Serves(web));
    EXPECT_EQ(device.Ssh("web"), ssh);
    EXPECT_EQ(device.Status(), before);
    EXPECT_EQ(device.Daemon().Wait(milliseconds(0)), Process::kRuns);
    fs::remove(kBallast);
    EXPECT_TRUE(WaitFor([&] {
        return device.IsAllUp() && device.Serves(more) && device.Logs("can be written again");
    }));
    EXPECT_EQ(device.Ssh("web"), ssh);
    EXPECT_EQ(Count(device.Log(), "can't be written"), 1U);
}
