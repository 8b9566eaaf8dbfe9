/// The program itself: command line, start, signals, sudden death, shortage of descriptors.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <future>

#include "tests/test_hub_kit.h"

namespace ZARO::RelayHub {
namespace {

/// The hub as a process of its own.
class Program {
public:
    explicit Program(std::vector<std::string> arguments) {
        int out[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), ZARO_HUB_PROGRAM);
        std::vector<char*> vector;
        for (std::string& argument : arguments) {
            vector.push_back(argument.data());
        }
        vector.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            execv(ZARO_HUB_PROGRAM, vector.data());
            _exit(127);
        }
        close(out[1]);
        output_ = Fd(out[0]);
    }
    ~Program() {
        if (pid_ > 0) {
            (void)End(SIGKILL);
        }
    }
    /// Its output until it has said `text` or is gone.
    std::string ReadUntil(const std::string& text) {
        std::string all;
        char byte = 0;
        while (all.find(text) == std::string::npos && read(output_.Get(), &byte, 1) == 1) {
            all += byte;
        }
        return all;
    }
    /// The wait status after `number`, 0 = none.
    int End(int number) {
        int status = 0;
        if (number != 0) {
            kill(pid_, number);
        }
        waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    Fd output_;
};

class HubProgram : public ::testing::Test {
protected:
    /// Starts it and learns its ports; the second start has the ports of the first.
    void Start() {
        const int first = 30000 + getpid() % 138 * 20;
        const std::string ports = std::to_string(first) + "-" + std::to_string(first + 19);
        program_ = std::make_unique<Program>(std::vector<std::string>{
            "--data", folder_.Path() + "/data", "--http-port", "-1", "--https-port",
            std::to_string(https_), "--relay-port", std::to_string(relay_), "--ports", ports});
        const std::string lines = program_->ReadUntil(" ports ");
        ASSERT_NE(lines.find("control https://127.0.0.1:"), std::string::npos) << lines;
        https_ = atoi(lines.c_str() + lines.find("control https://127.0.0.1:") + 26);
        relay_ = atoi(lines.c_str() + lines.find("relay ssh://127.0.0.1:") + 22);
    }

    TemporaryFolder folder_;
    std::unique_ptr<Program> program_;
    int https_ = 0;
    int relay_ = 0;
};

TEST_F(HubProgram, RefusesAWrongCommandLineInOneLine) {
    std::filesystem::create_directory(folder_.Path() + "/somebodys");
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0755));
    const struct {
        std::vector<std::string> arguments;
        int code;
        const char* says;
    } kRows[] = {
        {{}, 2, "--data is required"},
        {{"--data", "x", "--frobnicate"}, 2, "--frobnicate"},
        {{"--data", "x", "--http-port", "70000"}, 2, "--http-port: expected a number"},
        {{"--data", "x", "--relay-port", "ssh"}, 2, "--relay-port: expected a number"},
        {{"--data", "x", "--ports", "300-200"}, 2, "--ports: expected a range"},
        {{"--data", "x", "--address", "localhost"}, 2, "--address: expected an IP address"},
        {{"--data", "x", "--host", "a,DNS:b"}, 2, "--host: expected a host name"},
        {{"--data", "x", "--log-level", "9"}, 2, "--log-level: expected a number from 3 to 7"},
        {{"--data", "/proc/none"}, 1, "can't make /proc/none"},
        {{"--data", folder_.Path()}, 1, "holds other files"},
        {{"--version"}, 0, "zarorelay-hub "},
        {{"--help"}, 0, "--alias-ttl"},
    };
    for (const auto& row : kRows) {
        Program program(row.arguments);
        const std::string said = program.ReadUntil("\t\t"); // everything
        EXPECT_NE(said.find(row.says), std::string::npos) << said;
        EXPECT_EQ(WEXITSTATUS(program.End(0)), row.code) << said;
        if (row.code != 0) {
            EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
        }
    }
}

TEST_F(HubProgram, RefusesASecondHub) {
    Start();
    const std::string data = folder_.Path() + "/data";
    EXPECT_NE(Program({"--data", data}).ReadUntil("\n").find("another hub"), std::string::npos);
    Program other({"--data", data + "2", "--relay-port", std::to_string(relay_)});
    EXPECT_NE(other.ReadUntil("\n").find("Address already in use"), std::string::npos);
    EXPECT_EQ(WEXITSTATUS(other.End(0)), 1);
}

TEST_F(HubProgram, ComesBackAfterSuddenDeath) {
    Start();
    TestDevice device(https_);
    ASSERT_EQ(Errnos(device.Publish("web")), "0 0");
    auto tunnel = std::make_unique<TestTunnel>(relay_);
    ASSERT_TRUE(tunnel->Open(device.Tunnels()["web"]));
    TestVisitor visitor(device.Tunnels()["web"]["relay_port"].asInt());
    const Json::Value before = device.Tunnels()["web"];
    const int revision = device.Wait(0)["revision"].asInt();

    program_->End(SIGKILL);
    Start(); // at the same ports, though connections to them were open
    const Json::Value reply = device.Wait(revision);
    EXPECT_NE(reply["revision"], revision);
    EXPECT_EQ(reply["tunnels"][0]["relay_pass"], before["relay_pass"]);
    EXPECT_FALSE(reply["tunnels"][0]["relay_up"].asBool());
    tunnel = std::make_unique<TestTunnel>(relay_);
    EXPECT_TRUE(tunnel->Open(before)) << "also the tunnel's port can be had again";
}

TEST_F(HubProgram, EndsInOrderWhileHoldingRequestsAndSessions) {
    Start();
    TestDevice device(https_);
    ASSERT_EQ(Errnos(device.Publish("web")), "0 0");
    TestTunnel tunnel(relay_);
    ASSERT_TRUE(tunnel.Open(device.Tunnels()["web"]));
    ASSERT_TRUE(Eventually([&] { return device.Tunnels()["web"]["relay_up"].asBool(); }));
    const int revision = device.Wait(0)["revision"].asInt();
    TestVisitor idle(https_); // never speaks
    auto held = std::async(std::launch::async, [&] { return device.Wait(revision); });
    EXPECT_EQ(held.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(program_->End(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(held.get()["revision"], revision);
}

TEST_F(HubProgram, ShortageOfDescriptorsOnlyDelays) {
    Start();
    TestDevice device(https_);
    ASSERT_EQ(Errnos(device.Publish("web")), "0 0");
    const Json::Value web = device.Tunnels()["web"];
    TestTunnel tunnel(relay_);
    ASSERT_TRUE(tunnel.Open(web));
    TestVisitor served(web["relay_port"].asInt());
    const ssh_channel channel = tunnel.Accept();
    ASSERT_NE(channel, nullptr);

    const std::string open = "/proc/" + std::to_string(program_->Pid()) + "/fd";
    const auto count = std::distance(std::filesystem::directory_iterator(open),
                                     std::filesystem::directory_iterator());
    rlimit before{};
    ASSERT_EQ(prlimit(program_->Pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit low{static_cast<rlim_t>(count), before.rlim_max};
    ASSERT_EQ(prlimit(program_->Pid(), RLIMIT_NOFILE, &low, nullptr), 0);
    std::vector<std::unique_ptr<TestVisitor>> waiting; // more than may have been counted too many
    for (int i = 0; i < 5; ++i) {
        waiting.push_back(std::make_unique<TestVisitor>(web["relay_port"].asInt()));
    }
    TestVisitor stranger(relay_);
    const std::string said = program_->ReadUntil("visitors of port");
    EXPECT_NE(said.find("visitors of port"), std::string::npos) << said;
    ASSERT_TRUE(TestTunnel::Write(channel, "still here"));
    EXPECT_EQ(served.Read(10), "still here");

    ASSERT_EQ(prlimit(program_->Pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    for (const auto& visitor : waiting) {
        const ssh_channel late = tunnel.Accept();
        ASSERT_NE(late, nullptr);
        ASSERT_TRUE(TestTunnel::Write(late, "welcome"));
        EXPECT_EQ(visitor->Read(7), "welcome");
    }
    EXPECT_EQ(stranger.Read(4), "SSH-") << "it waited, too";
}

} // namespace
} // namespace ZARO::RelayHub
