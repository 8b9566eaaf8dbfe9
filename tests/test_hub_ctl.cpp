/// The operator's program beside a running hub.
#include <sys/socket.h>

#include <future>
#include <list>

#include <gmock/gmock.h>

#include "base/unix_socket.h"
#include "tests/support/hub_kit.h"
#include "tests/support/postgres.h"
#include "tests/support/temp_root.h"

namespace ZARO::RelayHub {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

/// The exit code, a blank and all output of `zarorelay-hubctl --data DATA WORDS`.
std::string Ctl(const std::string& data, const std::string& words, const std::string& folder = "/",
                const std::string& starter = "") {
    const std::string program = starter + " " ZARO_HUBCTL " --data " + data;
    return Outcome(Words(words, Words(program)), folder);
}
std::string Ctl(const HubProcess& hub, const std::string& words) {
    return Ctl(hub.Data(), words);
}
/// What it prints as JSON.
Json::Value Listed(const HubProcess& hub, const std::string& words) {
    return Parse(Ctl(hub, words + " --json").substr(1));
}

/// Asks to join from an address of this machine, as `zarorelayctl join` does.
std::string Join(const HubProcess& hub, const TestDevice& device, const std::string& code = "",
                 const char* from = "127.0.0.1") {
    std::string command = device.RegisterCommand();
    command.replace(command.find("register"), 8, "join");
    command.insert(command.size() - 1, code.empty() ? "" : R"(,"code":")" + code + "\"");
    httplib::Client client("127.0.0.1", hub.HttpPort());
    client.set_interface(from);
    const httplib::Result result = client.Post("/Serv.php", "[" + command + "]", "text/plain");
    const Json::Value reply = result ? Parse(result->body)[0] : Json::Value();
    return reply["state"].asString() + reply["reason"].asString();
}

TEST(HubCtl, RefusesInOneLine) {
    const HubProcess hub;
    TestDevice device(hub, 1, "web");
    const TempRoot root;
    root.Write("/there", "");
    const std::pair<const char*, const char*> kRows[] = {
        {"", "2 .*subcommand is required"},
        {"frobnicate", "2 .*\"frobnicate\" was not expected"},
        {"device", "2 .*SERIAL.ID.ALIAS"},
        {"invite --uses 0", "2 .*--uses: expected a number from 1 to 10000"},
        {"invite --uses 99999999999999999999", "2 .*--uses: expected a number"},
        {"invite --expires 7", "2 .*--expires: expected a time like 30m, 12h or 7d"},
        {"invite --expires 0d", "2 .*--expires: expected a time"},
        {"invite --expires 366d", "2 .*--expires: expected a time"},
        {"devices --state up", "2 .*--state: expected pending, admitted or banned"},
        {"device nobody", "1 .*no device is known as \"nobody\"; see: zarorelay-hubctl devices"},
        {"device no/body", "2 .*is no serial, server id or alias"},
        {"device name:nobody", "2 .*is no serial, server id or alias"},
        {"ban nobody", "1 .*no device is known as"},
        {"forget serial:nobody", "1 .*no device is known as"},
        {"admit nobody", "1 .*no device waits under the serial nobody; see: .*--state pending"},
        {"admit no:body", "2 .*is no serial"},
        {"drain nobody", "1 .*no relay has the name \"nobody\"; see: zarorelay-hubctl relays"},
        {"drain no/body", "1 .*is no relay's name"},
        {"drain relay", "2 .*relay can't be drained: no other relay is up"},
        {"backup there", "2 .*can't write .*/there: File exists"},
        {"backup none/copy", "2 .*can't write .*/none/copy: No such file"}};
    for (const auto& [words, pattern] : kRows) {
        const std::string outcome = Ctl(hub.Data(), words, root.Dir());
        EXPECT_THAT(outcome, ContainsRegex(std::string("^") + pattern)) << words;
        EXPECT_THAT(outcome, HasSubstr(" zarorelay-hubctl: "));
        EXPECT_EQ(outcome.find('\n'), outcome.size() - 1) << outcome;
    }
    EXPECT_THAT(Ctl(hub, "devices"), HasSubstr("SERIAL-1 ")) << "nothing was lost";
    EXPECT_THAT(Ctl("none", "status"),
                ContainsRegex("^2 .*no hub runs on none; start it, or name .* --data DIR\n$"));
}

TEST(HubCtl, ShowsTheFleet) {
    const HubProcess hub(50, "--admit listed");
    EXPECT_THAT(Ctl(hub, "devices"), testing::EndsWith("FROM\n")) << "nobody yet";
    TestDevice device(hub, 1), waiting(hub, 2);
    ASSERT_EQ(Join(hub, waiting), "pending");
    ASSERT_EQ(Join(hub, device), "pending");
    ASSERT_EQ(Ctl(hub, "admit SERIAL-1"), "0 SERIAL-1 is admitted\n");
    ASSERT_EQ(Errnos(device.Publish("photos,web")), "0 0");
    const std::string who = "&id=" + device.id + "&serial=SERIAL-1&token=token1";
    ASSERT_EQ(device.PostRaw("action=map_alias&alias=home" + who, "/alias_update.php")->body,
              "good");
    const TestTunnel tunnel(hub, device.Tunnels()["web"]);
    EXPECT_TRUE(WaitFor([&] { return Listed(hub, "status")["services_up"] == 1; }));

    const std::pair<std::string, std::string> kRows[] = {
        {"status",
         "^0 Version .*\nAdmission    listed: .*\nDevices      1 of 1 up\nPending      1\n"},
        {"status", "\nServices     1 of 2 up\nRelays       1 of 1 up\n$"},
        {"devices",
         "SERIAL-2  [0-9]{9}  -      pending   -          asked [0-9]+ s ago  127.0.0.1"},
        {"devices", "SERIAL-1  " + device.id + "  home   admitted  1 of 2 up  [0-9]+ s ago "},
        {"relays", "\nrelay  up     1 of 2 up  [0-9]+-[0-9]+  -\n$"},
        {"device home", "^0 Serial      SERIAL-1\nState       admitted\n"},
        {"device SERIAL-1", "\nphotos   photos  1000  port [0-9]+  relay  down\nweb .*  up\n$"},
        {"device " + device.id, "\nAlias       home\n"},
        {"device SERIAL-2", "\nState       pending\n(.*\n)*ASKS FROM .*\n127.0.0.1 "}};
    for (const auto& [words, pattern] : kRows) {
        const std::string shown = Ctl(hub, words);
        EXPECT_THAT(shown, ContainsRegex(pattern)) << words;
        EXPECT_EQ(shown.find('\033'), shown.npos) << "no terminal, no colour";
    }
    EXPECT_EQ(Listed(hub, "devices --state admitted")["device"].size(), 1U);
    const char* const kKeys = "admitted alias asked banned first_asked from mac registered serial"
                              " serverID services state up";
    for (const Json::Value& row : Listed(hub, "devices")["device"]) {
        EXPECT_EQ(row.getMemberNames(), Words(kKeys)) << row;
    }
    const Json::Value shown = Listed(hub, "device home")["device"];
    EXPECT_EQ(shown["service"][1]["relay_port"], device.Tunnels()["web"]["relay_port"]);
    EXPECT_EQ(shown["network"], Json::Value()) << "it has said nothing of it";
}

TEST(HubCtl, BansAndForgets) {
    const HubProcess hub(50, "--admit listed");
    TestDevice device(hub, 1);
    ASSERT_EQ(Join(hub, device), "pending");
    ASSERT_THAT(Ctl(hub, "admit SERIAL-1"), HasSubstr("0 "));
    for (const char* words : {"ban ", "forget "}) {
        ASSERT_EQ(Errnos(device.Publish("web,photos")), "0 0") << words;
        const Json::Value web = device.Tunnels()["web"];
        TestTunnel tunnel(hub, web);
        auto held = std::async(std::launch::async,
                               [&, poll = device]() mutable { return poll.Wait(poll.Revision()); });
        const bool isBan = words == std::string("ban ");
        EXPECT_THAT(Ctl(hub, words + device.id),
                    HasSubstr(isBan ? "0 SERIAL-1 is banned; 2 tunnels ended\n"
                                    : "0 SERIAL-1 is forgotten; 2 tunnels ended\n"));
        EXPECT_TRUE(WaitFor([&] { return tunnel.IsEnded(); })) << words;
        EXPECT_TRUE(WaitFor([&] { return Visitor(web["relay_port"].asInt()).IsRefused(); }));
        EXPECT_EQ(held.wait_for(seconds(10)), std::future_status::ready) << "its poll ends too";
        EXPECT_NE(held.get()["errno"], 0);
        EXPECT_EQ(Errnos(device.Publish("web")), "2 6") << words;
        EXPECT_EQ(Listed(hub, "devices --state banned")["device"].size(), isBan ? 1U : 0U);
        EXPECT_EQ(Listed(hub, "status")["services"], 0);
        const std::string after = Ctl(hub, "admit SERIAL-1");
        EXPECT_THAT(after, HasSubstr("0 SERIAL-1 is admitted")) << words;
    }
}

TEST(HubCtl, AsksWhichOneIsMeant) {
    const HubProcess hub(50, "--admit listed");
    TestDevice real(hub, 1), squatter(hub, 2), other(hub, 3), late(hub, 4), chosen(hub, 5);
    squatter.serial = chosen.serial = real.serial;
    other.serial = "home";
    ASSERT_EQ(Join(hub, real), "pending");
    ASSERT_EQ(Join(hub, squatter), "pending");
    EXPECT_THAT(Ctl(hub, "admit SERIAL-1"), ContainsRegex("^2 .*the same address; let the right"));
    EXPECT_THAT(Ctl(hub, "admit SERIAL-1 --from 127.0.0.2"), HasSubstr("1 zarorelay-hubctl: no"));
    ASSERT_EQ(Join(hub, chosen, "", "127.0.0.3"), "pending");
    EXPECT_THAT(Ctl(hub, "admit SERIAL-1"), HasSubstr("with --from ADDRESS: 127.0.0.1, 127.0.0.3"));
    EXPECT_THAT(Ctl(hub, "admit SERIAL-1 --from 127.0.0.1"),
                ContainsRegex("^2 .*the same address"));
    EXPECT_THAT(Ctl(hub, "admit SERIAL-1 --from 127.0.0.3"), HasSubstr("0 SERIAL-1 is admitted"));
    EXPECT_EQ(Join(hub, real), "refusedtoken");
    EXPECT_EQ(Join(hub, chosen), "admitted");
    EXPECT_THAT(Ctl(hub, "forget SERIAL-1"), HasSubstr("0 SERIAL-1 is forgotten; 0 tunnels"));
    const std::string code = Ctl(hub, "invite --uses 2 --expires 1m").substr(2, 14);
    EXPECT_THAT(code, testing::MatchesRegex("[0-9A-Z]{4}-[0-9A-Z]{4}-[0-9A-Z]{4}"));
    std::string plain = code;
    plain.erase(9, 1).erase(4, 1);
    EXPECT_EQ(Join(hub, real, plain), "admitted");
    EXPECT_EQ(Join(hub, squatter, plain), "refusedtoken");
    EXPECT_EQ(Join(hub, other, plain), "admitted");
    EXPECT_EQ(Join(hub, late, plain), "refusedcode_used");
    for (const char* file : {"/hub.db", "/hub.db-wal"}) {
        EXPECT_EQ(ReadFile(hub.Data() + file).find(plain), std::string::npos) << "only its hash";
    }
    EXPECT_EQ(hub.Log().find(plain), std::string::npos);

    ASSERT_EQ(Errnos(real.Publish("web")), "0 0");
    const std::string who = "&id=" + real.id + "&serial=SERIAL-1&token=token1";
    ASSERT_EQ(real.PostRaw("action=map_alias&alias=home" + who, "/alias_update.php")->body, "good");
    EXPECT_THAT(Ctl(hub, "ban home"), ContainsRegex("^2 .*means several devices; say serial:home"));
    EXPECT_THAT(Ctl(hub, "ban serial:home"), HasSubstr("0 home is banned"));
    EXPECT_THAT(Ctl(hub, "ban alias:home"), HasSubstr("0 SERIAL-1 is banned; 1 tunnel ended"));
    EXPECT_THAT(Ctl(hub, "ban serial:NEVER-SEEN"), HasSubstr("0 NEVER-SEEN is banned"));
    EXPECT_THAT(Ctl(hub, "admit NEVER-SEEN"), HasSubstr("0 NEVER-SEEN is banned no longer"));
}

TEST(HubCtl, SocketIsForItsUserAlone) {
    const HubProcess hub;
    struct stat status {};
    ASSERT_EQ(stat((hub.Data() + "/admin.sock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    const std::string copy = hub.Data() + "/copy";
    EXPECT_THAT(Ctl(hub, "backup " + copy), HasSubstr("0 copied the database to "));
    ASSERT_EQ(stat(copy.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    if (geteuid() == 0) {
        EXPECT_THAT(Ctl(hub.Data(), "status", "/", "/usr/bin/setpriv --reuid=65534 --clear-groups"),
                    ContainsRegex("^2 .*may not open .*admin.sock; run this as root"));
    }
}

/// What the hub answers to these bytes on its socket, and whether it closes then.
std::string Answered(const HubProcess& hub, const std::string& bytes, bool hangsUp) {
    const UniqueFd fd = ConnectUnix(hub.Data(), "admin.sock", seconds(20));
    (void)!write(fd.Get(), bytes.data(), bytes.size()); // the hub may refuse before it has all
    if (hangsUp) {
        shutdown(fd.Get(), SHUT_WR);
    }
    std::string all;
    char block[1024];
    for (ssize_t got = 0; (got = read(fd.Get(), block, sizeof block)) > 0;) {
        all.append(block, static_cast<std::size_t>(got));
    }
    return all;
}

TEST(HubCtl, SocketSurvivesAnything) {
    (void)signal(SIGPIPE, SIG_IGN);
    const HubProcess hub;
    const std::string kEnd = "\n";
    const std::pair<std::string, bool> kRows[] = {
        {"", true},
        {kEnd, false},
        {R"({"command":"status")", true},
        {"nonsense" + kEnd, false},
        {"[]" + kEnd, false},
        {std::string("\0\xff{}", 4) + kEnd, false},
        {R"({"command":["status"]})" + kEnd, false},
        {R"({"command":"status","command":"status"})" + kEnd, false},
        {R"({"command":"invite","uses":1e99})" + kEnd, false},
        {R"({"command":"backup","file":"relative"})" + kEnd, false},
        {R"({"command":"devices","state":{"a":1}})" + kEnd, false},
        {std::string(70000, '['), false},
        {R"({"command":")" + std::string(70000, 'x'), false}};
    for (const auto& [bytes, hangsUp] : kRows) {
        const std::string reply = Answered(hub, bytes, hangsUp);
        EXPECT_EQ(reply.find('\n'), reply.size() - 1) << bytes.substr(0, 50) << reply;
        EXPECT_THAT(reply, ContainsRegex("\"code\":2,\"error\":\"[^\"]"));
    }
    for (int i = 0; i < 20; ++i) { // nobody reads the reply
        const UniqueFd gone = ConnectUnix(hub.Data(), "admin.sock", seconds(1));
        EXPECT_GT(write(gone.Get(), "{\"command\":\"devices\"}\n", 22), 0);
    }
    EXPECT_TRUE(WaitFor([&] { return Ctl(hub, "status")[0] == '0'; }));

    std::list<UniqueFd> idle;
    const auto isBusy = [&] {
        idle.push_back(ConnectUnix(hub.Data(), "admin.sock", seconds(1)));
        return Ctl(hub, "status").find("11 zarorelay-hubctl: too many") == 0;
    };
    EXPECT_TRUE(WaitFor(isBusy));
    EXPECT_LE(idle.size(), 9U);
    EXPECT_TRUE(Within(seconds(15) * kSlow, [&] { return Ctl(hub, "status")[0] == '0'; }))
        << "idle ones are ended after 10 s";
}

TEST(HubCtl, SaysWhenTheHubGoes) {
    HubProcess hub;
    hub.Program().Signal(SIGSTOP);
    const TempRoot root;
    Process asking(Words("--data " + hub.Data() + " status", {ZARO_HUBCTL}), root.Path("/out"));
    const std::string stat = "/proc/" + std::to_string(asking.Pid()) + "/stat";
    EXPECT_TRUE(WaitFor([&] { return Count(ReadFile(stat), "(zarorelay-hubct) S") == 1; }));
    hub.Kill();
    EXPECT_EQ(asking.Wait(seconds(10)), 255);
    EXPECT_THAT(ReadFile(root.Path("/out")), HasSubstr("the hub ended before it answered; see"));
    EXPECT_TRUE(fs::exists(hub.Data() + "/admin.sock"));
    EXPECT_THAT(Ctl(hub, "status"), HasSubstr("2 zarorelay-hubctl: no hub runs on "));
    hub.Start(); // in spite of the socket that is left
    EXPECT_THAT(Ctl(hub, "status"), HasSubstr("0 Version"));
    hub.End();
    EXPECT_FALSE(fs::exists(hub.Data() + "/admin.sock"));
}

TEST(HubCtl, AnotherProcessOfTheFolderTakesOver) {
    const TempRoot root;
    const std::string folder = root.Path("/" + std::string(120, 'f')); // longer than an address
    fs::create_directory(folder);
    const std::string line = "--data " + folder +
                             "/data --http-port 0 --https-port 0 --relay-port 0"
                             " --log-level 3 --roles ";
    const auto start = [&](const char* roles) {
        return std::make_unique<Process>(Words(line + roles, {ZARO_HUB}), root.Path("/log"));
    };
    const auto roles = [&] {
        const std::string shown = Ctl(folder + "/data", "status --json");
        return shown[0] == '0' ? Compact(Parse(shown.substr(1))["roles"]) : shown;
    };
    auto first = start("control");
    EXPECT_TRUE(WaitFor([&] { return roles() == R"(["control"])"; })) << roles();
    const auto second = start("relay");
    EXPECT_TRUE(WaitFor([&] { return Count(ReadFile(root.Path("/log")), "relay ssh://") == 1; }));
    EXPECT_EQ(roles(), R"(["control"])");
    first.reset(); // killed
    EXPECT_TRUE(WaitFor([&] { return roles() == R"(["relay"])"; })) << roles();
    EXPECT_THAT(Ctl(folder + "/data", "status"), HasSubstr("ask there")) << "it lets nobody in";
    EXPECT_EQ(Count(ReadFile(root.Path("/log")), "\n"), 3U) << "beside the listeners, no line";
}

TEST(HubCtl, AnyHostServesTheWholeFleet) {
    const PostgresCluster& cluster = PostgresCluster::Shared();
    const std::string url = cluster.Database("ctl");
    const std::string options = "--database " + url + " --relay-host 127.0.0.1 --relay-name ";
    const HubProcess a(3, options + "a"), b(3, options + "b");
    TestDevice device(a, 1, "one,two");
    const Json::Value before = device.Tunnels();
    std::vector<std::unique_ptr<TestTunnel>> tunnels;
    for (const Json::Value& tunnel : before) {
        const bool isAtA = std::abs(tunnel["relay_port"].asInt() - a.RelayPort()) < 100;
        tunnels.push_back(std::make_unique<TestTunnel>(isAtA ? a : b, tunnel));
    }
    EXPECT_TRUE(WaitFor([&] { return Listed(b, "status")["services_up"] == 2; }));
    const std::string relays = Ctl(b, "relays");
    EXPECT_THAT(relays, ContainsRegex("\na      up     1 of 1 up (.*)\nb      up     1 of 1 up "));
    EXPECT_THAT(Ctl(b, "backup /tmp/x"), ContainsRegex("^2 .*use pg_dump"));

    EXPECT_EQ(Ctl(a, "drain b"), "0 b hands over 1 tunnel to 1 other relay, and gets no new ones"
                                 " until it is started again\n");
    EXPECT_TRUE(WaitFor([&] { return Listed(b, "relays")["relay"][1]["tunnels"] == 0; }));
    EXPECT_THAT(Ctl(b, "relays"), HasSubstr("\nb      hands over  -"));
    EXPECT_THAT(Ctl(b, "drain a"), ContainsRegex("^2 .*no other relay is up"));
    const Json::Value after = device.Tunnels();
    EXPECT_EQ(after["one"]["relay_user"], before["one"]["relay_user"]);
    tunnels.clear();
    for (const Json::Value& tunnel : after) {
        tunnels.push_back(std::make_unique<TestTunnel>(a, tunnel));
    }

    cluster.Run("INSERT INTO device(serial, token, server_id, mac, timezone) SELECT 'X' || n, '',"
                " 'x' || n, '', '' FROM generate_series(1, 1200) AS n",
                "ctl");
    std::set<std::string> serials;
    const Json::Value all = Listed(b, "devices")["device"];
    for (const Json::Value& row : all) {
        serials.insert(row["serial"].asString());
    }
    EXPECT_EQ(serials.size(), 1201U);
    EXPECT_EQ(all.size(), 1201U) << "page after page, nobody twice";

    EXPECT_THAT(Ctl(b, "device SERIAL-1"), ContainsRegex("\nState       admitted\n(.*\n)*two "));
    EXPECT_THAT(Ctl(b, "ban SERIAL-1"), HasSubstr("0 SERIAL-1 is banned; 2 tunnels ended"));
    for (const auto& tunnel : tunnels) {
        EXPECT_TRUE(WaitFor([&] { return tunnel->IsEnded(); })) << "at the other host";
    }
    EXPECT_EQ(Errnos(device.Publish("one")), "2 6");
}

} // namespace
} // namespace ZARO::RelayHub
