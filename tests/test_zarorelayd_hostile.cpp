#include "tests/support/device.h"
#include "tests/support/scripted_hub.h"

namespace {

using Spoiler = ScriptedHub::Spoiler;

Spoiler Say(const std::string& body, int status = 200) {
    return [=](httplib::Response& r) {
        r.status = status;
        r.set_content(body, "text/html");
    };
}

/// Sends `block` this many times, and hangs up one byte before the promised end.
Spoiler HangUpAfter(const std::string& block, std::size_t times) {
    return [block, end = block.size() * times](httplib::Response& r) {
        r.body.clear();
        r.set_content_provider(end + 1, "text/plain",
                               [=](std::size_t at, std::size_t, httplib::DataSink& sink) {
                                   return at < end && sink.write(block.data(), block.size());
                               });
    };
}

/// Changes one member of the tunnel in a wait command's reply.
Spoiler Tunnel(const char* member, const Json::Value& value) {
    return [=](httplib::Response& r) {
        Json::Value reply = Parse(r.body);
        for (Json::Value& tunnel : reply[0U]["tunnels"]) {
            tunnel[member] = value;
        }
        r.set_content(Compact(reply), "application/json");
    };
}

/// Names a spread in a wait command's reply.
Spoiler Spread(const Json::Value& value) {
    return [=](httplib::Response& r) {
        Json::Value reply = Parse(r.body);
        reply[0U]["spread"] = value;
        r.set_content(Compact(reply), "application/json");
    };
}

struct Row {
    const char* name;
    const char* command; ///< whose reply is spoiled
    Spoiler spoil;
    const char* line; ///< what the log says about it
};

std::vector<Row> Rows() {
    const char* const wait = "wait_command";
    const std::string types = R"([{"errno":"0","serverID":7,"server_wait_cmd":[],"tunnels":{},)"
                              R"("revision":"x","mode":{}},7,null,[[]]])";
    const std::string noErrors = R"([{"errno":0,"serverID":{},"server_wait_cmd":"x","mode":9,)"
                                 R"("revision":[],"tunnels":"x"},{"errno":[]},{"errno":{}}])";
    const std::string elsewhere = R"([{"errno":0,"server_wait_cmd":{"protocol":"file","host":"",)"
                                  R"("port":-7,"page":"/etc/shadow"}},{"errno":0},{"errno":0}])";
    std::vector<Row> rows = {
        {"elsewhere", "register", Say(elsewhere), "wait-command server"},
        {"shell id", wait, Tunnel("id", "x\"; touch OWNED; \""), "bad service id"},
        {"path id", wait, Tunnel("id", "../../OWNED"), "bad service id"},
        {"unknown id", wait, Tunnel("id", "other"), "no such service"},
        {"option user", wait, Tunnel("relay_user", "-oProxyCommand=touch OWNED"), "bad relay user"},
        {"shell user", wait, Tunnel("relay_user", "u$(touch OWNED)\n"), "bad relay user"},
        {"port 99999", wait, Tunnel("relay_port", 99999), "bad relay port"},
        {"text port", wait, Tunnel("relay_port", "1;touch OWNED"), "bad relay port"},
        {"port 22", wait, Tunnel("port", 22), "not the service's port"},
        {"host", wait, Tunnel("relay_ip", "a b"), "bad relay host"},
        {"option host", wait, Tunnel("relay_ip", "-oProxyCommand=touch\tOWNED"), "bad relay host"},
        {"cut host", wait, Tunnel("relay_ip", std::string("::1\0 -x", 7)), "bad relay host"},
        {"password", wait, Tunnel("relay_pass", "x\ny"), "bad relay password"},
    };
    for (const auto& [command, line] : {std::pair("register", "registration failed: "),
                                        std::pair(wait, "wait_command failed: ")}) {
        rows.insert(rows.end(),
                    {{"500", command, Say("[]", 500), line},
                     {"early end", command, HangUpAfter("[{", 1), line},
                     {"endless", command, HangUpAfter(std::string(1 << 20, '['), 4096), line},
                     {"deep", command, Say(std::string(100000, '[')), line},
                     {"types", command, Say(types), line},
                     {"types without error", command, Say(noErrors), line},
                     {"empty", command, Say(""), line},
                     {"nothing in it", command, Say("[]"), line}});
    }
    return rows;
}

/// A device whose server behaves as a row says.
struct Victim {
    Victim(const HubProcess& hub, const WebService& web, const Row& what, const std::string& number)
        : row(what), server(hub, row.command, row.spoil), device(hub, number) {
        device.UseServer("http", server.Port());
        device.Publish(web);
        device.Start();
    }

    const Row row;
    ScriptedHub server;
    Device device;
    std::size_t before = 0; ///< requests before it is watched
};

TEST(ZarorelaydHostile, OutlivesWhateverTheServerSays) {
    const HubProcess hub(2);
    const WebService web("web");
    const std::vector<Row> rows = Rows();
    std::list<Victim> victims;
    for (const Row& row : rows) {
        victims.emplace_back(hub, web, row, std::to_string(10 + victims.size()));
    }
    for (Victim& victim : victims) {
        SCOPED_TRACE(std::string(victim.row.command) + ", " + victim.row.name);
        EXPECT_TRUE(WaitFor([&] { return victim.device.Logs(victim.row.line); }));
        EXPECT_TRUE(victim.device.Dump()["tunnels"].empty());
    }
    for (Victim& victim : victims) {
        victim.before = victim.server.Requests();
    }
    EXPECT_FALSE(Within(seconds(3), [&] {
        return std::any_of(victims.begin(), victims.end(), [](const Victim& victim) {
            return victim.server.Requests() > victim.before + 6;
        });
    })) << "a storm of requests";
    for (Victim& victim : victims) {
        EXPECT_EQ(victim.device.Processes().size(), 1U) << victim.row.name;
        victim.server.TurnGood();
        victim.device.Reload([](Json::Value&) {}); // so that the next try comes at once
    }
    for (const Victim& victim : victims) {
        SCOPED_TRACE(std::string(victim.row.command) + ", " + victim.row.name);
        // After several failures a wait command is retried only after up to half a minute.
        EXPECT_TRUE(Within(seconds(40), [&] { return victim.device.Serves(web); }));
        EXPECT_FALSE(fs::exists(victim.device.root.Path("/OWNED")));
        EXPECT_FALSE(fs::exists(victim.device.root.Path("/tmp/OWNED")));
    }
}

TEST(ZarorelaydHostile, StaysAwayNoLongerThanAServerMayAsk) {
    HubProcess hub;
    const WebService web("web");
    const Json::Value values[] = {60, 60, 60, 60, 61, 0, -5, 1.5, "60", Json::Value()};
    std::list<Victim> slow, quick; // they come back over a minute, and as if nothing had been named
    for (const Json::Value& value : values) {
        auto& victims = value == 60 ? slow : quick;
        victims.emplace_back(hub, web, Row{"", "wait_command", Spread(value), ""},
                             std::to_string(10 + slow.size() + quick.size()));
    }
    for (auto* victims : {&slow, &quick}) {
        for (Victim& victim : *victims) {
            EXPECT_TRUE(WaitFor([&] { return victim.device.Serves(web); }));
            EXPECT_TRUE(WaitFor([&] { return victim.device.IsAllUp(); })) << "nothing else is new";
            EXPECT_EQ(victim.device.Dump()["exchange"]["spread"], victims == &slow ? 60 : 0);
            victim.before = victim.server.Requests();
        }
    }
    hub.Kill();
    const auto polls = [](const Victim& victim) {
        return victim.server.Requests() > victim.before;
    };
    const auto logsIn = [](const Victim& victim) { // the first time was at once
        return Count(victim.device.Log(), "could not be built") > 1;
    };
    EXPECT_FALSE(Within(seconds(3), [&] {
        return std::all_of(slow.begin(), slow.end(), polls) ||
               std::all_of(slow.begin(), slow.end(), logsIn);
    })) << "all came at the beginning of the minute, for which the chance is 1 in 100,000";
    EXPECT_TRUE(WaitFor([&] {
        return std::all_of(quick.begin(), quick.end(), polls) &&
               std::all_of(quick.begin(), quick.end(), logsIn);
    }));
}

} // namespace
