/// The relay: log-ins, the forward, visitors, take-over, and what it refuses.
#include <atomic>
#include <future>
#include <list>
#include <random>

#include "tests/support/hub_kit.h"

namespace ZARO::RelayHub {
namespace {

/// Bytes that show it when some are lost, doubled or moved.
std::string Pattern(size_t size) {
    std::string data(size, '\0');
    std::generate(data.begin(), data.end(), std::minstd_rand());
    return data;
}

struct HubRelay : testing::Test {
    std::unique_ptr<TestTunnel> Open() const { return std::make_unique<TestTunnel>(hub_, web_); }

    const HubProcess hub_{2};
    TestDevice device_{hub_, 1, "web,other"};
    const Json::Value web_ = device_.Tunnels()["web"];
    const Json::Value other_ = device_.Tunnels()["other"];
    const int port_ = web_["relay_port"].asInt();
};

TEST_F(HubRelay, CarriesBytesBothWaysAndHalfCloses) {
    const std::string question = Pattern(5000000);
    const std::string answer = Pattern(7000001);
    const auto start = Clock::now();
    const auto tunnel = Open();
    auto visitor = std::make_unique<Visitor>(port_);
    ssh_channel channel = tunnel->Accept();
    auto reading = std::async(std::launch::async, [&] { return visitor->Read(); });
    EXPECT_TRUE(TestTunnel::Write(channel, answer));
    EXPECT_EQ(ssh_channel_send_eof(channel), SSH_OK);
    EXPECT_EQ(reading.get(), answer);
    auto asking = std::async(std::launch::async, [&] {
        const bool sent = visitor->Send(question);
        visitor = std::make_unique<Visitor>(port_); // the first one has gone
        return sent;
    });
    EXPECT_EQ(TestTunnel::ReadAll(channel), question);
    EXPECT_TRUE(asking.get());

    channel = tunnel->Accept();
    ASSERT_TRUE(TestTunnel::Write(channel, "bye"));
    ssh_channel_close(channel);
    EXPECT_EQ(visitor->Read(), "bye");
    EXPECT_LT(Clock::now() - start, seconds(5) * kSlow) << "it goes on when the window opens";
}

TEST_F(HubRelay, StalledVisitorDoesNotHoldOthersUp) {
    const auto tunnel = Open();
    const Visitor stalled(port_);
    const ssh_channel first = tunnel->Accept();
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
    ASSERT_TRUE(Within(seconds(20) * kSlow, fill));
    ASSERT_LT(written, flood.size()) << "memory for one visitor is bounded";
    ssh_set_blocking(tunnel->Session(), 1);

    const Visitor lively(port_);
    EXPECT_TRUE(tunnel->Serves(lively));
    // It reads on while more comes.
    auto reading = std::async(std::launch::async, [&] { return stalled.Read(flood.size()); });
    EXPECT_TRUE(TestTunnel::Write(first, flood.substr(written)));
    EXPECT_TRUE(reading.get() == flood);
}

TEST_F(HubRelay, RefusesWhatIsNotTheTunnelsOwn) {
    const std::string user = web_["relay_user"].asString();
    const std::string password = web_["relay_pass"].asString();
    const std::pair<std::string, std::string> kLogIns[] = {
        {user, password + "x"},
        {user, ""},
        {user, other_["relay_pass"].asString()},
        {"root", password},
        {"' OR 1=1 --", password},
    };
    for (const auto& [name, word] : kLogIns) {
        EXPECT_FALSE(TestTunnel(hub_).LogIn(name, word)) << name << " " << word;
    }
    for (const char* costly : {"diffie-hellman-group16-sha512",
                               "diffie-hellman-group-exchange-sha256", "ecdh-sha2-nistp521"}) {
        TestTunnel tunnel(hub_);
        ssh_options_set(tunnel.Session(), SSH_OPTIONS_KEY_EXCHANGE, costly);
        EXPECT_FALSE(tunnel.LogIn(web_)) << costly;
    }
    for (const int port : {other_["relay_port"].asInt(), port_ + 1000, 0, 22}) {
        TestTunnel tunnel(hub_);
        ASSERT_TRUE(tunnel.LogIn(web_));
        EXPECT_FALSE(tunnel.Forward(port)) << port;
        EXPECT_FALSE(device_.Tunnels()["web"]["relay_up"].asBool());
    }
    const auto tunnel = Open();
    const ssh_channel shell = ssh_channel_new(tunnel->Session());
    EXPECT_EQ(ssh_channel_open_session(shell), SSH_ERROR);
    const ssh_channel direct = ssh_channel_new(tunnel->Session());
    EXPECT_EQ(ssh_channel_open_forward(direct, "127.0.0.1", hub_.HttpPort(), "x", 1), SSH_ERROR);
    const Visitor visitor(port_); // the refusals left the session whole
    EXPECT_TRUE(tunnel->Serves(visitor));
    EXPECT_FALSE(tunnel->Forward(port_)) << "once is enough";
    EXPECT_TRUE(WaitFor([&] { return tunnel->IsEnded(); }));
}

TEST_F(HubRelay, ClosesAfterThreeWrongPasswords) {
    TestTunnel tunnel(hub_);
    EXPECT_FALSE(tunnel.LogIn("nobody", "1"));
    for (const char* guess : {"2", "3", "4"}) {
        EXPECT_NE(ssh_userauth_password(tunnel.Session(), nullptr, guess), SSH_AUTH_SUCCESS);
    }
    EXPECT_EQ(ssh_is_connected(tunnel.Session()), 0);
}

TEST_F(HubRelay, WrongPasswordsDelayOnlyTheirSenders) {
    std::list<std::future<bool>> guesses;
    for (int i = 0; i < 16; ++i) { // more than the hub has threads
        guesses.push_back(std::async(std::launch::async, [&, i] {
            return TestTunnel(hub_).LogIn(i % 2 == 0 ? web_["relay_user"].asString() : "nobody",
                                          "x");
        }));
    }
    ASSERT_TRUE(WaitFor([&] { return hub_.Count(" refused: ") > 0; }));
    EXPECT_TRUE(Takes("log-in beside wrong passwords", milliseconds(900),
                      [&] { return Open() != nullptr; }));
    for (auto& guess : guesses) {
        EXPECT_FALSE(guess.get());
    }
}

TEST_F(HubRelay, CrowdOfLogInsComesThroughBesideAnotherNetwork) {
    const auto logIn = [&](const Json::Value& tunnel, const char* from) {
        TestTunnel device(hub_);
        const long patience = 10; // s; what a device has
        ssh_options_set(device.Session(), SSH_OPTIONS_TIMEOUT, &patience);
        ssh_options_set(device.Session(), SSH_OPTIONS_BINDADDR, from);
        return device.LogIn(tunnel);
    };
    std::list<std::future<bool>> crowd;
    for (int i = 0; i < 200; ++i) { // each takes over from the one before
        crowd.push_back(std::async(std::launch::async, logIn, web_, "127.0.0.1"));
    }
    EXPECT_TRUE(
        Takes("log-in beside a crowd", seconds(3), [&] { return logIn(other_, "127.0.0.2"); }));
    for (auto& one : crowd) {
        EXPECT_TRUE(one.get());
    }
}

TEST_F(HubRelay, NewLogInTakesOverFromASilentOne) {
    const auto silent = Open(); // answers nothing from here on, like a device that vanished
    const int revision = device_.Revision();
    const Visitor early(port_); // its channel is never opened
    TestTunnel fresh(hub_);
    ASSERT_TRUE(fresh.LogIn(web_));
    const Visitor between(port_);
    EXPECT_FALSE(between.IsRefused()) << "the port stays open meanwhile";
    ASSERT_TRUE(fresh.Forward(port_));
    EXPECT_TRUE(fresh.Serves(between));
    EXPECT_EQ(early.Read(), "");
    EXPECT_TRUE(WaitFor([&] { return silent->IsEnded(); }));
    EXPECT_EQ(device_.Wait(revision)["revision"], revision) << "it was up all the time";

    std::atomic<bool> over{false};
    auto refused = std::async(std::launch::async, [&] {
        int count = 0;
        while (!over) {
            count += Visitor(port_).IsRefused();
        }
        return count;
    });
    auto last = Open();
    for (int round = 0; round < 50; ++round) {
        last = Open();
    }
    over = true;
    EXPECT_EQ(refused.get(), 0);
}

TEST_F(HubRelay, RemovalClosesSessionAndPortAtOnce) {
    const auto tunnel = Open();
    ASSERT_EQ(Errnos(device_.Post("[" + TestDevice::Services("service_rm", "web") + "]")), "0");
    EXPECT_TRUE(Visitor(port_).IsRefused());
    EXPECT_TRUE(WaitFor([&] { return tunnel->IsEnded(); }));
    EXPECT_FALSE(TestTunnel(hub_).LogIn(web_));
}

TEST_F(HubRelay, TellsTheDeviceOfPortsTogether) {
    const int down = device_.Revision();
    TestTunnel tunnel(hub_);
    TestTunnel other(hub_);
    ASSERT_TRUE(tunnel.LogIn(web_));
    ASSERT_TRUE(other.LogIn(other_));
    auto held = std::async(std::launch::async, [&] { return device_.Wait(down); });
    ASSERT_EQ(held.wait_for(milliseconds(300)), std::future_status::timeout);
    const auto start = Clock::now();
    ASSERT_TRUE(tunnel.Forward(port_));
    ASSERT_TRUE(other.Forward(other_["relay_port"].asInt()));
    const bool together = Clock::now() - start < milliseconds(200); // so the hub gathers them
    const Json::Value up = held.get();
    EXPECT_EQ(up["revision"], down + 1) << "two changes in one reply";
    EXPECT_TRUE(up["tunnels"][1]["relay_up"].asBool());
    EXPECT_TRUE(up["tunnels"][0]["relay_up"].asBool() || !together);
}

TEST_F(HubRelay, ManyVisitorsAtOnceGetWhatIsTheirs) {
    const auto tunnel = Open();
    std::list<Visitor> visitors;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(visitors.emplace_back(port_).Send("n" + std::to_string(i)));
        visitors.back().EndSending();
    }
    for (int i = 0; i < 50; ++i, visitors.pop_front()) {
        const ssh_channel channel = tunnel->Accept();
        EXPECT_TRUE(TestTunnel::Write(channel, TestTunnel::ReadAll(channel)));
        ssh_channel_free(channel); // closes it
        EXPECT_EQ(visitors.front().Read(), "n" + std::to_string(i));
    }
}

TEST_F(HubRelay, FloodOfStrangersLeavesRoomForLogIns) {
    TestTunnel slow(hub_); // it has not logged in when they come, and is the oldest
    ssh_options_set(slow.Session(), SSH_OPTIONS_BINDADDR, "127.0.0.2");
    ssh_options_set(slow.Session(), SSH_OPTIONS_USER, other_["relay_user"].asCString());
    ASSERT_EQ(ssh_connect(slow.Session()), SSH_OK);
    std::list<Visitor> strangers;
    for (int i = 0; i < 600; ++i) {
        ASSERT_FALSE(strangers.emplace_back(hub_.RelayPort()).IsRefused());
        strangers.back().Read(i == 0 ? 4 : 0); // greeted, the first one is the oldest to the relay
        strangers.back().Send(i % 8 != 7 ? "SSH-2.0-x\r\n" : "GET / HTTP/1.1\r\n\r\n");
    }
    const auto password = other_["relay_pass"].asString();
    EXPECT_EQ(ssh_userauth_password(slow.Session(), nullptr, password.c_str()), SSH_AUTH_SUCCESS);
    const auto tunnel = Open();
    strangers.front().Read(); // returns only when the relay has hung up
    EXPECT_EQ(hub_.Count("not ready in time"), 0U);
}

TEST_F(HubRelay, NoticesADeviceThatFellSilent) {
    const auto tunnel = Open(); // its connection stands, but nothing in it answers
    const auto start = Clock::now();
    EXPECT_EQ(Visitor(port_).Read(), "");
    EXPECT_TRUE(Visitor(port_).IsRefused());
    EXPECT_LT(Clock::now() - start, seconds(19)); // sooner than the visitor gives up
}

} // namespace
} // namespace ZARO::RelayHub
