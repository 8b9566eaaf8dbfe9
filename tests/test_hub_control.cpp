/// The control server: commands, sessions, services, held requests, hostile bodies.
#include <atomic>
#include <future>
#include <list>

#include <boost/algorithm/string/replace.hpp>
#include <sqlite3.h>

#include "tests/support/hub_kit.h"

namespace ZARO::RelayHub {
namespace {

struct HubControl : testing::Test {
    HubProcess hub_{4}; // seconds that it holds a wait command
};

constexpr char kNetwork[] = R"({"version":1,"command":"update_network"})";

TEST_F(HubControl, AnswersEachCommandInOrder) {
    // R, N, S stand for a good register, network and service command.
    const std::pair<const char*, const char*> kRows[] = {
        {"[]", ""},
        {"[R,N,S]", "0 0 0"},
        {"[N,S,R,N]", "6 6 0 0"},
        {R"([{"version":1,"command":"wait_command"}])", "6"},
        {R"([{"version":1,"command":"reboot"}])", "3"},
        {R"([R,{"version":2,"command":"update_network"},S])", "0 5 0"},
        {R"([R,{"version":2,"command":"reboot"}])", "0 5"},
        {R"([R,{"version":"1","command":"register"},5,null,{},[],S])", "0 9 9 9 9 9 0"},
        {R"([{"version":1,"command":"register"},R])", "9 0"},
        {"[R,S,R,N]", "0 0 9 0"},
        {"[R,R,R,R,R,R,R,R,R,R,R,R,R,R,R,R,R]", "9"}, // one command too many
    };
    int number = 0;
    for (const auto& [commands, errnos] : kRows) {
        TestDevice device(hub_, ++number);
        std::string batch;
        for (const char c : std::string(commands)) {
            batch += c == 'R'   ? device.RegisterCommand()
                     : c == 'N' ? kNetwork
                     : c == 'S' ? TestDevice::Services("service_add", "web")
                                : std::string(1, c);
        }
        EXPECT_EQ(Errnos(device.Post(batch)), errnos) << commands;
    }
}

TEST_F(HubControl, RefusesMalformedCommands) {
    TestDevice device(hub_, 1, "keep");
    const std::string own = R"("serverID":")" + device.id + "\",";
    const std::string mac = R"("mac":"02:00:4c:00:00:09",)";
    const std::pair<const char*, std::vector<std::string>> kRows[] = {
        {"register",
         {R"("auth":5)", R"("auth":{"serial":5,)" + mac + R"("token":"t"})",
          R"("auth":{"serial":"a b",)" + mac + R"("token":"t"})",
          R"("auth":{"serial":"s","mac":"02:00:4c:00:00","token":"t"})",
          R"("auth":{"serial":"s","mac":"02:00:4c:00:0000","token":"t"})",
          R"("auth":{"serial":"s","mac":"02004c00000g","token":"t"})",
          R"("auth":{"serial":"s",)" + mac + R"("token":""})",
          R"("auth":{"serial":"s",)" + mac + R"("token":"t","serverID":9})"}},
        {"update_network",
         {R"("gateway":5)", R"("ddns":")" + std::string(300, 'x') + "\"",
          R"("interface":{"name":"eth0"})", R"("interface":[5])",
          R"("interface":[{"name":"eth0","ip":["1.2.3.4"]}])"}},
        {"update_service",
         {R"("service_add":{})", R"("service_add":["web"])", R"("service_add":[{"port":80}])",
          R"("service_add":[{"id":"web"}])", R"("service_add":[{"id":"web","port":"80"}])",
          R"("service_add":[{"id":"web","port":0}])",
          R"("service_add":[{"id":"web","port":65536}])",
          R"("service_add":[{"id":"-o","port":80}])", R"("service_add":[{"id":"../x","port":80}])",
          R"("service_add":[{"id":"web","port":80,"ext_port":"x"}])",
          R"("service_add":[{"id":"web","port":80}],"service_rm":[{}])",
          R"("service_rm":[{"id":"keep"}],"service_update":[5])"}},
        {"wait_command",
         {R"("revision":0)", R"("serverID":5,"revision":0)", own + R"("revision":"0")",
          own + R"("revision":-1)", own + R"("revision":0,"tunnels":5)"}}};
    for (const auto& [command, faults] : kRows) {
        const std::string head = R"([{"version":1,"command":")" + std::string(command) + "\",";
        for (const std::string& members : faults) {
            EXPECT_EQ(Errnos(device.Post(head + members + "}]")), "9") << members;
        }
    }
    EXPECT_EQ(device.Tunnels().getMemberNames(), std::vector<std::string>{"keep"});
}

TEST_F(HubControl, SurvivesHostileBodies) {
    const std::string objects = boost::replace_all_copy(std::string(5000, 'x'), "x", "{\"a\":");
    for (const std::string& body :
         {std::string(), std::string("<html><body>login</body></html>"),
          std::string(R"({"version":1,"command":"register"})"), std::string("\"x\""),
          std::string(200000, '['), objects, std::string("[] x"),
          std::string(R"([{"version":1,"version":1,"command":"x"}])"), std::string("[\0]", 3),
          std::string("[\"\xff\xfe\""), "[" + std::string(200000, ' ') + "5"}) {
        const httplib::Result result = TestDevice(hub_).PostRaw(body);
        ASSERT_TRUE(result) << body.substr(0, 50);
        EXPECT_EQ(std::to_string(result->status) + result->body, R"(200[{"errno":9}])")
            << body.substr(0, 50);
    }
    const std::tuple<const char*, httplib::Headers, size_t, int> kRows[] = {
        {"/Serv.php", {}, 300 << 10, 413},
        {"/Serv.php", {{"Content-Encoding", "gzip"}}, 2, 415},
        {"/none", {}, 300 << 10, 404},
        {"/Serv.php", {{"Range", "bytes=0-0,0-0"}}, 2, 200},
    };
    for (const auto& [page, headers, size, status] : kRows) {
        httplib::Client client("127.0.0.1", hub_.HttpPort());
        const httplib::Result result = client.Post(page, headers, std::string(size, ' '), "text");
        EXPECT_EQ(StatusOf(result), status) << page << size;
    }
}

TEST_F(HubControl, HangsUpOnEndlessHeads) {
    const auto start = Clock::now();
    for (const char* line : {"A: b\r\n", "aaaaaaaaaaaaaaaa"}) {
        const Visitor flood(hub_.HttpPort());
        ASSERT_TRUE(flood.Send("POST /Serv.php HTTP/1.1\r\nHost: a\r\n"));
        while (flood.Send(line)) {
        }
    }
    EXPECT_LT(Clock::now() - start, seconds(5));
}

TEST_F(HubControl, PinsSerialToTokenAndIdToSerial) {
    TestDevice first(hub_, 1, "web");
    TestDevice thief(hub_, 1);
    thief.token = "other";
    EXPECT_EQ(Errnos(thief.Publish("web")), "2 6");
    TestDevice clash(hub_, 1);
    clash.serial = "SERIAL-OTHER";
    EXPECT_EQ(Errnos(clash.Publish("web")), "2 6");
    for (const char* mac : {"02:00:4C:AA:bb:CC", "02-00-4c-aa-bb-cc", "02004CAABBCC"}) {
        clash.mac = mac; // another card: its id is free
        EXPECT_EQ(clash.Publish("web")[0]["serverID"], "044756784") << mac;
    }
    TestDevice other(hub_, 3, "web");
    EXPECT_EQ(Errnos(other.Post("[" + first.WaitCommand(0) + "]")), "2");
}

TEST_F(HubControl, TellsTheWayBack) {
    // The Host header, and the way back; empty when it is refused.
    const std::pair<const char*, std::string> kRows[] = {
        {"relay.example:8443", "relay.example 8443"},
        {"10.0.0.1", "10.0.0.1 80"},
        {"[::1]:99", "[::1] 99"},
        {"a/..:80", ""},
        {"a:0", ""},
        {"a:65536", ""},
        {"[zz]:1", ""},
        {"-o:1", ""}};
    for (const auto& [host, expected] : kRows) {
        httplib::Client client("127.0.0.1", hub_.HttpPort());
        const httplib::Result result = client.Post(
            "/Serv.php", {{"Host", host}}, "[" + TestDevice(hub_).RegisterCommand() + "]", "text");
        ASSERT_EQ(StatusOf(result), expected.empty() ? 400 : 200) << host;
        if (!expected.empty()) {
            const Json::Value wait = Parse(result->body)[0]["server_wait_cmd"];
            EXPECT_EQ(wait["host"].asString() + " " + wait["port"].asString(), expected);
            EXPECT_EQ(wait["protocol"].asString() + wait["page"].asString(), "httpServ.php");
        }
    }
}

TEST_F(HubControl, KeepsTunnelsOfServicesThatStayAndOnlyThose) {
    hub_.UsePorts(3);
    hub_.Kill();
    hub_.Start();
    TestDevice device(hub_, 1, "a,b,c");
    const Json::Value before = device.Tunnels();
    EXPECT_NE(before["a"]["relay_pass"], before["b"]["relay_pass"]);

    ASSERT_EQ(Errnos(device.Publish("b,a,d")), "0 0"); // another order gives other local ports
    const Json::Value after = device.Tunnels();
    EXPECT_EQ(after.getMemberNames(), (std::vector<std::string>{"a", "b", "d"}));
    Json::Value moved = before["a"];
    moved["port"] = 1001;
    EXPECT_EQ(after["a"], moved);
    // A list that is refused changes nothing, also right after a registration.
    const std::string bad = R"({"version":1,"command":"update_service","service_add":[{}]})";
    EXPECT_EQ(Errnos(device.Post("[" + device.RegisterCommand() + "," + bad + "]")), "0 9");
    const int earlier = device.Revision();
    hub_.Kill();
    hub_.Start();
    EXPECT_EQ(device.Tunnels(), after);
    const int revision = device.Revision();
    EXPECT_NE(revision, earlier) << "tunnels may have been up before";
    EXPECT_EQ(Errnos(device.Publish("b,a,d")), "0 0");
    EXPECT_EQ(device.Revision(), revision) << "nothing changed";
    EXPECT_EQ(Errnos(device.Post("[" + TestDevice::Services("service_rm", "a,x") + "]")), "0");
    EXPECT_EQ(device.Tunnels().getMemberNames(), (std::vector<std::string>{"b", "d"}));
    TestDevice second(hub_, 2);
    EXPECT_EQ(Errnos(second.Publish("x,y")), "0 11");
    EXPECT_EQ(second.Tunnels().size(), 0U) << "all or nothing";
    EXPECT_EQ(Errnos(second.Publish("x")), "0 0");
    EXPECT_EQ(Errnos(device.Post("[" + device.RegisterCommand() + "]")), "0");
    EXPECT_EQ(device.Tunnels().size(), 0U) << "registered without a word on services";
}

TEST_F(HubControl, KeepsFewSessions) {
    TestDevice device(hub_, 1, "");
    TestDevice oldest = device;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Errnos(device.Publish("")), "0 0");
    }
    EXPECT_EQ(Errnos(oldest.Post("[" + oldest.WaitCommand(0) + "]")), "0");
    ASSERT_EQ(Errnos(device.Publish("")), "0 0");
    EXPECT_EQ(Errnos(oldest.Post("[" + oldest.WaitCommand(0) + "]")), "6");
    EXPECT_EQ(Errnos(device.Post("[" + device.WaitCommand(0) + "]")), "0");
}

TEST_F(HubControl, NamesItselfInItsCertificateAndHidesItsFiles) {
    for (const char* host : {"127.0.0.1", "localhost"}) {
        httplib::SSLClient client(host, hub_.HttpsPort());
        client.set_ca_cert_path((hub_.Data() + "/https.pem").c_str());
        const httplib::Result result = client.Post("/Serv.php", "[]", "text");
        EXPECT_EQ(result ? result->body : to_string(result.error()), "[]") << host;
    }
    for (const auto& file : std::filesystem::directory_iterator(hub_.Data())) {
        EXPECT_EQ(static_cast<int>(file.status().permissions()) & 0177, 0) << file;
    }
    EXPECT_EQ(static_cast<int>(std::filesystem::status(hub_.Data()).permissions()), 0700);
}

TEST_F(HubControl, OffersNoCostlyKeyExchange) {
    httplib::SSLClient client("127.0.0.1", hub_.HttpsPort());
    client.enable_server_certificate_verification(false);
    ASSERT_EQ(SSL_CTX_set1_groups_list(client.ssl_context(), "ffdhe8192:P-521"), 1);
    EXPECT_EQ(client.Post("/Serv.php", "[]", "text").error(), httplib::Error::SSLConnection);
}

bool IsHeld(const std::future<Json::Value>& reply) {
    return reply.wait_for(milliseconds(300)) == std::future_status::timeout;
}

TEST_F(HubControl, LaterRequestTakesOverAndOthersGoOn) {
    TestDevice device(hub_, 1, "a");
    const int revision = device.Revision();
    const auto wait = [=]() mutable { return device.Wait(revision); };
    std::future<Json::Value> first = std::async(std::launch::async, wait);
    ASSERT_TRUE(IsHeld(first));
    std::future<Json::Value> second = std::async(std::launch::async, wait);
    EXPECT_EQ(first.get()["revision"], revision);
    EXPECT_TRUE(IsHeld(second));
    // One that is not a batch's last command is not held.
    const std::string command = device.WaitCommand(revision);
    EXPECT_EQ(Errnos(device.Post("[" + command + "," + kNetwork + "]")), "0 0");
    EXPECT_TRUE(IsHeld(second));
    hub_.End();
    EXPECT_EQ(second.get()["revision"], revision) << "answered at the end";
}

TEST_F(HubControl, FreesTheSeatOfAClientThatGaveUp) {
    TestDevice device(hub_, 1, "a");
    httplib::SSLClient client("127.0.0.1", hub_.HttpsPort());
    client.enable_server_certificate_verification(false);
    client.set_read_timeout(0, 300000);
    const std::string batch = "[" + device.WaitCommand(device.Revision()) + "]";
    EXPECT_FALSE(client.Post("/Serv.php", {{"Cookie", device.cookie}}, batch, "text"));
    EXPECT_TRUE(Within(seconds(2) * kSlow, [this] { return hub_.Count("request is gone") == 1; }));
}

/// Runs SQL on the hub's database behind its back.
void Alter(const HubProcess& hub, const char* sql) {
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open((hub.Data() + "/hub.db").c_str(), &handle), SQLITE_OK);
    sqlite3_busy_timeout(handle, 10000);
    EXPECT_EQ(sqlite3_exec(handle, sql, nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(handle);
    sqlite3_close(handle);
}

TEST(HubHeld, OutlastsAStoreThatFails) {
    const HubProcess hub{1}; // all hold times end while the store fails
    std::vector<std::future<Json::Value>> held;
    const auto hold = [&held](TestDevice& device, int revision) {
        held.push_back(
            std::async(std::launch::async, [&device, revision] { return device.Wait(revision); }));
    };
    std::list<TestDevice> devices;
    for (int i = 1; i <= 4; ++i) {
        devices.emplace_back(hub, i, "a");
    }
    hold(devices.front(), devices.front().Revision());
    ASSERT_TRUE(IsHeld(held.back()));
    Alter(hub, "ALTER TABLE device RENAME TO away");
    for (auto device = std::next(devices.begin()); device != devices.end(); ++device) {
        hold(*device, 0); // renewed meanwhile
    }
    EXPECT_EQ(Errnos(TestDevice(hub, 9).Publish("a")), "1 6");
    std::this_thread::sleep_for(milliseconds(1500));
    for (const auto& reply : held) {
        EXPECT_TRUE(IsHeld(reply));
    }
    Alter(hub, "ALTER TABLE away RENAME TO device");
    for (auto& reply : held) {
        const Json::Value answer = reply.get();
        EXPECT_EQ(answer["errno"], 0);
        EXPECT_EQ(answer["tunnels"].size(), 1U);
    }
    EXPECT_EQ(Errnos(TestDevice(hub, 9).Publish("a")), "0 0");
}

TEST_F(HubControl, ManyHeldRequestsLeaveRoomForOthers) {
    // The HTTP library makes its tables at the first request, under a guard that no sanitizer sees.
    const TestDevice first(hub_, 1, "");
    std::atomic<int> ready{0};
    std::vector<std::future<Json::Value>> held;
    for (int i = 2; i < 102; ++i) {
        held.push_back(std::async(std::launch::async, [this, i, &ready] {
            TestDevice device(hub_, i, "");
            const int revision = device.Revision();
            ++ready;
            return device.Wait(revision);
        }));
    }
    ASSERT_TRUE(Within(seconds(20) * kSlow, [&ready] { return ready == 100; }));
    EXPECT_EQ(Errnos(TestDevice(hub_, 200).Publish("web")), "0 0");
    EXPECT_TRUE(IsHeld(held.back())) << "it was not the others' end that made room";
    for (auto& reply : held) {
        EXPECT_EQ(reply.get()["errno"], 0);
    }
}

} // namespace
} // namespace ZARO::RelayHub
