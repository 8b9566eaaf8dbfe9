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
    static void Invite(Store& store, const std::string& code, int uses, std::int64_t seconds = 60) {
        EXPECT_EQ(store.admission.Invite({Sha256(code), uses, seconds}), kDone);
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

TEST_P(HubAdmissionStore, TakesAnInvitationAsOftenAsItIsGood) {
    Store store;
    OpenListed(store);
    Invite(store, "two", 2);
    Invite(store, "old", 2, 0);
    Identity otherToken = IdentityOf(1), otherId = IdentityOf(4);
    otherToken.token = "other";
    otherId.serverId = "id1";
    const std::tuple<Identity, const char*, const char*> kRows[] = {
        {IdentityOf(1), "guess", "no code"}, {IdentityOf(1), "old", "expired"},
        {IdentityOf(1), "", "pending"},      {IdentityOf(1), "two", "admitted"},
        {IdentityOf(1), "two", "admitted"}, // its reply was lost
        {otherToken, "two", "token"},        {otherId, "two", "id"},
        {IdentityOf(2), "two", "admitted"},  {IdentityOf(3), "two", "used"},
        {IdentityOf(1), "guess", "admitted"}};
    int row = 0;
    for (const auto& [identity, code, outcome] : kRows) {
        EXPECT_EQ(Join(store, identity, code), outcome) << "row " << row++;
    }
    EXPECT_EQ(CountPending(store), 0U);
}

TEST_P(HubAdmissionStore, UsesNoInvitationTwiceFromTwoHubs) {
    constexpr int kUses = 5;
    Store stores[2];
    for (Store& store : stores) {
        OpenListed(store);
    }
    Invite(stores[0], "code", kUses);
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
    EXPECT_EQ(join(0), "pending");
}

TEST_P(HubAdmissionStore, DoesWhatTheOperatorSays) {
    Store store;
    OpenListed(store);
    Identity one = IdentityOf(1), thief = IdentityOf(1), twin = IdentityOf(3);
    thief.token = "other";
    twin.serverId = one.serverId;
    const auto admit = [&](const std::string& serial, const std::string& from = "") {
        constexpr const char* kResults[] = {"admitted", "known", "unbanned", "ambiguous"};
        AdmitResult result = AdmitResult::Known;
        const StoreResult done = store.admission.Admit(serial, from, result);
        return done == kDone                   ? kResults[static_cast<std::size_t>(result)]
               : done == StoreResult::NotFound ? "not found"
               : done == StoreResult::Taken    ? "taken"
                                               : "failed";
    };
    const auto ban = [&](const char* serial) {
        Changes changes;
        return store.admission.Ban(serial, changes) == kDone ? "banned" : "failed";
    };
    const auto forget = [&](const char* serial) {
        Changes changes;
        return store.admission.Forget(serial, changes) == kDone ? "forgotten" : "not found";
    };
    const std::pair<std::string, std::string> kSteps[] = {{admit("S1"), "not found"},
                                                          {Join(store, one), "pending"},
                                                          {Join(store, thief, "", 2), "pending"},
                                                          {Join(store, twin), "pending"},
                                                          {admit("S1"), "ambiguous"},
                                                          {admit("S1", "10.0.0.3"), "not found"},
                                                          {admit("S1", "10.0.0.1"), "admitted"},
                                                          {admit("S1"), "known"},
                                                          {Join(store, one), "admitted"},
                                                          {Join(store, thief, "", 2), "token"},
                                                          {admit("S3"), "taken"},
                                                          {ban("S3"), "banned"},
                                                          {Join(store, twin), "banned"},
                                                          {admit("S3"), "unbanned"},
                                                          {Join(store, IdentityOf(3)), "pending"},
                                                          {ban("S1"), "banned"},
                                                          {Join(store, one), "banned"},
                                                          {Join(store, thief), "banned"},
                                                          {admit("S1"), "admitted"},
                                                          {Join(store, one), "admitted"},
                                                          {forget("S1"), "forgotten"},
                                                          {forget("S1"), "not found"},
                                                          {Join(store, thief), "pending"},
                                                          {forget("S1"), "forgotten"},
                                                          {ban("S9"), "banned"}, // never seen
                                                          {Join(store, IdentityOf(9)), "banned"},
                                                          {forget("S9"), "forgotten"},
                                                          {Join(store, IdentityOf(9)), "pending"}};
    int row = 0;
    for (const auto& [outcome, expected] : kSteps) {
        EXPECT_EQ(outcome, expected) << "row " << row++;
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
        const std::pair<StoreResult, StoreResult> kRows[] = {
            {store.devices.FindSession("hash" + std::to_string(number), found),
             StoreResult::NotFound},
            {Add(store, device, "more"), StoreResult::NotFound},
            {store.devices.SetNetwork(device, "{}"), StoreResult::NotFound},
            {store.services.ListTunnels(device, tunnels), StoreResult::NotFound},
            {store.devices.Authenticate(who.serial, who.token, who.serverId, found),
             StoreResult::Refused}};
        int row = 0;
        for (const auto& [result, expected] : kRows) {
            EXPECT_EQ(result, expected) << number << " row " << row++;
        }
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

TEST(HubAdmission, BoundsGuesses) {
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
    const std::string dashed =
        R"(,"code":")" + ShowInvitation(CompleteInvitation("00000000001")) + "\"";
    const std::tuple<TestDevice*, std::string, std::string> kRows[] = {
        {&one, "", kPending},
        {&one, R"(,"code":"")", kPending},
        {&one, R"(,"code":5)", R"({"errno":9})"},
        {&one, R"(,"code":"000000000011")", R"({"errno":9})"}, // its last digit is wrong
        {&one, R"(,"version":2)", R"({"errno":9})"},           // twice in one object
        {&one, Code("00000000003"), Refused("code_unknown")},
        {&one, Code("00000000002"), Refused("code_expired")},
        {&one, dashed, kAdmitted},
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
    const std::string port = std::to_string(hub_.HttpsPort());
    const std::string rest = R"("host":"relay.example","port":81,"protocol":"http"},)"
                             R"("hub":"zarorelay","protocol":1,"relay":{"ssh_port":)" +
                             std::to_string(hub_.RelayPort()) + R"(},"version":)";
    const std::tuple<const char*, const char*, int, std::string> kRows[] = {
        {"/.well-known/zarorelay", "relay.example:81", 200,
         R"({"admission":"listed","alias":{"url":"https://relay.example:)" + port +
             R"("},"control":{)" + rest},
        {"/.well-known/zarorelay?a", "[::1]:81", 200,
         R"({"admission":"listed","alias":{"url":"https://[::1]:)" + port},
        {"/.well-known/zarorelay", "a b", 400, ""},
        {"/.well-known/", "a", 404, ""},
        {"/Serv.php", "a", 404, ""}};
    httplib::Client client("127.0.0.1", hub_.HttpPort());
    for (const auto& [page, host, status, begin] : kRows) {
        const httplib::Result result = client.Get(page, {{"Host", host}});
        EXPECT_EQ(StatusOf(result), status) << page << host;
        EXPECT_EQ(result ? result->body.substr(0, begin.size()) : "none", begin) << page << host;
    }
    EXPECT_EQ(StatusOf(client.Post("/.well-known/zarorelay", "", "text")), 404);
}

} // namespace
} // namespace ZARO::RelayHub
