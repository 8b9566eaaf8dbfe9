/// Who may join: invitations, pending and banned devices, over both engines and over HTTP.
#include <atomic>
#include <future>
#include <thread>

#include <boost/algorithm/string/replace.hpp>

#include "base/invitation_code.h"
#include "hub/guess_limit.h"
#include "hub/schema_tables.h"
#include "hub/secret.h"
#include "hub/sqlite.h"
#include "tests/support/hub_kit.h"
#include "tests/support/store_kit.h"

namespace ZARO::RelayHub {
namespace {

const char* NameOf(Standing standing) {
    constexpr const char* kNames[] = {"admitted", "unknown", "token",   "id",      "banned",
                                      "pending",  "crowded", "no code", "expired", "used"};
    return kNames[static_cast<std::size_t>(standing)];
}

/// A store that admits only those that were invited or chosen.
struct HubAdmissionStore : HubStore {
    void OpenListed(Store& store, int ports = 4) {
        Open(store, ports);
        store.devices.AdmitListedOnly();
    }
    static std::string Join(Store& store, const Identity& identity, const std::string& code = "",
                            int network = 1) {
        Standing standing = Standing::Unknown;
        const Applicant applicant = {identity, "10.0.0." + std::to_string(network), network};
        const StoreResult result =
            store.admission.Join(applicant, code.empty() ? "" : Sha256(code), standing);
        return result == kDone ? NameOf(standing) : "failed";
    }
    /// How many wait.
    static std::size_t CountPending(Store& store) {
        std::vector<PendingDevice> pending;
        EXPECT_EQ(store.admission.Pending(pending), kDone);
        return pending.size();
    }
    void Execute(const char* sql) const {
        IsServer() ? (void)Cluster().Run(sql, name_) : Sqlite(target_).Execute(sql);
    }
};

INSTANTIATE_TEST_SUITE_P(Engines, HubAdmissionStore, testing::Values("SQLite", "PostgreSQL"),
                         [](const auto& row) { return std::string(row.param); });

TEST_P(HubAdmissionStore, UsesNoInvitationTwiceFromTwoHubs) {
    constexpr int kUses = 5;
    Store stores[2];
    for (Store& store : stores) {
        OpenListed(store);
    }
    EXPECT_EQ(stores[0].admission.Invite({Sha256("code"), kUses, 60}), kDone);
    EXPECT_EQ(stores[0].admission.Invite({Sha256("old"), kUses, 0}), kDone);
    std::atomic<int> next{0}, admitted{0}, used{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, &store = stores[i % 2]] {
            for (int number = 0; (number = next++) < 40;) {
                const std::string outcome = Join(store, IdentityOf(number), "code");
                admitted += outcome == "admitted" ? 1 : 0;
                used += outcome == "used" ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(admitted, kUses);
    EXPECT_EQ(used, 40 - kUses);
    EXPECT_EQ(Join(stores[0], IdentityOf(50), "old"), "expired");
    EXPECT_EQ(Join(stores[0], IdentityOf(50), "guess"), "no code");
}

TEST_P(HubAdmissionStore, LetsOnlySoManyWait) {
    Store store;
    OpenListed(store);
    EXPECT_EQ(store.admission.RetryAfter(), 5);
    int number = 0;
    const auto join = [&](int network) { return Join(store, IdentityOf(++number), "", network); };
    for (int i = 0; i < kMaxPending; ++i) {
        ASSERT_EQ(join(i / kMaxPendingOfNetwork), "pending") << i;
        if (i == kMaxPendingOfNetwork) {
            EXPECT_EQ(join(0), "crowded") << "its network has enough of them";
        }
    }
    EXPECT_EQ(join(5000), "crowded");
    EXPECT_EQ(Join(store, IdentityOf(1)), "pending") << "it waits already";
    EXPECT_EQ(CountPending(store), static_cast<std::size_t>(kMaxPending));
    Store busy;
    OpenListed(busy);
    EXPECT_EQ(busy.admission.RetryAfter(), 50);
    Execute("UPDATE pending SET last_asked = last_asked - 24 * 60 * 60 WHERE serial <> 'S1'");
    EXPECT_EQ(CountPending(store), 1U);
    AdmitResult result = AdmitResult::Known;
    EXPECT_EQ(store.admission.Admit("S2", "", result), StoreResult::NotFound) << "forgotten";
    EXPECT_EQ(join(0), "pending");
}

TEST_P(HubAdmissionStore, DoesWhatTheOperatorSays) {
    Store store;
    OpenListed(store);
    std::map<std::string, Identity> devices = {{"one", IdentityOf(1)},
                                               {"thief", IdentityOf(1)},
                                               {"twin", IdentityOf(3)},
                                               {"nine", IdentityOf(9)}};
    devices["thief"].token = "other";
    devices["twin"].serverId = devices["one"].serverId;
    // What is done to whom, and what comes of it; "from" admits one of those with a serial.
    std::istringstream steps(
        "admit-S1=none join-one=pending join-thief=pending join-twin=pending admit-S1=ambiguous "
        "from-S1=admitted admit-S1=known join-one=admitted join-thief=token admit-S3=taken "
        "ban-S3=done join-twin=banned admit-S3=unbanned "
        "ban-S1=done join-one=banned admit-S1=admitted join-one=admitted "
        "forget-S1=done forget-S1=none join-thief=pending forget-S1=done "
        "ban-S9=done join-nine=banned forget-S9=done join-nine=pending");
    for (std::string step; steps >> step;) {
        const std::string verb = step.substr(0, step.find('-'));
        const std::size_t end = step.find('=');
        const std::string who = step.substr(verb.size() + 1, end - verb.size() - 1);
        AdmitResult admitted = AdmitResult::Known;
        Changes changes;
        std::string outcome = "done";
        if (verb == "join") {
            outcome = Join(store, devices.at(who), "", who == "thief" ? 2 : 1);
        } else {
            const StoreResult result =
                verb == "ban" ? store.admission.Ban(who, changes)
                : verb == "forget"
                    ? store.admission.Forget(who, changes)
                    : store.admission.Admit(who, verb == "from" ? "10.0.0.1" : "", admitted);
            constexpr const char* kResults[] = {"admitted", "known", "unbanned", "ambiguous"};
            outcome = result == StoreResult::NotFound     ? "none"
                      : result == StoreResult::Taken      ? "taken"
                      : result != kDone                   ? "failed"
                      : verb == "admit" || verb == "from" ? kResults[static_cast<int>(admitted)]
                                                          : "done";
        }
        EXPECT_EQ(outcome, step.substr(end + 1)) << step;
    }
}

TEST_P(HubAdmissionStore, LeavesNothingToWhoIsBannedOrForgotten) {
    Store store;
    Open(store, 1);
    for (int number = 1; number < 3; ++number) { // 1 is banned, 2 forgotten
        const std::int64_t device = Key(store, number);
        EXPECT_EQ(Add(store, device, "web"), kDone);
        EXPECT_EQ(store.aliases.Map("home", device, seconds(60)), kDone);
        Changes changes;
        const Identity who = IdentityOf(number);
        EXPECT_EQ(number == 1 ? store.admission.Ban(who.serial, changes)
                              : store.admission.Forget(who.serial, changes),
                  kDone);
        EXPECT_EQ(changes.devices, std::vector<std::int64_t>{device});
        EXPECT_EQ(changes.tunnels.size(), 1U);
        Device found;
        std::vector<TunnelRecord> tunnels;
        EXPECT_EQ(store.devices.FindSession("hash" + std::to_string(number), found),
                  StoreResult::NotFound);
        EXPECT_EQ(Add(store, device, "more"), StoreResult::NotFound);
        EXPECT_EQ(store.devices.SetNetwork(device, "{}"), StoreResult::NotFound);
        EXPECT_EQ(store.services.ListTunnels(device, tunnels), StoreResult::NotFound);
        EXPECT_EQ(store.devices.Register(who, "new", found),
                  number == 1 ? StoreResult::Refused : kDone);
        Execute("DELETE FROM alias"); // the banned one's lasts until it expires
    }
    EXPECT_EQ(Add(store, Key(store, 3), "web"), kDone) << "the port is free again";
}

TEST_P(HubAdmissionStore, AdmitsTheDevicesOfVersion2) {
    std::string tables =
        std::string(kDeviceTables) + kRelayTables + (IsServer() ? kPostgresExtras : kSqliteExtras);
    boost::replace_all(tables, "{key}",
                       IsServer() ? "BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY"
                                  : "INTEGER PRIMARY KEY AUTOINCREMENT");
    boost::replace_all(tables, "{clustered}", "");
    tables += "INSERT INTO device(serial, token, server_id, mac, timezone) VALUES('S1', '" +
              HashToken(IdentityOf(1)) + "', 'id1', '', '');";
    tables += IsServer() ? "INSERT INTO hub_schema VALUES(2)" : "PRAGMA user_version = 2";
    Execute(tables.c_str());
    Store store;
    OpenListed(store);
    Device device;
    EXPECT_EQ(store.devices.Register(IdentityOf(1), "hash", device), kDone);
    EXPECT_EQ(store.devices.Register(IdentityOf(2), "hash2", device), StoreResult::NotFound);
}

TEST_P(HubAdmissionStore, KnowsTheRelaysPort) {
    Store store;
    Open(store);
    EXPECT_EQ(store.relays.SshPort(), 0);
    RelayRecord relay;
    for (const auto& [name, port] : {std::pair("dead", 22), std::pair("r1", 2222)}) {
        EXPECT_EQ(store.relays.Join({name, "", "me", 1, 2, "", port}, relay), kDone);
    }
    Execute("UPDATE relay SET seen = 0 WHERE name = 'dead'");
    Store other;
    Open(other);
    EXPECT_EQ(other.relays.SshPort(), 2222);
}

TEST(HubGuessLimit, BoundsGuesses) {
    GuessLimit limit;
    const auto start = GuessLimit::Clock::now();
    // When, who, whether the guess is given back, and the seconds to wait.
    const std::tuple<int, int, bool, int> kRows[] = {
        {0, 1, false, 0},  {0, 1, false, 0},  {0, 1, true, 0},   {0, 1, false, 0},
        {0, 1, false, 0},  {0, 1, false, 0},  {0, 1, false, 30}, {0, 2, false, 0},
        {9, 1, false, 21}, {30, 1, false, 0}, {30, 1, true, 30}, {1000, 1, true, 0}};
    for (const auto& [second, network, isGood, wait] : kRows) {
        EXPECT_EQ(limit.Take(network, start + seconds(second)), wait) << second << " " << network;
        if (isGood && wait == 0) {
            limit.GiveBack(network);
        }
    }
    int granted = 0;
    for (int network = 10; network < 200; ++network) {
        granted += limit.Take(network, start + seconds(2000)) == 0 ? 1 : 0;
    }
    EXPECT_EQ(granted, 50) << "from all networks";
    EXPECT_EQ(limit.Take(5, start + seconds(2000)), 1);
    EXPECT_EQ(limit.Take(5, start + seconds(2001)), 0);
}

/// A hub that admits listed devices only, and its database.
struct HubAdmission : testing::Test {
    HubAdmission() {
        std::string error;
        EXPECT_TRUE(store_.Open(hub_.Data() + "/hub.db", error)) << error;
        for (const auto& [digits, validity] :
             {std::pair("00000000001", 60), std::pair("00000000002", 0)}) {
            EXPECT_EQ(store_.admission.Invite({Sha256(CompleteInvitation(digits)), 1, validity}),
                      kDone);
        }
    }
    /// The reply to a lone "join" with these further members.
    static std::string Join(TestDevice& device, const std::string& members = "") {
        std::string command = device.RegisterCommand();
        boost::replace_first(command, "register", "join");
        command.insert(command.size() - 1, members);
        return Compact(device.Post("[" + command + "]")[0]);
    }
    static std::string Code(const std::string& digits) {
        return R"(,"code":")" + CompleteInvitation(digits) + "\"";
    }
    static std::string Register(TestDevice& device) {
        return Compact(device.Post("[" + device.RegisterCommand() + "]")[0]);
    }

    HubProcess hub_{4, "--admit listed"};
    Store store_;
};

constexpr char kAdmitted[] = R"({"errno":0,"state":"admitted"})";
constexpr char kPending[] = R"({"errno":2,"retry_after":5,"state":"pending"})";

std::string Refused(const std::string& reason) {
    return R"({"errno":2,"reason":")" + reason + R"(","state":"refused"})";
}

TEST_F(HubAdmission, AnswersJoin) {
    TestDevice one(hub_, 1), two(hub_, 2), thief(hub_, 1), twin(hub_, 1);
    thief.token = "other";
    twin.serial = "SERIAL-OTHER";
    Changes changes;
    EXPECT_EQ(store_.admission.Ban("SERIAL-BANNED", changes), kDone);
    TestDevice banned(hub_, 3);
    banned.serial = "SERIAL-BANNED";
    const std::string good = Code("00000000001");
    const std::tuple<TestDevice*, std::string, std::string> kRows[] = {
        {&one, "", kPending},
        {&one, R"(,"code":5)", R"({"errno":9})"},
        {&one, R"(,"code":"000000000011")", R"({"errno":9})"}, // its last digit is wrong
        {&one, Code("00000000003"), Refused("code_unknown")},
        {&one, Code("00000000002"), Refused("code_expired")},
        {&one, good, kAdmitted},
        {&one, "", kAdmitted},
        {&two, good, Refused("code_used")},
        {&thief, good, Refused("token")},
        {&twin, good, Refused("server_id")},
        {&banned, "", Refused("banned")}};
    for (const auto& [device, members, reply] : kRows) {
        EXPECT_EQ(Join(*device, members), reply) << members;
    }
    EXPECT_TRUE(one.cookie.empty()) << "it gives no session";
    EXPECT_EQ(Parse(Register(one))["serverID"], one.id);
    EXPECT_EQ(Register(two), R"({"errno":2,"retry_after":5})");
    EXPECT_EQ(Register(banned), R"({"errno":2})");
    EXPECT_EQ(Register(thief), R"({"errno":2})");
    EXPECT_EQ(hub_.Log().find(CompleteInvitation("00000000001")), std::string::npos);
}

TEST_F(HubAdmission, StopsGuessers) {
    TestDevice one(hub_, 1), two(hub_, 2);
    EXPECT_EQ(Join(one, Code("00000000001")), kAdmitted);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Join(two, Code("0000000001" + std::to_string(i))), Refused("code_unknown"));
    }
    for (const char* digits : {"00000000009", "00000000001"}) {
        const Json::Value reply = Parse(Join(two, Code(digits)));
        EXPECT_EQ(reply["errno"].asString() + reply["state"].asString(), "11busy");
        EXPECT_NEAR(reply["retry_after"].asInt(), 25, 5);
    }
    EXPECT_EQ(Join(one, Code("00000000001")), kAdmitted) << "it is known";
    EXPECT_EQ(Join(two), kPending);
}

TEST_F(HubAdmission, EndsWhatACachedSessionMayDo) {
    TestDevice one(hub_, 1), two(hub_, 2);
    AdmitResult result = AdmitResult::Known;
    for (TestDevice* device : {&one, &two}) {
        EXPECT_EQ(Join(*device), kPending);
        EXPECT_EQ(store_.admission.Admit(device->serial, "", result), kDone);
        EXPECT_EQ(Errnos(device->Publish("web")), "0 0");
    }
    auto held = std::async(std::launch::async,
                           [&two, revision = two.Revision()] { return two.Wait(revision); });
    Changes changes;
    EXPECT_EQ(store_.admission.Ban(one.serial, changes), kDone);
    EXPECT_EQ(store_.admission.Forget(two.serial, changes), kDone);
    EXPECT_EQ(Errnos(one.Post("[" + TestDevice::Services("service_add", "more") + "]")), "6");
    EXPECT_EQ(one.Wait(0)["errno"], 6);
    EXPECT_EQ(Errnos(one.Publish("web")), "2 6");
    EXPECT_EQ(
        one.PostRaw("action=map_alias&alias=home&id=" + one.id + "&serial=SERIAL-1&token=token1",
                    "/alias_update.php")
            ->body,
        "badauth");
    EXPECT_EQ(held.get()["errno"], 6);
    EXPECT_EQ(Errnos(two.Publish("web")), "2 6");
}

TEST_F(HubAdmission, SaysWhatItIs) {
    const std::string expected =
        R"({"admission":"listed","alias":{"url":"https://relay.example:)" +
        std::to_string(hub_.HttpsPort()) +
        R"("},"control":{"host":"relay.example","port":81,"protocol":"http"},)"
        R"("hub":"zarorelay","protocol":1,"relay":{"ssh_port":)" +
        std::to_string(hub_.RelayPort()) + R"(},"version":")";
    httplib::Client client("127.0.0.1", hub_.HttpPort());
    const auto get = [&client](const char* page, const char* host) {
        const httplib::Result result = client.Get(page, {{"Host", host}});
        return StatusOf(result) == 200 ? result->body : std::to_string(StatusOf(result));
    };
    EXPECT_EQ(get("/.well-known/zarorelay?a", "relay.example:81").find(expected), 0U) << expected;
    EXPECT_EQ(get("/.well-known/zarorelay", "a b"), "400");
    EXPECT_EQ(get("/Serv.php", "a"), "404");
    EXPECT_EQ(StatusOf(client.Post("/.well-known/zarorelay", "", "text")), 404);
}

} // namespace
} // namespace ZARO::RelayHub
