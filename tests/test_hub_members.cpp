// What several hub processes do for each other, over each kind of database.

#include <gtest/gtest.h>

#include "hub/bus.h"
#include "hub/relay_member.h"
#include "hub/relay_spare.h"
#include "hub/sqlite.h"
#include "hub/upkeep.h"
#include "tests/support/postgres.h"

namespace ZARO::RelayHub {

namespace {

/// What a process hears from the others.
struct Ear {
    explicit Ear(const std::string& target) : bus(target) {
        std::string error;
        EXPECT_TRUE(bus.Start({[this](const Changes& changes) {
                                   const std::lock_guard<std::mutex> lock(mutex);
                                   ++batches;
                                   for (const auto device : changes.devices) {
                                       heard += "d" + std::to_string(device) + " ";
                                   }
                                   for (const TunnelKey& tunnel : changes.tunnels) {
                                       heard += std::to_string(tunnel.relay) + tunnel.user + " ";
                                   }
                               },
                               [this] { ++missed; }},
                              error));
        EXPECT_TRUE(Missed(1)) << "begins to listen";
    }
    bool Missed(int times) {
        return WaitFor([&] { return missed >= times; });
    }
    /// Whether it hears this, and nothing else.
    bool Hears(const std::string& all) {
        return WaitFor([&] { return Heard() == all; });
    }
    /// Whether the other one hears it of this device, once both listen.
    bool Reaches(Ear& other, int device) {
        return WaitFor([&] {
            bus.Publish({{device}, {}});
            return other.Heard().find("d" + std::to_string(device) + " ") != std::string::npos;
        });
    }
    std::string Heard() {
        const std::lock_guard<std::mutex> lock(mutex);
        return heard;
    }

    std::atomic<int> missed{0}, batches{0};
    std::mutex mutex;
    std::string heard;
    Bus bus; // last, as its thread uses the others
};

/// A process of the hub, on a host of its own.
struct Host {
    explicit Host(const std::string& target, RelayTimes times = {}) {
        std::string error;
        EXPECT_TRUE(store.Open(target, error)) << error;
        EXPECT_TRUE(loops.Start(error)) << error;
        store.relays.UseTimes(times);
        store.ports.UseChoice([this](Database& database) { return store.relays.Choose(database); });
    }
    ~Host() { loops.Stop(); }

    /// Becomes a relay with these ports. The reason why not, else "".
    std::string Join(const std::string& name, const std::string& owner, int first, int last) {
        const RelayMember::Actions actions{
            [this](const std::vector<TunnelKey>& tunnels) { closed += tunnels.size(); },
            [this] { lost = true; }};
        member = std::make_shared<RelayMember>(loops, store, book, actions,
                                               MemberTimes{milliseconds(50), seconds(60)});
        std::string error;
        if (member->Join({name, "host-" + owner, owner, first, last, "key-" + owner}, changes,
                         error) == StoreResult::Done) {
            member->Start();
        }
        return error;
    }
    /// A new device with this many services.
    std::int64_t AddDevice(int services) {
        const std::string number = std::to_string(++devices);
        Device device;
        EXPECT_EQ(store.devices.Register({"s" + number, "t", "m", "z", number}, number, device),
                  StoreResult::Done);
        std::vector<ServiceRecord> all;
        for (int i = 0; i < services; ++i) {
            all.push_back({"id" + std::to_string(i), "name", 80 + i});
        }
        std::vector<TunnelKey> gone;
        EXPECT_EQ(store.services.Update(device.key, all, {}, gone), StoreResult::Done);
        return device.key;
    }
    std::vector<TunnelRecord> Tunnels(std::int64_t device) {
        std::vector<TunnelRecord> tunnels;
        EXPECT_EQ(store.services.ListTunnels(device, tunnels), StoreResult::Done);
        return tunnels;
    }
    int Revision(std::int64_t device) {
        int revision = 0;
        EXPECT_EQ(store.services.Revision(device, revision), StoreResult::Done);
        return revision;
    }
    /// How many tunnels a relay has.
    std::size_t CountAt(const RelayMember& relay) {
        std::vector<TunnelRecord> tunnels;
        EXPECT_EQ(store.services.TunnelsOf(relay.Relay().key, tunnels), StoreResult::Done);
        return tunnels.size();
    }

    Store store;
    TunnelBook book;
    Changes changes; ///< that joining made
    std::atomic<std::size_t> closed{0};
    std::atomic<bool> lost{false};
    int devices = 0;
    Loops loops{1};
    std::shared_ptr<RelayMember> member;
};

enum class Engine { Sqlite, Postgres };

/// A database of each kind that several processes use.
class HubMembers : public testing::TestWithParam<Engine> {
protected:
    HubMembers() {
        if (GetParam() == Engine::Postgres) {
            static int number = 0;
            name_ = "hub" + std::to_string(++number);
            target_ = PostgresCluster::Shared().Database(name_);
            return;
        }
        folder_ = (fs::temp_directory_path() / "zaro-members.XXXXXX").string();
        target_ = std::string(mkdtemp(folder_.data())) + "/hub.db";
    }
    ~HubMembers() override {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    void TestMove(const std::function<void(Host& host)>& end);
    bool IsShared() const { return GetParam() == Engine::Postgres; }
    /// Runs SQL beside the hub.
    void Sql(const std::string& sql) const {
        IsShared() ? (void)PostgresCluster::Shared().Run(sql, name_)
                   : Sqlite(target_).Execute(sql.c_str());
    }
    /// Makes it look as if the relay had last said so long ago that it lives.
    void Age(const std::string& relay, int seconds) const {
        Sql("UPDATE relay SET seen = unixepoch() - " + std::to_string(seconds) + " WHERE name = '" +
            relay + "'");
    }
    std::string target_, folder_, name_;
};

INSTANTIATE_TEST_SUITE_P(Engines, HubMembers, testing::Values(Engine::Sqlite, Engine::Postgres),
                         [](const auto& engine) {
                             return engine.param == Engine::Sqlite ? "Sqlite" : "Postgres";
                         });

TEST_P(HubMembers, BusTellsAllOthersInBatches) {
    Host schema(target_);
    Ear a(target_), b(target_), c(target_);
    for (int i = 0; i < 3; ++i) {
        a.bus.Publish({{7, 7, 8}, {{1, "ta"}, {2, "tb"}}});
    }
    for (Ear* ear : {&b, &c}) {
        EXPECT_TRUE(ear->Hears("d7 d8 1ta 2tb ")) << ear->Heard();
        EXPECT_EQ(ear->batches, 1);
        EXPECT_EQ(ear->missed, 1);
    }
    Changes many;
    for (int i = 0; i < 20000; ++i) {
        many.devices.push_back(1000000 + i);
    }
    b.bus.Publish(many);
    EXPECT_TRUE(a.Missed(2)) << "more than a few messages";
    EXPECT_TRUE(c.Missed(2));
    EXPECT_EQ(a.Heard() + std::to_string(b.missed), "1") << "nobody hears itself";
    c.bus.Publish({{3}, {}});
    c.bus.Stop(); // sends what was published
    EXPECT_TRUE(a.Hears("d3 "));
}

TEST_P(HubMembers, BusMakesUpForWhatItMisses) {
    Host schema(target_);
    Ear a(target_), b(target_);
    const auto tell = [&](const std::string& text) {
        Sql(IsShared() ? "SELECT pg_notify('zarorelay', '" + text + "')"
                       : "INSERT INTO event(made, text) VALUES(1, '" + text + "')");
    };
    int missed = 1;
    for (const char* text : {"x m", "x d 1 x", "x t 5", "x 5", "x d 99999999999999999999"}) {
        tell(text);
        EXPECT_TRUE(a.Missed(++missed) && b.Missed(missed)) << text;
    }
    if (IsShared()) {
        PostgresCluster::Shared().Cut(name_);
    } else {
        Sqlite(target_).Execute("BEGIN; INSERT INTO event VALUES(90, 1, ''), (91, 1, ''); COMMIT");
    }
    EXPECT_TRUE(a.Missed(missed + 1)) << "messages may be lost";
    EXPECT_TRUE(b.Missed(missed + 1));
    EXPECT_TRUE(a.Reaches(b, 5));
    if (IsShared()) {
        PostgresCluster::Shared().Kill();
        missed = b.missed;
        a.bus.Publish({{6}, {}});
        PostgresCluster::Shared().Start();
        EXPECT_TRUE(b.Missed(missed + 1)) << "it hears nothing of 6";
        EXPECT_TRUE(b.Reaches(a, 7));
    }
}

TEST_P(HubMembers, RelayIsOneProcessAtATime) {
    const std::string taken = "--relay-name: another relay named r is alive at host-";
    Host a(target_), again(target_), b(target_), spare(target_);
    EXPECT_EQ(a.Join("r", "A", 100, 199), "");
    EXPECT_EQ(b.Join("r", "B", 200, 299), taken + "A");
    EXPECT_EQ(again.Join("r", "A", 100, 199), "") << "the same host, restarted";
    EXPECT_TRUE(WaitFor([&] { return a.lost.load(); }));

    again.member->Leave();
    EXPECT_EQ(b.Join("r", "B", 0, 0), "") << "at once";
    EXPECT_EQ(b.member->Relay().firstPort, 100);
    EXPECT_EQ(b.member->Relay().hostKey, IsShared() ? "key-A" : "key-B");
    EXPECT_EQ(spare.Join("r", "C", 0, 0), taken + "B");
    EXPECT_FALSE(again.lost) << "it had left";
}

TEST_P(HubMembers, SpareTakesAQuietRelaysPlace) {
    // Life signs are whole seconds.
    Host a(target_, {seconds(3), seconds(120)}), b(target_, {seconds(3), seconds(120)});
    ASSERT_EQ(a.Join("r", "A", 100, 199), "");
    const std::int64_t device = a.AddDevice(3);
    const auto before = a.Tunnels(device);
    const auto spare = std::make_shared<RelaySpare>(
        b.loops, b.store, [&](const std::string& name) { return b.Join(name, "B", 0, 0).empty(); },
        milliseconds(20));
    spare->Start();
    EXPECT_FALSE(Within(seconds(5), [&] { return b.book.Size() != 0; })) << "it is alive";
    a.loops.Stop();
    EXPECT_TRUE(WaitFor([&] { return b.book.Size() == 3; }));
    const auto after = b.Tunnels(device);
    ASSERT_EQ(after.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(after[i].relayPort, before[i].relayPort);
        EXPECT_EQ(after[i].password, before[i].password);
        EXPECT_EQ(after[i].relayHost, "host-B");
    }
    EXPECT_EQ(b.changes.devices.size(), 3U) << "whose lists name another host now";
}

TEST_P(HubMembers, RelayKnowsItsTunnelsAlsoWithoutADatabase) {
    Host a(target_), control(target_);
    ASSERT_EQ(a.Join("r", "A", 100, 199), "");
    const std::int64_t device = control.AddDevice(3);
    a.member->HeedAll();
    EXPECT_TRUE(WaitFor([&] { return a.book.Size() == 3; }));

    const std::string user = control.Tunnels(device)[0].user;
    std::vector<TunnelKey> gone;
    ASSERT_EQ(control.store.services.Update(device, {}, {"id1"}, gone), StoreResult::Done);
    a.member->Heed({{device}, gone});
    EXPECT_TRUE(WaitFor([&] { return a.book.Size() == 2 && a.closed == 1; }));
    Sql("UPDATE service SET relay_password = 'other' WHERE id = 'id0'");
    a.member->HeedAll();
    EXPECT_TRUE(WaitFor([&] { return a.closed == 2; }));
    if (IsShared()) {
        PostgresCluster::Shared().Kill();
        a.member->Heed({{}, {{a.member->Relay().key, user}}});
        a.member->HeedAll();
        EXPECT_FALSE(Within(milliseconds(300), [&] { return a.book.Size() != 2 || a.lost; }));
        PostgresCluster::Shared().Start();
        Age("r", 100);
        std::vector<RelayRecord> alive;
        EXPECT_TRUE(WaitFor([&] {
            return control.store.relays.Alive(alive) == StoreResult::Done && alive.size() == 1;
        })) << "it says again that it lives";
    }
}

TEST(TunnelBook, KeepsWhatChangedDuringARead) {
    TunnelBook book;
    const auto tunnel = [](const char* user) {
        TunnelRecord record;
        record.user = user;
        return record;
    };
    EXPECT_TRUE(book.Put(tunnel("gone")) && book.Put(tunnel("back")));
    const std::uint64_t read = book.Version();
    book.Remove("gone");
    book.Remove("back");
    EXPECT_FALSE(book.Put(tunnel("gone"), read));
    EXPECT_TRUE(book.Put(tunnel("back")) && book.Put(tunnel("new")));
    EXPECT_TRUE(book.Replace({tunnel("gone"), tunnel("back"), tunnel("old")}, read).empty());
    EXPECT_TRUE(!book.Find("gone") && book.Find("back") && book.Find("new") && book.Find("old"));
    EXPECT_TRUE(book.Put(tunnel("gone"), book.Version())) << "it was read later";
}

TEST_P(HubMembers, TunnelsGoToTheRelayWithTheFewest) {
    Host a(target_), b(target_), control(target_);
    ASSERT_EQ(a.Join("a", "A", 100, 109), "");
    ASSERT_EQ(b.Join("b", "B", 200, 209), "");
    control.AddDevice(10);
    EXPECT_EQ(control.CountAt(*a.member), 5U);
    EXPECT_EQ(control.CountAt(*b.member), 5U);
    b.member->Leave();
    Within(milliseconds(1100), [] { return false; }); // as long as it was known to live
    control.AddDevice(5);
    EXPECT_EQ(control.CountAt(*a.member), 10U);
}

/// Whether each tunnel of a relay that comes to this end moves once to another one.
void HubMembers::TestMove(const std::function<void(Host& host)>& end) {
    const UpkeepTimes times{10, milliseconds(5), milliseconds(20), milliseconds(200)};
    Host a(target_), b(target_), control(target_), other(target_);
    ASSERT_EQ(a.Join("a", "A", 100, 199), "");
    std::vector<std::int64_t> devices;
    for (int i = 0; i < 20; ++i) {
        devices.push_back(control.AddDevice(4));
    }
    const auto before = control.Tunnels(devices[0]);
    const int revision = control.Revision(devices[0]);
    std::atomic<std::size_t> moved{0};
    for (Host* host : {&control, &other}) {
        std::make_shared<Upkeep>(
            host->loops, host->store,
            [&](const Changes& changes) {
                moved += changes.tunnels.size() / 2;
                a.member->Heed(changes);
            },
            times)
            ->Start();
    }
    end(a);
    EXPECT_FALSE(Within(milliseconds(500), [&] { return moved != 0; })) << "no relay lives";
    ASSERT_EQ(b.Join("b", "B", 120, 209), "");
    EXPECT_TRUE(WaitFor([&] { return moved >= 80; }));
    EXPECT_FALSE(Within(milliseconds(100), [&] { return moved != 80; })) << moved;
    EXPECT_EQ(control.CountAt(*a.member), 0U);
    const auto after = control.Tunnels(devices[0]), last = control.Tunnels(devices[19]);
    EXPECT_EQ(after[0].user + after[0].password, before[0].user + before[0].password);
    EXPECT_GE(after[0].relayPort, 120) << "the other relay has no such port";
    EXPECT_EQ(last[3].relayPort, 179) << "kept";
    EXPECT_NE(control.Revision(devices[0]), revision);
}

TEST_P(HubMembers, TunnelsOfADeadRelayMove) {
    TestMove([this](Host& host) {
        host.loops.Stop();
        Age("a", 121);
    });
}

TEST_P(HubMembers, DrainedRelayIsLeftWithoutTunnels) {
    TestMove([](Host& host) {
        host.member->HeedAll();
        EXPECT_TRUE(WaitFor([&] { return host.book.Size() == 80; }));
        EXPECT_TRUE(host.member->Drain());
    });
}

} // namespace
} // namespace ZARO::RelayHub
