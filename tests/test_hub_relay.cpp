/// The relay: log-ins, the forward, visitors, take-over, and what it refuses.
#include <future>

#include "tests/test_hub_kit.h"

namespace ZARO::RelayHub {
namespace {

class HubRelay : public ::testing::Test {
protected:
    void SetUp() override {
        hub_.options.hold = std::chrono::seconds(2);
        ASSERT_TRUE(hub_.Start());
        device_ = std::make_unique<TestDevice>(hub_.hub->HttpsPort());
        ASSERT_EQ(Errnos(device_->Publish("web,other")), "0 0");
        const Json::Value tunnels = device_->Tunnels();
        web_ = tunnels["web"];
        other_ = tunnels["other"];
        port_ = web_["relay_port"].asInt();
    }
    std::unique_ptr<TestTunnel> NewTunnel() const {
        return std::make_unique<TestTunnel>(hub_.hub->RelayPort());
    }
    bool IsUp() { return device_->Tunnels()["web"]["relay_up"].asBool(); }

    TestHub hub_;
    std::unique_ptr<TestDevice> device_;
    Json::Value web_, other_;
    int port_ = 0;
};

TEST_F(HubRelay, CarriesBytesBothWaysAndHalfCloses) {
    const std::string question = Pattern(5000000);
    const std::string answer = Pattern(7000001);
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    TestVisitor visitor(port_);
    auto asking = std::async(std::launch::async, [&] {
        const bool sent = visitor.Send(question);
        visitor.EndSending();
        return sent;
    });
    const ssh_channel channel = tunnel->Accept();
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(TestTunnel::ReadAll(channel), question);
    EXPECT_TRUE(asking.get());

    auto reading = std::async(std::launch::async, [&] { return visitor.Read(); });
    EXPECT_TRUE(TestTunnel::Write(channel, answer));
    EXPECT_EQ(ssh_channel_send_eof(channel), SSH_OK);
    EXPECT_EQ(reading.get(), answer);
    ssh_channel_free(channel);
}

TEST_F(HubRelay, DeviceMayEndFirst) {
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    TestVisitor visitor(port_);
    const ssh_channel channel = tunnel->Accept();
    ASSERT_NE(channel, nullptr);
    ASSERT_TRUE(TestTunnel::Write(channel, "go on"));
    ASSERT_EQ(ssh_channel_send_eof(channel), SSH_OK);
    EXPECT_EQ(visitor.Read(), "go on");
    ASSERT_TRUE(visitor.Send("thanks"));
    visitor.EndSending();
    EXPECT_EQ(TestTunnel::ReadAll(channel), "thanks");
    ssh_channel_free(channel);
}

TEST_F(HubRelay, TellsEitherSideOfTheOthersEnd) {
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    auto visitor = std::make_unique<TestVisitor>(port_);
    ssh_channel channel = tunnel->Accept();
    ASSERT_NE(channel, nullptr);
    visitor.reset();
    EXPECT_EQ(TestTunnel::ReadAll(channel), "");
    ssh_channel_free(channel);

    visitor = std::make_unique<TestVisitor>(port_);
    channel = tunnel->Accept();
    ASSERT_NE(channel, nullptr);
    ASSERT_TRUE(TestTunnel::Write(channel, "bye"));
    ssh_channel_close(channel);
    EXPECT_EQ(visitor->Read(), "bye");
    ssh_channel_free(channel);
}

TEST_F(HubRelay, StalledVisitorDoesNotHoldOthersUp) {
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    TestVisitor stalled(port_);
    const ssh_channel first = tunnel->Accept();
    ASSERT_NE(first, nullptr);
    // More than all buffers on the way hold: the device can only write until its window closes.
    const std::string flood = Pattern(32 << 20);
    ssh_set_blocking(tunnel->Session(), 0);
    size_t written = 0;
    const auto fill = [&] {
        const size_t part = std::min<size_t>(flood.size() - written, 1 << 20);
        const int taken =
            ssh_channel_write(first, flood.data() + written, static_cast<uint32_t>(part));
        written += taken > 0 ? static_cast<size_t>(taken) : 0;
        return taken <= 0 && ssh_channel_window_size(first) == 0;
    };
    ASSERT_TRUE(Eventually(fill));
    ASSERT_LT(written, flood.size()) << "memory for one visitor is bounded";
    ssh_set_blocking(tunnel->Session(), 1);

    TestVisitor lively(port_);
    const ssh_channel second = tunnel->Accept();
    ASSERT_NE(second, nullptr);
    ASSERT_TRUE(TestTunnel::Write(second, "hello"));
    EXPECT_EQ(lively.Read(5), "hello");
    // It reads on while more comes.
    auto reading = std::async(std::launch::async, [&] { return stalled.Read(flood.size()); });
    EXPECT_TRUE(TestTunnel::Write(first, flood.substr(written)));
    EXPECT_TRUE(reading.get() == flood);
}

TEST_F(HubRelay, RefusesWhatIsNotTheTunnelsOwn) {
    const std::string user = web_["relay_user"].asString();
    const std::string password = web_["relay_pass"].asString();
    const struct {
        const char* name;
        std::string user, password;
    } kLogIns[] = {
        {"wrong password", user, password + "x"},
        {"empty password", user, ""},
        {"another tunnel's password", user, other_["relay_pass"].asString()},
        {"unknown user", "root", password},
        {"hostile user", "' OR 1=1 --", password},
    };
    for (const auto& row : kLogIns) {
        EXPECT_FALSE(NewTunnel()->LogIn(row.user, row.password)) << row.name;
    }
    for (const int port : {other_["relay_port"].asInt(), port_ + 1000, 0, 22}) {
        auto tunnel = NewTunnel();
        ASSERT_TRUE(tunnel->LogIn(web_));
        EXPECT_FALSE(tunnel->Forward(port)) << port;
        EXPECT_FALSE(IsUp());
    }
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    EXPECT_FALSE(tunnel->Forward(port_)) << "once is enough";
    const ssh_channel shell = ssh_channel_new(tunnel->Session());
    EXPECT_EQ(ssh_channel_open_session(shell), SSH_ERROR);
    const ssh_channel direct = ssh_channel_new(tunnel->Session());
    EXPECT_EQ(ssh_channel_open_forward(direct, "127.0.0.1", hub_.hub->HttpPort(), "x", 1),
              SSH_ERROR);
    EXPECT_TRUE(TestVisitor(port_).IsConnected());
    EXPECT_NE(tunnel->Accept(), nullptr) << "the refusals left the session whole";
}

TEST_F(HubRelay, ClosesAfterThreeWrongPasswords) {
    auto tunnel = NewTunnel();
    EXPECT_FALSE(tunnel->LogIn("nobody", "1"));
    for (const char* guess : {"2", "3", "4"}) {
        EXPECT_NE(ssh_userauth_password(tunnel->Session(), nullptr, guess), SSH_AUTH_SUCCESS);
    }
    EXPECT_EQ(ssh_is_connected(tunnel->Session()), 0);
}

TEST_F(HubRelay, NewLogInTakesOverFromASilentOne) {
    auto silent = NewTunnel(); // answers nothing from here on, like a device that vanished
    ASSERT_TRUE(silent->Open(web_));
    const int revision = device_->Wait(0)["revision"].asInt();
    TestVisitor early(port_); // its channel is never opened
    auto fresh = NewTunnel();
    ASSERT_TRUE(fresh->LogIn(web_));
    TestVisitor between(port_);
    EXPECT_TRUE(between.IsConnected()) << "the port stays open meanwhile";
    ASSERT_TRUE(fresh->Forward(port_));
    const ssh_channel channel = fresh->Accept();
    ASSERT_NE(channel, nullptr);
    ASSERT_TRUE(TestTunnel::Write(channel, "new"));
    EXPECT_EQ(between.Read(3), "new");
    EXPECT_EQ(early.Read(), "");
    EXPECT_TRUE(Eventually([&] { return silent->IsEnded(); }));
    EXPECT_EQ(device_->Wait(revision)["revision"], revision) << "it was up all the time";
}

TEST_F(HubRelay, RemovalClosesSessionAndPortAtOnce) {
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    ASSERT_EQ(Errnos(device_->Post("[" + TestDevice::Services("service_rm", "web") + "]")), "0");
    EXPECT_FALSE(TestVisitor(port_).IsConnected());
    EXPECT_TRUE(Eventually([&] { return tunnel->IsEnded(); }));
    EXPECT_FALSE(NewTunnel()->LogIn(web_));
}

TEST_F(HubRelay, TellsTheDeviceWhetherItsPortIsUp) {
    EXPECT_FALSE(IsUp());
    const int down = device_->Wait(0)["revision"].asInt();
    auto tunnel = NewTunnel();
    auto other = NewTunnel();
    ASSERT_TRUE(tunnel->LogIn(web_) && other->LogIn(other_));
    auto held = std::async(std::launch::async, [&] { return device_->Wait(down); });
    ASSERT_EQ(held.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    ASSERT_TRUE(tunnel->Forward(port_) && other->Forward(other_["relay_port"].asInt()));
    const Json::Value up = held.get();
    EXPECT_EQ(up["revision"], down + 1) << "two changes in one reply";
    EXPECT_TRUE(up["tunnels"][0]["relay_up"].asBool());
    EXPECT_TRUE(up["tunnels"][1]["relay_up"].asBool());
    tunnel.reset();
    EXPECT_TRUE(Eventually([&] { return !IsUp(); }));
    EXPECT_FALSE(TestVisitor(port_).IsConnected());
}

TEST_F(HubRelay, ManyVisitorsComeAndGo) {
    auto tunnel = NewTunnel();
    ASSERT_TRUE(tunnel->Open(web_));
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<TestVisitor>> visitors;
        std::vector<ssh_channel> channels;
        for (int i = 0; i < 50; ++i) {
            visitors.push_back(std::make_unique<TestVisitor>(port_));
            ASSERT_TRUE(visitors.back()->Send("n" + std::to_string(i) + "\n"));
            visitors.back()->EndSending();
        }
        for (size_t i = 0; i < visitors.size(); ++i) {
            channels.push_back(tunnel->Accept());
            ASSERT_NE(channels.back(), nullptr);
        }
        for (const ssh_channel channel : channels) {
            EXPECT_TRUE(TestTunnel::Write(channel, TestTunnel::ReadAll(channel)));
            ssh_channel_free(channel); // closes it
        }
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(visitors[static_cast<size_t>(i)]->Read(), "n" + std::to_string(i) + "\n");
        }
    }
}

TEST_F(HubRelay, FloodOfStrangersLeavesRoomForLogIns) {
    std::vector<std::unique_ptr<TestVisitor>> strangers;
    for (int i = 0; i < 200; ++i) {
        strangers.push_back(std::make_unique<TestVisitor>(hub_.hub->RelayPort()));
        ASSERT_TRUE(strangers.back()->IsConnected());
        strangers.back()->Send(i % 2 == 0 ? "SSH-2.0-x\r\n" : "GET / HTTP/1.1\r\n\r\n");
    }
    const auto start = std::chrono::steady_clock::now();
    auto tunnel = NewTunnel();
    EXPECT_TRUE(tunnel->Open(web_));
    strangers.front()->Read(); // returns only when the relay has hung up
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5))
        << "not by their time-out";
}

TEST_F(HubRelay, NoticesADeviceThatFellSilent) {
    auto tunnel = NewTunnel(); // its connection stands, but nothing in it answers
    ASSERT_TRUE(tunnel->Open(web_));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TestVisitor(port_).Read(), "");
    EXPECT_FALSE(TestVisitor(port_).IsConnected());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

} // namespace
} // namespace ZARO::RelayHub
