/// The fleet as its operator sees it: devices, their services, the relays. Reads only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hub/store_access.h"

namespace ZARO::RelayHub {

// All times are the database's, in seconds; 0 = never, or before it was noted.

struct FleetCounts {
    std::int64_t now = 0;
    std::int64_t devices = 0, devicesUp = 0; ///< admitted; with a service that is up
    std::int64_t pending = 0, banned = 0;
    std::int64_t invitations = 0; ///< that are still good
    std::int64_t services = 0, servicesUp = 0;
    std::int64_t relays = 0, relaysUp = 0;
};

/// A device that was admitted, or a serial that is banned.
struct FleetDevice {
    std::int64_t key = 0; ///< 0 = only its serial is known
    std::string serial, serverId, alias, mac;
    std::int64_t registered = 0; ///< when it did last
    std::int64_t admitted = 0;
    std::int64_t banned = 0;
    std::int64_t services = 0, up = 0;
};

struct FleetService {
    std::string id, name;
    int port = 0; ///< at the device
    std::string relay, host;
    int relayPort = 0;
    bool up = false;
};

/// All of one device.
struct FleetDetail {
    FleetDevice device;
    std::string timezone, network; ///< the latter as JSON
    std::vector<FleetService> services;
};

struct FleetRelay {
    std::string name, host;
    std::string state;    ///< "up", or "draining" when its tunnels move to others
    bool isAlive = false; ///< it said so within the last seconds
    std::int64_t seen = 0;
    int firstPort = 0, lastPort = 0;
    std::int64_t tunnels = 0, up = 0;
};

/// Any thread may call any method. They block for the database only and don't throw.
class FleetStore {
public:
    explicit FleetStore(StoreAccess& access) : access_(access) {}

    /// `alive`: after how many seconds of silence a relay counts as down.
    StoreResult Count(std::int64_t alive, FleetCounts& counts);

    /// Up to `count` of the admitted devices in order of their keys, from the first key after
    /// `after` on; the next in order of their serials.
    StoreResult Admitted(std::int64_t after, std::size_t count, std::vector<FleetDevice>& devices);
    StoreResult Banned(const std::string& after, std::size_t count,
                       std::vector<FleetDevice>& devices);

    /// The serials, pending and banned ones too, of all devices that `text` may mean. `kind` says
    /// what it is: "serial", "id" or "alias"; "" = any of them.
    StoreResult Find(const std::string& text, const std::string& kind,
                     std::vector<std::string>& serials);
    /// All that is known of the device with this serial. NotFound when it is neither admitted nor
    /// banned.
    StoreResult Read(const std::string& serial, FleetDetail& detail);

    /// The relays in order of their names.
    StoreResult Relays(std::int64_t alive, std::vector<FleetRelay>& relays);
    /// The database's time.
    StoreResult Now(std::int64_t& now);

private:
    StoreAccess& access_;
};

} // namespace ZARO::RelayHub
