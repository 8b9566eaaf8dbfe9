/// The control server: commands, sessions, services, held requests, hostile bodies.
#include <atomic>
#include <future>
#include <optional>

#include "tests/test_hub_kit.h"

namespace ZARO::RelayHub {
namespace {

class HubControl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(hub_.Start()); }
    TestDevice Device(int number = 1) const { return TestDevice(hub_.hub->HttpsPort(), number); }

    TestHub hub_;
};

TEST_F(HubControl, AnswersEachCommandInOrder) {
    const struct {
        const char* batch; // R, N, S stand for a good register, network and service command
        const char* errnos;
    } kRows[] = {
        {"[]", ""},
        {"[R]", "0"},
        {"[R,N,S]", "0 0 0"},
        {"[N,S,R,N]", "6 6 0 0"},
        {R"([{"version":1,"command":"wait_command"}])", "6"},
        {R"([{"version":1,"command":"reboot"}])", "3"},
        {R"([R,{"version":2,"command":"update_network"},S])", "0 5 0"},
        {R"([R,{"version":2,"command":"reboot"}])", "0 5"},
        {R"([R,{"version":"1","command":"register"},5,null,{},[],S])", "0 9 9 9 9 9 0"},
        {R"([{"version":1,"command":"register"},R])", "9 0"},
        {"[R,R,R,R,R,R,R,R,R,R,R,R,R,R,R,R,R]", "9"}, // one command too many
    };
    int number = 0;
    for (const auto& row : kRows) {
        TestDevice device = Device(++number);
        std::string batch;
        for (const char* c = row.batch; *c != '\0'; ++c) {
            const bool alone = c[1] == ',' || c[1] == ']';
            batch += alone && *c == 'R'   ? device.RegisterCommand()
                     : alone && *c == 'N' ? R"({"version":1,"command":"update_network"})"
                     : alone && *c == 'S' ? TestDevice::Services("service_add", "web")
                                          : std::string(1, *c);
        }
        EXPECT_EQ(Errnos(device.Post(batch)), row.errnos) << row.batch;
    }
}

TEST_F(HubControl, RefusesMalformedCommands) {
    TestDevice device = Device();
    ASSERT_EQ(Errnos(device.Publish("keep")), "0 0");
    const std::string longText(300, 'x');
    const struct {
        const char* command;
        std::string members;
    } kRows[] = {
        {"register", R"("auth":5)"},
        {"register", R"("auth":{"serial":5,"mac":"02:00:4c:00:00:09","token":"t"})"},
        {"register", R"("auth":{"serial":"a b","mac":"02:00:4c:00:00:09","token":"t"})"},
        {"register", R"("auth":{"serial":"s","mac":"02:00:4c:00:00","token":"t"})"},
        {"register", R"("auth":{"serial":"s","mac":"02:00:4c:00:00:0g","token":"t"})"},
        {"register", R"("auth":{"serial":"s","mac":"02:00:4c:00:00:09","token":""})"},
        {"register", R"("auth":{"serial":"s","mac":"02:00:4c:00:00:09"})"},
        {"register", R"("auth":{"serial":"s","mac":"02:00:4c:00:00:09","token":"t","serverID":9})"},
        {"update_network", R"("gateway":5)"},
        {"update_network", R"("ddns":")" + longText + "\""},
        {"update_network", R"("interface":{"name":"eth0"})"},
        {"update_network", R"("interface":[5])"},
        {"update_network", R"("interface":[{"name":"eth0","ip":["1.2.3.4"]}])"},
        {"update_service", R"("service_add":{})"},
        {"update_service", R"("service_add":["web"])"},
        {"update_service", R"("service_add":[{"port":80}])"},
        {"update_service", R"("service_add":[{"id":"web"}])"},
        {"update_service", R"("service_add":[{"id":"web","port":"80"}])"},
        {"update_service", R"("service_add":[{"id":"web","port":0}])"},
        {"update_service", R"("service_add":[{"id":"web","port":65536}])"},
        {"update_service", R"("service_add":[{"id":"web","port":99999999999}])"},
        {"update_service", R"("service_add":[{"id":"-o","port":80}])"},
        {"update_service", R"("service_add":[{"id":"../x","port":80}])"},
        {"update_service", R"("service_add":[{"id":"web","port":80,"ext_port":"x"}])"},
        {"update_service", R"("service_add":[{"id":"web","port":80}],"service_rm":[{}])"},
        {"update_service", R"("service_rm":[{"id":"keep"}],"service_update":[5])"},
        {"wait_command", R"("revision":0)"},
        {"wait_command", R"("serverID":5,"revision":0)"},
        {"wait_command", R"("serverID":")" + device.id + R"(","revision":"0")"},
        {"wait_command", R"("serverID":")" + device.id + R"(","revision":-1)"},
        {"wait_command", R"("serverID":")" + device.id + R"(","revision":0,"tunnels":5)"},
    };
    for (const auto& row : kRows) {
        const std::string command =
            R"([{"version":1,"command":")" + std::string(row.command) + "\"," + row.members + "}]";
        EXPECT_EQ(Errnos(device.Post(command)), "9") << command;
    }
    EXPECT_EQ(device.Tunnels().getMemberNames(), std::vector<std::string>{"keep"});
}

std::string Nested(const std::string& opening, int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) {
        text += opening;
    }
    return text;
}

TEST_F(HubControl, SurvivesHostileBodies) {
    const struct {
        const char* name;
        std::string body;
        int status;
    } kRows[] = {
        {"empty", "", 200},
        {"HTML", "<html><body>login</body></html>", 200},
        {"an object", R"({"version":1,"command":"register"})", 200},
        {"a text", "\"x\"", 200},
        {"deep arrays", Nested("[", 200000), 200},
        {"deep objects", Nested("{\"a\":", 5000), 200},
        {"trailing garbage", "[] x", 200},
        {"repeated keys", R"([{"version":1,"version":1,"command":"x"}])", 200},
        {"NUL bytes", std::string("[\0]", 3), 200},
        {"bad UTF-8", "[\"\xff\xfe\"", 200},
        {"large but allowed", "[" + std::string(1 << 19, ' ') + "5", 200},
        {"2 MiB", std::string(2 << 20, ' '), 413},
    };
    for (const auto& row : kRows) {
        const httplib::Result result = Device().PostRaw(row.body);
        ASSERT_TRUE(result) << row.name;
        EXPECT_EQ(result->status, row.status) << row.name;
        if (row.status == 200) {
            EXPECT_EQ(result->body, R"([{"errno":9}])") << row.name;
        }
    }
}

TEST_F(HubControl, HangsUpOnEndlessHeads) {
    const auto start = std::chrono::steady_clock::now();
    for (const char* line : {"A: b\r\n", "aaaaaaaaaaaaaaaa"}) {
        TestVisitor flood(hub_.hub->HttpPort());
        ASSERT_TRUE(flood.Send("POST /Serv.php HTTP/1.1\r\nHost: a\r\n"));
        while (flood.Send(line)) {
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(HubControl, PinsSerialToTokenAndIdToSerial) {
    TestDevice first = Device(1);
    ASSERT_EQ(Errnos(first.Publish("web")), "0 0");
    TestDevice thief = Device(1);
    thief.token = "other";
    EXPECT_EQ(Errnos(thief.Publish("web")), "2 6");
    TestDevice clash = Device(1);
    clash.serial = "SERIAL-OTHER";
    EXPECT_EQ(Errnos(clash.Publish("web")), "2 6");
    clash.mac = "02:00:4C:00:00:02"; // another card: its id is free
    EXPECT_EQ(Errnos(clash.Publish("web")), "0 0");
    TestDevice other = Device(3);
    ASSERT_EQ(Errnos(other.Publish("web")), "0 0");
    EXPECT_EQ(Errnos(other.Post("[" + first.WaitCommand(0) + "]")), "2");
}

TEST_F(HubControl, TellsTheWayBack) {
    const struct {
        const char* host;
        const char* expected; // "" = refused
    } kRows[] = {
        {"relay.example:8443", "relay.example 8443"},
        {"10.0.0.1", "10.0.0.1 80"},
        {"[::1]:99", "[::1] 99"},
        {"a b", ""},
        {"a/..:80", ""},
        {"a:", ""},
        {"a:0", ""},
        {"a:65536", ""},
        {"[zz]:1", ""},
        {"-o:1", ""},
    };
    for (const auto& row : kRows) {
        httplib::Client client("127.0.0.1", hub_.hub->HttpPort());
        const httplib::Result result = client.Post("/Serv.php", {{"Host", row.host}},
                                                   "[" + Device().RegisterCommand() + "]", "text");
        ASSERT_TRUE(result) << row.host;
        EXPECT_EQ(result->status, *row.expected == '\0' ? 400 : 200) << row.host;
        if (result->status == 200) {
            const Json::Value wait = Parse(result->body)[0]["server_wait_cmd"];
            EXPECT_EQ(wait["host"].asString() + " " + wait["port"].asString(), row.expected);
            EXPECT_EQ(wait["protocol"].asString() + wait["page"].asString(), "httpServ.php");
        }
    }
}

TEST_F(HubControl, KeepsTunnelsOfServicesThatStay) {
    TestDevice device = Device();
    ASSERT_EQ(Errnos(device.Publish("a,b,c")), "0 0");
    const Json::Value before = device.Tunnels();
    EXPECT_NE(before["a"]["relay_pass"], before["b"]["relay_pass"]);

    ASSERT_EQ(Errnos(device.Publish("b,a,d")), "0 0"); // another order gives other local ports
    const Json::Value after = device.Tunnels();
    EXPECT_EQ(after.getMemberNames(), (std::vector<std::string>{"a", "b", "d"}));
    EXPECT_EQ(after["a"]["port"], 1001);
    for (const char* key : {"relay_port", "relay_user", "relay_pass", "relay_ip"}) {
        EXPECT_EQ(after["a"][key], before["a"][key]);
    }
    // A list that is refused changes nothing, also right after a registration.
    const std::string bad = R"({"version":1,"command":"update_service","service_add":[{}]})";
    EXPECT_EQ(Errnos(device.Post("[" + device.RegisterCommand() + "," + bad + "]")), "0 9");
    EXPECT_EQ(device.Tunnels(), after);
    const int revision = device.Wait(0)["revision"].asInt();
    EXPECT_EQ(Errnos(device.Publish("b,a,d")), "0 0");
    EXPECT_EQ(device.Wait(0)["revision"], revision) << "nothing changed";
    EXPECT_EQ(Errnos(device.Post("[" + TestDevice::Services("service_rm", "a,x") + "]")), "0");
    EXPECT_EQ(device.Tunnels().getMemberNames(), (std::vector<std::string>{"b", "d"}));
    EXPECT_EQ(Errnos(device.Post("[" + device.RegisterCommand() + "]")), "0");
    EXPECT_EQ(device.Tunnels().size(), 0U) << "registered without a word on services";
}

TEST_F(HubControl, RunsOutOfPortsAndRecovers) {
    TestDevice first = Device(1);
    TestDevice second = Device(2);
    // The pool has 20 ports, of which other processes may hold a few.
    const std::string ten = "a,b,c,d,e,f,g,h,i,j";
    ASSERT_EQ(Errnos(first.Publish(ten)), "0 0");
    EXPECT_EQ(Errnos(second.Publish(ten + ",k")), "0 11");
    EXPECT_EQ(second.Tunnels().size(), 0U) << "all or nothing";
    EXPECT_EQ(Errnos(first.Publish("a")), "0 0");
    EXPECT_EQ(Errnos(second.Publish(ten + ",k")), "0 0");
}

TEST_F(HubControl, KeepsFewSessions) {
    TestDevice device = Device();
    ASSERT_EQ(Errnos(device.Publish("")), "0 0");
    TestDevice oldest = device;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Errnos(device.Publish("")), "0 0");
    }
    EXPECT_EQ(Errnos(oldest.Post("[" + oldest.WaitCommand(0) + "]")), "0");
    ASSERT_EQ(Errnos(device.Publish("")), "0 0");
    EXPECT_EQ(Errnos(oldest.Post("[" + oldest.WaitCommand(0) + "]")), "6");
    EXPECT_EQ(Errnos(device.Post("[" + device.WaitCommand(0) + "]")), "0");
}

TEST_F(HubControl, KeepsEverythingOverRestart) {
    TestDevice device = Device();
    ASSERT_EQ(Errnos(device.Publish("a,b")), "0 0");
    const Json::Value before = device.Wait(0);
    hub_.options.httpsPort = hub_.hub->HttpsPort();
    hub_.hub.reset();
    ASSERT_TRUE(hub_.Start());
    const Json::Value after = device.Wait(0);
    EXPECT_EQ(after["tunnels"], before["tunnels"]);
    EXPECT_NE(after["revision"], before["revision"]) << "tunnels may have been up before";
}

TEST_F(HubControl, NamesItselfInItsCertificateAndHidesItsFiles) {
    const std::string data = hub_.options.data;
    for (const char* host : {"127.0.0.1", "localhost"}) {
        httplib::SSLClient client(host, hub_.hub->HttpsPort());
        client.set_ca_cert_path((data + "/https.pem").c_str());
        const httplib::Result result = client.Post("/Serv.php", "[]", "text");
        EXPECT_TRUE(result && result->body == "[]") << host << to_string(result.error());
    }
    for (const auto& file : std::filesystem::directory_iterator(data)) {
        EXPECT_EQ(static_cast<int>(file.status().permissions()) & 0177, 0) << file;
    }
    EXPECT_EQ(static_cast<int>(std::filesystem::status(data).permissions()), 0700);
}

class HubWait : public HubControl {
protected:
    void SetUp() override {
        hub_.options.hold = std::chrono::seconds(4);
        HubControl::SetUp();
        device_.emplace(Device());
        ASSERT_EQ(Errnos(device_->Publish("a")), "0 0");
        revision_ = device_->Wait(0)["revision"].asInt();
    }
    std::future<Json::Value> Hold() {
        return std::async(std::launch::async, [copy = *device_, seen = revision_]() mutable {
            return copy.Wait(seen);
        });
    }
    static bool IsHeld(const std::future<Json::Value>& reply) {
        return reply.wait_for(std::chrono::milliseconds(300)) == std::future_status::timeout;
    }

    std::optional<TestDevice> device_;
    int revision_ = 0;
};

TEST_F(HubWait, AnswersWhenTheListChanges) {
    std::future<Json::Value> held = Hold();
    ASSERT_TRUE(IsHeld(held));
    ASSERT_EQ(Errnos(device_->Post("[" + TestDevice::Services("service_add", "b") + "]")), "0");
    const Json::Value reply = held.get();
    EXPECT_EQ(reply["tunnels"].size(), 2U);
    EXPECT_GT(reply["revision"].asInt(), revision_);
}

TEST_F(HubWait, LaterRequestTakesOverAndOthersGoOn) {
    std::future<Json::Value> first = Hold();
    ASSERT_TRUE(IsHeld(first));
    std::future<Json::Value> second = Hold();
    EXPECT_EQ(first.get()["revision"], revision_);
    EXPECT_TRUE(IsHeld(second));
    // One that is not a batch's last command is not held.
    const std::string wait = device_->WaitCommand(revision_);
    const std::string network = R"({"version":1,"command":"update_network"})";
    EXPECT_EQ(Errnos(device_->Post("[" + wait + "," + network + "]")), "0 0");
    EXPECT_TRUE(IsHeld(second));
    hub_.hub->Stop();
    EXPECT_EQ(second.get()["revision"], revision_) << "answered at the end";
}

TEST_F(HubWait, ManyHeldRequestsLeaveRoomForOthers) {
    std::atomic<int> ready{0};
    std::vector<std::future<Json::Value>> held;
    for (int i = 2; i < 102; ++i) {
        held.push_back(std::async(std::launch::async, [this, i, &ready] {
            TestDevice device = Device(i);
            EXPECT_EQ(Errnos(device.Publish("")), "0 0");
            const int revision = device.Wait(0)["revision"].asInt();
            ++ready;
            return device.Wait(revision);
        }));
    }
    ASSERT_TRUE(Eventually([&ready] { return ready == 100; }));
    EXPECT_EQ(Errnos(Device(200).Publish("web")), "0 0");
    EXPECT_TRUE(IsHeld(held.back())) << "it was not the others' end that made room";
    for (auto& reply : held) {
        EXPECT_EQ(reply.get()["errno"], 0);
    }
}

TEST_F(HubControl, AnswersAnywayAfterTheHoldTime) {
    TestDevice device = Device();
    ASSERT_EQ(Errnos(device.Publish("a")), "0 0");
    const Json::Value now = device.Wait(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(device.Wait(now["revision"].asInt()), now);
    EXPECT_GE(std::chrono::steady_clock::now() - start, hub_.options.hold);
}

TEST(HubForms, ComputesTheIdOfADevice) {
    const struct {
        const char* mac;
        const char* id; // "" = malformed
    } kRows[] = {
        {"02:00:4c:aa:bb:cc", "044756784"},
        {"02004CAABBCC", "044756784"},
        {"02-00-4c-aa-bb-cc", "044756784"},
        {"02:00:4c:00:00:01", "000000005"},
        {"02:00:4c:00:00:02", "000000011"},
        {"02:00:4c:ff:ff:ff", "067108860"},
        {"02:00:4c:aa:bb", ""},
        {"02:00:4c:aa:bb:cc:", ""},
        {"02:00:4c:aa:bbccc", ""},
        {"02004CAABBCG", ""},
        {"", ""},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(ServerIdOf(row.mac).value_or(""), row.id) << row.mac;
    }
}

} // namespace
} // namespace ZARO::RelayHub
