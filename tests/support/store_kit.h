/// What the tests of the store share: an empty database of either engine, and devices in it.
#pragma once

#include "hub/store.h"
#include "tests/support/postgres.h"
#include "tests/support/temp_root.h"

namespace ZARO::RelayHub {

constexpr StoreResult kDone = StoreResult::Done;

inline Identity IdentityOf(int number) {
    const std::string text = std::to_string(number);
    return {"S" + text, "token" + text, "02004c000000", "Any", "id" + text};
}

inline ServiceRecord Service(const std::string& id, const std::string& name = "name") {
    return {id, name, 80, -1};
}

/// An empty database, and what the tests do with stores on it.
struct StoreTest : testing::Test {
    void UseFile() { target_ = root_.Path("/hub.db"); }
    void UseServer() {
        static int databases = 0;
        name_ = "store" + std::to_string(++databases);
        target_ = Cluster().Database(name_);
    }
    static PostgresCluster& Cluster() { return PostgresCluster::Shared(); }

    /// Opens `store` with this many ports from 1000 on.
    void Open(Store& store, int ports = 4, std::function<bool(int)> isFree = nullptr) {
        std::string error;
        ASSERT_TRUE(store.Open(target_, {1000, 999 + ports, std::move(isFree)}, error)) << error;
    }
    /// Registers a device.
    static std::int64_t Key(Store& store, int number = 1) {
        Device device;
        EXPECT_EQ(
            store.devices.Register(IdentityOf(number), "hash" + std::to_string(number), device),
            kDone);
        EXPECT_EQ(store.services.DropStale(device.key, gone_), kDone);
        return device.key;
    }
    static StoreResult Add(Store& store, std::int64_t device, const std::string& id) {
        return store.services.Update(device, {Service(id)}, {}, gone_);
    }
    static StoreResult Remove(Store& store, std::int64_t device, const std::string& id) {
        return store.services.Update(device, {}, {id}, gone_);
    }
    /// "id:port" of each tunnel, and "+" if it is up.
    static std::string List(Store& store, std::int64_t device) {
        std::vector<TunnelRecord> tunnels;
        EXPECT_EQ(store.services.ListTunnels(device, tunnels), kDone);
        std::string all;
        for (const TunnelRecord& tunnel : tunnels) {
            all += tunnel.id + ":" + std::to_string(tunnel.relayPort) + (tunnel.up ? "+ " : " ");
        }
        return all;
    }
    static int Revision(Store& store, std::int64_t device) {
        int revision = 0;
        EXPECT_EQ(store.services.Revision(device, revision), kDone);
        return revision;
    }

    TempRoot root_;
    std::string name_, target_;
    static inline std::vector<TunnelKey> gone_;
};

/// On either engine.
struct HubStore : StoreTest, testing::WithParamInterface<const char*> {
    HubStore() { IsServer() ? UseServer() : UseFile(); }
    static bool IsServer() { return GetParam() == std::string("PostgreSQL"); }
};

} // namespace ZARO::RelayHub
