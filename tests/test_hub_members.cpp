// What several hub processes do for each other, over each kind of database.

#include <gtest/gtest.h>

#include "hub/bus.h"
#include "hub/bus_text.h"
#include "hub/sqlite.h"
#include "tests/support/postgres.h"

namespace ZARO::RelayHub {

void PrintTo(const TunnelKey& tunnel, std::ostream* out) {
    *out << tunnel.relay << ":" << tunnel.user;
}

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
        Sqlite(target_).Execute(
            "PRAGMA journal_mode = WAL; CREATE TABLE event(seq INTEGER PRIMARY KEY AUTOINCREMENT,"
            " made INTEGER NOT NULL, text TEXT NOT NULL)");
    }
    ~HubMembers() override {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    std::string target_, folder_, name_;
};

INSTANTIATE_TEST_SUITE_P(Engines, HubMembers, testing::Values(Engine::Sqlite, Engine::Postgres),
                         [](const auto& engine) {
                             return engine.param == Engine::Sqlite ? "Sqlite" : "Postgres";
                         });

TEST_P(HubMembers, BusTellsAllOthersInBatches) {
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
    const bool isShared = GetParam() == Engine::Postgres;
    Ear a(target_), b(target_);
    const auto tell = [&](const std::string& text) {
        isShared ? (void)PostgresCluster::Shared().Run(
                       "SELECT pg_notify('zarorelay', '" + text + "')", name_)
                 : Sqlite(target_).Execute(
                       ("INSERT INTO event(made, text) VALUES(1, '" + text + "')").c_str());
    };
    int missed = 1;
    for (const char* text : {"x m", "x d 1 x", "x t 5", "x 5", "x d 99999999999999999999"}) {
        tell(text);
        EXPECT_TRUE(a.Missed(++missed)) << text;
    }
    if (isShared) {
        PostgresCluster::Shared().Cut(name_);
    } else {
        Sqlite(target_).Execute("BEGIN; INSERT INTO event VALUES(90, 1, ''), (91, 1, ''); COMMIT");
    }
    EXPECT_TRUE(a.Missed(missed + 1)) << "messages may be lost";
    EXPECT_TRUE(b.Missed(missed + 1));
    EXPECT_TRUE(a.Reaches(b, 5));
    if (isShared) {
        PostgresCluster::Shared().Kill();
        missed = b.missed;
        a.bus.Publish({{6}, {}});
        PostgresCluster::Shared().Start();
        EXPECT_TRUE(b.Missed(missed + 1)) << "it hears nothing of 6";
        EXPECT_TRUE(b.Reaches(a, 7));
    }
}

} // namespace
} // namespace ZARO::RelayHub
