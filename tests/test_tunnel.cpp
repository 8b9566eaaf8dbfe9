#include <zarorelayd/tunnel.h>

#include "tests/support/no_memory.h"
#include "tests/support/scripted_ssh.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;
using Texts = std::vector<std::string>;

namespace {

struct TunnelTest : RootTest {
    /// A forked child must not allocate: it could wait forever for another thread's lock.
    TunnelTest() {
        pthread_atfork(nullptr, nullptr, [] { gAllocationsUntilOneFails = 0; });
    }

    std::string PasswordFile(const std::string& id) {
        return root_.Path("/tmp/.tunnel." + std::to_string(getpid()) + "." + id);
    }

    bool NoFileLeft() { return fs::is_empty(root_.Path("/tmp")); }
};

/// A tunnel with other values for some keys.
Tunnel With(const std::string& changes = "{}") {
    Tunnel tunnel = Parse(R"({"id":"web","name":"n","port":8080,"relay_ip":"r.example",
                              "relay_port":40123,"relay_user":"user","relay_pass":"pass word"})");
    EXPECT_TRUE(tunnel.Overwrite(Parse(changes)));
    return tunnel;
}

} // namespace

TEST_F(TunnelTest, ComparesAndJudgesSettings) {
    KeepsItsFields(Tunnel(), R"({"id":"i","name":"n","relay_ip":"r","relay_pass":"p",
        "relay_user":"u","relay_port":1,"port":2,"ext_port":3})");
    EXPECT_EQ(Written(With(), false),
              R"({"id":"web","name":"n","port":8080,"relay_ip":"r.example","relay_port":40123})");
    EXPECT_TRUE(With(R"({"name":"x","status":"TUNNEL_STATUS_READY","pid":5})") == With());
    EXPECT_TRUE(With(R"({"relay_port":0,"port":0})").IsValid());
    const std::pair<const char*, const char*> rows[] = {
        {R"({"relay_port":-1})", "invalid tunnel server info"},
        {R"({"relay_pass":""})", "invalid tunnel server info"},
        {R"({"id":"","relay_ip":""})", "wrong service info"}};
    for (const auto& row : rows) {
        Tunnel tunnel = With(row.first);
        EXPECT_TRUE(Logs("tunnel", 7, row.second, [&] { EXPECT_FALSE(tunnel.Create()); }));
        EXPECT_EQ(tunnel.GetStatus(), TUNNEL_STATUS_NONE);
        EXPECT_EQ(Signs({tunnel != With(), NoFileLeft()}), "++");
    }
}

TEST_F(TunnelTest, StartsWatchesAndStopsTheClient) {
    const ScriptedSsh ssh(root_);
    Tunnel tunnel = With();
    const Texts log = LogOf("tunnel", 7, [&] { EXPECT_TRUE(tunnel.Create()); });
    const std::string pid = std::to_string(ssh.Pid()), file = PasswordFile("web");
    EXPECT_EQ(log,
              (Texts{"/usr/zaro/bin/ssh -d " + file + " -NfR40123:localhost:8080 user@r.example",
                     "ssh returned: 0", "tunnel running: " + pid}));
    EXPECT_EQ(ssh.Argv(), "<" + root_.Path("/usr/zaro/bin/ssh") + "><-d><" + file +
                              "><-o><NoneEnabled=yes><-o><NoneSwitch=yes>"
                              "<-NfR40123:localhost:8080><user@r.example>");
    EXPECT_EQ(ssh.Password(), "600\npass word");
    EXPECT_TRUE(tunnel == With());
    EXPECT_EQ(Signs({tunnel.IsAlive(), tunnel.CheckStatusChanged(), NoFileLeft()}), "+-+");
    EXPECT_TRUE(tunnel.Destroy());
    EXPECT_EQ(tunnel.GetStatus(), TUNNEL_STATUS_READY);
    EXPECT_EQ(ssh.Reap(), SIGTERM);
    EXPECT_EQ(Signs({tunnel.CheckStatusChanged(), tunnel.CheckStatusChanged()}), "+-");
    EXPECT_FALSE(tunnel.IsAlive());
    EXPECT_EQ(tunnel.GetStatus(), TUNNEL_STATUS_CLOSE);
    EXPECT_EQ(Parse(Written(tunnel, true))["pid"], -1);
    for (const auto& [id, port] : {std::pair("syncbay", "6691>"), std::pair("syncbay2", "8080>")}) {
        const ScriptedSsh other(root_);
        EXPECT_TRUE(With(std::string("{\"id\":\"") + id + "\"}").Create());
        EXPECT_NE(other.Argv().find(std::string("localhost:") + port), std::string::npos) << id;
    }
}

TEST_F(TunnelTest, TellsHowALogInFailed) {
    const std::pair<const char*, std::string> rows[] = {
        {"exit 255", "255; tunnel create failed"},
        {"kill -KILL $$", "0; tunnel create failed"},
        {"echo '5 ssh -d /tmp/.tunnel.1.other' > $ZARO_ROOT/ssh.ps", "0; pclose failed"},
        {"echo root ssh -d $file > $ZARO_ROOT/ssh.ps", "0; get tunnel pid failed"}};
    for (const auto& [script, text] : rows) {
        const ScriptedSsh ssh(root_, script);
        const bool none = text == "0; pclose failed"; // logged, but not a failure
        Tunnel tunnel = With();
        const Texts log = LogOf("tunnel", 7, [&] { EXPECT_EQ(tunnel.Create(), none); });
        EXPECT_EQ(log.at(1) + "; " + log.at(2), "ssh returned: " + text) << script;
        EXPECT_EQ(tunnel.GetStatus(), none ? TUNNEL_STATUS_READY : TUNNEL_STATUS_FAILED);
        EXPECT_EQ(Signs({tunnel.IsAlive(), NoFileLeft()}), "-+") << script; // the client is reaped
    }
}

TEST_F(TunnelTest, ReturnsInTheChildWhenThereIsNoClient) {
    const Texts log = LogOf("tunnel", 7, [self = getpid(), this] {
        const bool created = With().Create();
        if (getpid() != self) {
            _exit(77);
        }
        EXPECT_EQ(Signs({created, With().RunSSHTunnel(nullptr), NoFileLeft()}), "--+");
    });
    EXPECT_THAT(log, testing::ElementsAre(testing::StartsWith("/usr/zaro/bin/ssh -d "),
                                          "execl SSH failed, No such file or directory",
                                          "ssh returned: 77", "tunnel create failed"));
}

TEST_F(TunnelTest, ServiceIdsStayInTheFolderAndAreNotExecuted) {
    for (const char* id : {R"(a\"; touch $ZARO_ROOT/x; \")", "$(touch $ZARO_ROOT/x)",
                           "`touch $ZARO_ROOT/x`", "d/../../x", R"(a\ntouch $ZARO_ROOT/x\n)",
                           R"(a\\\"$(touch $ZARO_ROOT/x))", "'; touch $ZARO_ROOT/x; '", ".*"}) {
        const ScriptedSsh ssh(root_);
        fs::create_directory(PasswordFile("d"));
        Tunnel tunnel = With(std::string("{\"id\":\"") + id + "\"}");
        const bool created = tunnel.Create();
        EXPECT_EQ(created, tunnel.GetStatus() == TUNNEL_STATUS_READY) << id;
        EXPECT_FALSE(fs::exists(root_.Path("/x"))) << id;
        EXPECT_EQ(ssh.Argv().find("<-d><" + PasswordFile("")) != std::string::npos, created) << id;
        EXPECT_EQ(Parse(Written(tunnel, true))["pid"], created ? ssh.Pid() : -1) << id;
        fs::remove(PasswordFile("d"));
        EXPECT_TRUE(NoFileLeft()) << id;
    }
}

TEST_F(TunnelTest, PasswordsAreNeverOthersToRead) {
    const std::string path = PasswordFile("web");
    fs::create_directories(path + "/in the way");
    fs::permissions(root_.Path("/tmp"), fs::perms(0755)); // so no other user can have put it there
    EXPECT_TRUE(Logs("tunnel", 3, "open [" + path + "] failed, Is a directory",
                     [&] { EXPECT_FALSE(With().WritePassFile(path)); }));
    fs::permissions(root_.Path("/tmp"), fs::perms(01777));
    EXPECT_EQ(Signs({With().WritePassFile(path), fs::remove(path)}), "++");
    // Another user has made the file, open to all, and keeps a descriptor.
    const int spy = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    With().WritePassFile(path);
    EXPECT_EQ(lseek(spy, 0, SEEK_END), 0);
    close(spy);
    fs::remove(path);
    root_.Write("/victim", "untouched");
    fs::create_symlink(root_.Path("/victim"), path);
    With().WritePassFile(path);
    EXPECT_EQ(root_.Read("/victim"), "untouched");
}
