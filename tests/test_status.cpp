#include <zarorelayd/daemon.h>

#include <sys/file.h>

#include <zarorelayd/file_lock.h>

#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

std::string gDumpFile;
std::string gDump; ///< what this process writes there on SIGUSR1; "-": it deletes the file

void Answer(int) {
    std::ofstream(gDumpFile) << gDump;
    if (gDump == "-") {
        fs::remove(gDumpFile);
    }
}

using StatusTest = RootTest;

} // namespace

TEST_F(StatusTest, TellsAndPrintsTexts) {
    const std::string live = "{\"pid\":" + std::to_string(getpid()), dead = R"({"pid":99999999)";
    const std::string group = R"({"pid":0)"; // a process group, with living members
    const std::string all = live + R"(,"serverID":"12","state":5,"error":6,
        "service":[7,null,{},{"id":5},{"id":["web"]},[],{"id":"web","port":1}]} // end)";
    // File, service, the three texts, result of printing. Only -1 can't be a process id.
    const std::tuple<std::string, const char*, const char*, int> rows[] = {
        {all, nullptr, "12 connected err_network", 0},
        {all, "web", "12 connected err_network", 0},
        {all, "we", "-- not_running success", 0},
        {dead + R"(,"serverID":"12","state":5,"error":8})", nullptr, "12 not_running err_auth", 1},
        {dead + R"(,"service":[{"id":"web"}]})", "web", "-- not_running success", 1},
        {"none", nullptr, " not_running success", 1},
        {R"({"pid":-99999999})", nullptr, " not_running success", 1},
        {group + "}", nullptr, " not_running success", 1},
        {R"({"pid":-1})", nullptr, "  ", 2},
        {"", nullptr, "  ", 2}};
    for (const auto& [text, service, texts, result] : rows) {
        root_.Write("/tmp/.zarorelayd.status", text);
        if (text == "none") {
            fs::remove(root_.Path("/tmp/.zarorelayd.status"));
        }
        std::string id = "x", state = "x", error = "x";
        Json::Value out = 5;
        const bool running = text.rfind(live, 0) == 0 || text.rfind(group, 0) == 0;
        EXPECT_EQ(Daemon::GetStatus(out), result == 2 ? 255 : running ? 0 : 1) << text;
        EXPECT_EQ(Daemon::GetStatus(id, state, error, service), result != 2) << text;
        EXPECT_EQ(id + " " + state + " " + error, texts) << text;
        const std::string output =
            Captured(STDOUT_FILENO, [&, r = result] { EXPECT_EQ(Daemon::Status(false), r); });
        const std::string fault = error == "success" ? "" : "error: " + error + "\n";
        const std::string lines = "serverID: " + id + "\nstate: " + state + "\n" + fault;
        if (service == nullptr) {
            EXPECT_EQ(output, result == 2 ? "get status failed\n" : lines);
        }
    }
}

TEST_F(StatusTest, BelievesTheUserOfTheProcessThatTheFileNames) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of other users take root";
    }
    const uid_t daemon = 12345;
    const pid_t process = fork();
    if (process == 0) {
        _exit(setuid(daemon) == 0 && pause());
    }
    const std::string path = root_.Path("/tmp/.zarorelayd.status");
    for (const uid_t owner : {daemon, daemon + 1}) {
        Json::Value out = 5;
        root_.Write("/tmp/.zarorelayd.status", "{\"pid\":" + std::to_string(process) + "}");
        GiveAway(path, owner);
        EXPECT_TRUE(WaitFor([&] { return Daemon::GetStatus(out) == (owner == daemon ? 0 : 1); }));
        EXPECT_EQ(out.isNull(), owner != daemon);
        fs::rename(path, path + "1");
        fs::create_symlink(path + "1", path);
        EXPECT_EQ(Daemon::GetStatus(out), 1); // a link can lead anywhere
    }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

TEST_F(StatusTest, FetchesADump) {
    const std::tuple<std::string, int, const char*> rows[] = {
        {"{\"a\" : [1] } // of now", 0, "{\"a\":[1]}\n"},
        {std::string(1500, '['), 11, "get status failed\n"},
        {"", 11, "get status failed\n"},
        {"-", 255, "get status failed\n"}};
    gDumpFile = root_.Path("/tmp/.zarorelayd." + std::to_string(getpid()) + ".debug");
    root_.Write("/var/run/zarorelayd.pid", std::to_string(getpid()) + "\n"); // we play the daemon
    signal(SIGUSR1, Answer);
    for (const auto& [dump, result, output] : rows) {
        gDump = dump;
        const auto status = [r = result] { EXPECT_EQ(Daemon::Status(true), r); };
        EXPECT_EQ(Captured(STDOUT_FILENO, status), output) << dump;
        EXPECT_FALSE(fs::exists(gDumpFile)) << dump;
    }
    Json::Value out = 5;
    gDump = "-";
    signal(SIGUSR1, SIG_IGN);
    root_.Write("/tmp" + gDumpFile.substr(gDumpFile.rfind('/')), "[7]"); // it reads what is there
    EXPECT_EQ(Daemon::DebugStatus(out), 0);
    EXPECT_EQ(Compact(out), "[7]");
    signal(SIGUSR1, Answer);
    gDump = "{}";
    fs::create_directories(gDumpFile + "/in the way");
    EXPECT_EQ(Daemon::DebugStatus(out), 11);
    EXPECT_EQ(Daemon::DebugStatus(out), 0);
    for (const auto& aside : fs::directory_iterator(root_.Path("/tmp"))) {
        fs::remove_all(aside);
    }
    FileLock asker(gDumpFile.c_str());
    EXPECT_TRUE(asker.Lock(LOCK_EX));
    GiveAway(gDumpFile, 12345); // any other user
    EXPECT_EQ(Daemon::DebugStatus(out), 11);
    EXPECT_TRUE(fs::remove(gDumpFile)); // not removed: it belongs to the other user
    fs::remove(root_.Path("/var/run/zarorelayd.pid"));
    EXPECT_EQ(Daemon::DebugStatus(out), 1);
    EXPECT_EQ(Signs({out.isNull(), fs::is_empty(root_.Path("/tmp"))}), "++");
}
