#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/json.h"
#include "base/text.h"
#include "hub/admin.h"
#include "hub/admin_reply.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kPage = 500; // devices in one reply

Json::Value Number(std::int64_t number) {
    return Json::Value(Json::Value::Int64(number));
}

/// Null for a time that is not known.
Json::Value Time(std::int64_t time) {
    return time == 0 ? Json::Value() : Number(time);
}

/// All members that a device in any state has.
Json::Value RowOf(const FleetDevice& device) {
    Json::Value row;
    row["serial"] = device.serial;
    row["serverID"] = device.serverId;
    row["alias"] = device.alias;
    row["mac"] = device.mac;
    row["state"] = device.banned != 0 ? "banned" : "admitted";
    row["services"] = Number(device.services);
    row["up"] = Number(device.up);
    row["registered"] = Time(device.registered);
    row["admitted"] = Time(device.admitted);
    row["banned"] = Time(device.banned);
    row["first_asked"] = Json::Value();
    row["asked"] = Json::Value();
    row["from"] = "";
    return row;
}

Json::Value RowOf(const PendingDevice& device) {
    FleetDevice same;
    same.serial = device.serial;
    same.serverId = device.serverId;
    same.mac = device.mac;
    Json::Value row = RowOf(same);
    row["state"] = "pending";
    row["first_asked"] = Time(device.firstAsked);
    row["asked"] = Time(device.lastAsked);
    row["from"] = device.address;
    return row;
}

Json::Value RowOf(const FleetService& service) {
    Json::Value row;
    row["id"] = service.id;
    row["name"] = service.name;
    row["port"] = service.port;
    row["up"] = service.up;
    row["relay"] = service.relay;
    row["host"] = service.host;
    row["relay_port"] = service.relayPort;
    return row;
}

Json::Value RowOf(const FleetRelay& relay) {
    Json::Value row;
    row["name"] = relay.name;
    row["host"] = relay.host;
    row["state"] = relay.state;
    row["alive"] = relay.isAlive;
    row["seen"] = Time(relay.seen);
    row["first_port"] = relay.firstPort;
    row["last_port"] = relay.lastPort;
    row["tunnels"] = Number(relay.tunnels);
    row["up"] = Number(relay.up);
    return row;
}

template <typename Things> Json::Value RowsOf(const Things& things) {
    Json::Value rows(Json::arrayValue);
    for (const auto& thing : things) {
        rows.append(RowOf(thing));
    }
    return rows;
}

Json::Value DetailOf(const FleetDetail& detail) {
    Json::Value device = RowOf(detail.device);
    device["timezone"] = detail.timezone;
    Json::Value network;
    (void)json::Parse(detail.network, network); // null for none
    device["network"] = network;
    device["service"] = RowsOf(detail.services);
    return device;
}

Json::Value RolesOf(const Roles& roles) {
    Json::Value names(Json::arrayValue);
    for (const auto& [isOne, name] :
         {std::pair(roles.control, "control"), std::pair(roles.alias, "alias"),
          std::pair(roles.relay, "relay")}) {
        if (isOne) {
            names.append(name);
        }
    }
    return names;
}

/// "" for a process that lets nobody in; the control servers have an option of their own.
const char* AdmissionOf(const HubOptions& options) {
    return !options.roles.control ? "" : options.admitsAll ? "open" : "listed";
}

} // namespace

Json::Value Admin::Status(const Json::Value&) {
    FleetCounts counts;
    if (store_.fleet.Count(store_.relays.Times().alive.count(), counts) != StoreResult::Done) {
        return Json::Value();
    }
    Json::Value reply = AdminSuccess();
    reply["version"] = ZARO_VERSION;
    reply["pid"] = Number(getpid());
    reply["roles"] = RolesOf(options_.roles);
    reply["database"] = options_.database.empty() ? "SQLite" : "PostgreSQL";
    reply["admission"] = AdmissionOf(options_);
    reply["now"] = Number(counts.now);
    reply["devices"] = Number(counts.devices);
    reply["devices_up"] = Number(counts.devicesUp);
    reply["pending"] = Number(counts.pending);
    reply["banned"] = Number(counts.banned);
    reply["invitations"] = Number(counts.invitations);
    reply["services"] = Number(counts.services);
    reply["services_up"] = Number(counts.servicesUp);
    reply["relays"] = Number(counts.relays);
    reply["relays_up"] = Number(counts.relaysUp);
    return reply;
}

Json::Value Admin::Devices(const Json::Value& request) {
    const std::string state = json::TextOf(request, "state");
    if (state != "pending" && state != "admitted" && state != "banned") {
        return AdminFailure(AdminCode::NotDone,
                            "expected a \"state\": pending, admitted or banned");
    }
    std::int64_t now = 0;
    Json::Value reply = AdminSuccess();
    if (store_.fleet.Now(now) != StoreResult::Done ||
        Page(state, json::TextOf(request, "after"), reply) != StoreResult::Done) {
        return Json::Value();
    }
    reply["now"] = Number(now);
    return reply;
}

StoreResult Admin::Page(const std::string& state, const std::string& after, Json::Value& reply) {
    if (state == "pending") { // few enough for one page
        return Pending("", reply["device"]);
    }
    std::vector<FleetDevice> devices;
    const bool isBanned = state == "banned";
    const StoreResult result =
        isBanned ? store_.fleet.Banned(after, kPage, devices)
                 : store_.fleet.Admitted(strtoll(after.c_str(), nullptr, 10), kPage, devices);
    if (result == StoreResult::Done) {
        reply["device"] = RowsOf(devices);
        if (devices.size() == kPage) {
            const FleetDevice& last = devices.back();
            reply["next"] = isBanned ? last.serial : std::to_string(last.key);
        }
    }
    return result;
}

StoreResult Admin::Pending(const std::string& serial, Json::Value& rows) {
    std::vector<PendingDevice> devices;
    const StoreResult result = store_.admission.Pending(devices);
    rows = Json::Value(Json::arrayValue);
    for (const PendingDevice& device : devices) {
        if (serial.empty() || device.serial == serial) {
            rows.append(RowOf(device));
        }
    }
    return result;
}

Json::Value Admin::Device(const Json::Value& request) {
    std::string serial;
    Json::Value reply;
    if (!Find(json::TextOf(request, "device"), serial, reply)) {
        return reply;
    }
    std::int64_t now = 0;
    FleetDetail detail;
    Json::Value asking;
    const StoreResult result = store_.fleet.Read(serial, detail);
    if (result == StoreResult::Fault || store_.fleet.Now(now) != StoreResult::Done ||
        Pending(serial, asking) != StoreResult::Done) {
        return Json::Value();
    }
    Json::Value device = DetailOf(detail);
    if (result == StoreResult::NotFound) { // nothing is known but that it asks
        if (asking.empty()) {
            return AdminFailure(AdminCode::No, "no device is known as " + Printable(serial));
        }
        for (const std::string& key : asking[0].getMemberNames()) {
            device[key] = asking[0][key];
        }
    }
    device["asking"] = asking;
    reply = AdminSuccess();
    reply["now"] = Number(now);
    reply["device"] = device;
    return reply;
}

Json::Value Admin::Relays(const Json::Value&) {
    std::int64_t now = 0;
    std::vector<FleetRelay> relays;
    if (store_.fleet.Now(now) != StoreResult::Done ||
        store_.fleet.Relays(store_.relays.Times().alive.count(), relays) != StoreResult::Done) {
        return Json::Value();
    }
    Json::Value reply = AdminSuccess();
    reply["now"] = Number(now);
    reply["relay"] = RowsOf(relays);
    return reply;
}

} // namespace ZARO::RelayHub
