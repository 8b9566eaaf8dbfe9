#include "hub/control.h"

#include <exception>

#include "hub/json.h"
#include "hub/log.h"
#include "hub/names.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr Json::ArrayIndex kMaxCommands = 16;   // an honest batch has 3
constexpr Json::ArrayIndex kMaxElements = 1024; // of any array within a command
constexpr std::size_t kMaxText = 255;
constexpr std::size_t kMaxAddressText = 45;   // an IPv6 address at its longest
constexpr std::size_t kMaxInterfaceName = 15; // the kernel's own limit
constexpr Json::ArrayIndex kMaxInterfaces = 32;

Errno ErrnoOf(StoreResult result) {
    switch (result) {
    case StoreResult::Done:
        return Errno::Good;
    case StoreResult::Refused:
        return Errno::Auth;
    case StoreResult::NotFound:
        return Errno::NoSession;
    case StoreResult::Full:
        return Errno::Limit;
    case StoreResult::Taken:
    case StoreResult::Fault:
        break;
    }
    return Errno::Unknown;
}

/// Takes the text at `key`, if there is one. False when the value is anything but a text of at most
/// `longest` bytes.
bool TakeText(const Json::Value& object, const char* key, std::string& text,
              std::size_t longest = kMaxText) {
    const Json::Value& value = object[key];
    if (value.isNull() && !object.isMember(key)) {
        return true;
    }
    if (!value.isString() || !IsShortText(value.asString(), longest)) {
        return false;
    }
    text = value.asString();
    return true;
}

bool TakeInt(const Json::Value& object, const char* key, int low, int high, int& number) {
    const Json::Value& value = object[key];
    if (!value.isInt() || value.asInt() < low || value.asInt() > high) {
        return false;
    }
    number = value.asInt();
    return true;
}

/// Calls `take` for each object in the array at `key`, if there is one. False when the value is
/// anything but an array of objects, or when `take` returns false.
template <typename Take> bool TakeEach(const Json::Value& object, const char* key, Take take) {
    if (!object.isMember(key)) {
        return true;
    }
    const Json::Value& list = object[key];
    if (!list.isArray() || list.size() > kMaxElements) {
        return false;
    }
    for (const Json::Value& element : list) {
        if (!element.isObject() || !take(element)) {
            return false;
        }
    }
    return true;
}

bool TakeIdentity(const Json::Value& auth, Identity& identity) {
    std::string claimedId; // checked, but not used: the id follows from the MAC
    if (!auth.isObject() || !TakeText(auth, "serial", identity.serial) ||
        !TakeText(auth, "token", identity.token) || !TakeText(auth, "mac", identity.mac) ||
        !TakeText(auth, "timezone", identity.timezone) || !TakeText(auth, "serverID", claimedId)) {
        return false;
    }
    const std::optional<std::string> id = ServerIdOf(identity.mac);
    if (!id || !IsSerial(identity.serial) || !IsToken(identity.token)) {
        return false;
    }
    identity.serverId = *id;
    return true;
}

bool TakeService(const Json::Value& object, ServiceRecord& service) {
    if (!TakeText(object, "id", service.id) || !IsServiceId(service.id) ||
        !TakeInt(object, "port", 1, 65535, service.port)) {
        return false;
    }
    service.name = service.id;
    return TakeText(object, "name", service.name) &&
           (!object.isMember("ext_port") ||
            TakeInt(object, "ext_port", -1, 65535, service.externalPort));
}

Json::Value Failure(Errno error) {
    Json::Value reply(Json::objectValue);
    reply["errno"] = static_cast<int>(error);
    return reply;
}

} // namespace

std::string Control::Answer(const std::string& body, const Origin& origin, std::string& session) {
    Json::Value whole(Json::arrayValue);
    try {
        Batch batch{origin, session, std::nullopt};
        return AnswerArray(body, batch);
    } catch (const std::exception& fault) {
        Log(Level::Error, "control", "a batch failed: %s", fault.what());
        whole.append(Failure(Errno::Unknown));
        return ToLine(whole);
    }
}

std::string Control::AnswerArray(const std::string& body, Batch& batch) {
    Json::Value commands;
    Json::Value replies(Json::arrayValue);
    if (!ParseJson(body, commands) || !commands.isArray() || commands.size() > kMaxCommands) {
        replies.append(Failure(Errno::Input));
        return ToLine(replies);
    }
    Device device;
    if (!batch.session.empty() &&
        store_.devices.FindSession(Sha256(batch.session), device) == StoreResult::Done) {
        batch.device = device;
    }
    for (Json::ArrayIndex i = 0; i < commands.size(); ++i) {
        batch.isLast = i + 1 == commands.size();
        Json::Value reply(Json::objectValue);
        const Errno error = Execute(commands[i], batch, reply);
        Log(Level::Debug, "control", "%s: command %u of %u: errno %d",
            batch.device ? batch.device->serverId.c_str() : "stranger", i + 1, commands.size(),
            static_cast<int>(error));
        if (error != Errno::Good) {
            reply = Failure(error);
        }
        reply["errno"] = static_cast<int>(error);
        replies.append(reply);
    }
    FinishRegistration(batch);
    return ToLine(replies);
}

Errno Control::Execute(const Json::Value& command, Batch& batch, Json::Value& reply) {
    using Handler = Errno (Control::*)(const Json::Value&, Batch&, Json::Value&);
    static const struct {
        const char* name;
        Handler handler;
    } kCommands[] = {{"register", &Control::Register},
                     {"update_network", &Control::UpdateNetwork},
                     {"update_service", &Control::UpdateServices},
                     {"wait_command", &Control::Wait}};
    if (!command.isObject() || !command["command"].isString() || !command["version"].isInt()) {
        return Errno::Input;
    }
    if (command["version"].asInt() != 1) {
        return Errno::Version;
    }
    const std::string name = command["command"].asString();
    for (const auto& known : kCommands) {
        if (name == known.name) {
            if (!batch.device && known.handler != &Control::Register) {
                return Errno::NoSession;
            }
            return (this->*known.handler)(command, batch, reply);
        }
    }
    return Errno::NoSuchCommand;
}

Errno Control::Register(const Json::Value& command, Batch& batch, Json::Value& reply) {
    Identity identity;
    if (batch.hasRegistered || !TakeIdentity(command["auth"], identity)) {
        return Errno::Input;
    }
    Device device;
    std::string session = RandomText(43); // 256 bits
    const StoreResult result = store_.devices.Register(identity, Sha256(session), device);
    if (result != StoreResult::Done) {
        refusals_.Log("control", "device %s from %s is not admitted (%d)", identity.serial.c_str(),
                      batch.origin.peer.c_str(), static_cast<int>(ErrnoOf(result)));
        return ErrnoOf(result);
    }
    registrations_.Log("control", "device %s registered as %s", identity.serial.c_str(),
                       device.serverId.c_str());
    batch.device = device;
    batch.hasRegistered = true;
    batch.owesServices = true;
    batch.session = std::move(session);
    reply["serverID"] = device.serverId;
    Json::Value& wait = reply["server_wait_cmd"];
    wait["protocol"] = batch.origin.scheme;
    wait["host"] = batch.origin.host;
    wait["port"] = batch.origin.port;
    wait["page"] = "Serv.php";
    return Errno::Good;
}

Errno Control::UpdateNetwork(const Json::Value& command, Batch& batch, Json::Value& reply) {
    Json::Value network(Json::objectValue);
    Json::Value& interfaces = network["interface"] = Json::Value(Json::arrayValue);
    const auto take = [](const Json::Value& from, const char* key, std::size_t longest,
                         Json::Value& to) {
        std::string text;
        const bool good = TakeText(from, key, text, longest);
        to[key] = text;
        return good;
    };
    const auto takeInterface = [&](const Json::Value& element) {
        Json::Value kept(Json::objectValue);
        const bool good = take(element, "name", kMaxInterfaceName, kept) &&
                          take(element, "ip", kMaxAddressText, kept) &&
                          take(element, "mask", kMaxAddressText, kept);
        if (interfaces.size() < kMaxInterfaces) { // a container host may have any number
            interfaces.append(kept);
        }
        return good;
    };
    const bool good = take(command, "gateway", kMaxAddressText, network) &&
                      take(command, "ddns", kMaxText, network) &&
                      take(command, "mode", kMaxAddressText, network) &&
                      TakeEach(command, "interface", takeInterface);
    if (!good) {
        return Errno::Input;
    }
    reply["mode"] = "relay";
    return ErrnoOf(store_.devices.SetNetwork(batch.device->key, ToLine(network)));
}

Errno Control::UpdateServices(const Json::Value& command, Batch& batch, Json::Value&) {
    std::vector<ServiceRecord> present;
    std::vector<std::string> removed;
    std::vector<std::string> gone;
    const auto addService = [&present](const Json::Value& element) {
        ServiceRecord service;
        const bool good = TakeService(element, service);
        present.push_back(std::move(service));
        return good;
    };
    const auto addRemoved = [&removed](const Json::Value& element) {
        removed.emplace_back();
        return TakeText(element, "id", removed.back()) && IsServiceId(removed.back());
    };
    // Even when the list is refused, the device has named its services: nothing is dropped then.
    batch.owesServices = false;
    if (!TakeEach(command, "service_rm", addRemoved) ||
        !TakeEach(command, "service_update", addService) ||
        !TakeEach(command, "service_add", addService)) {
        return Errno::Input;
    }
    const StoreResult result = store_.services.Update(batch.device->key, present, removed, gone);
    if (result == StoreResult::Done) {
        ServicesChanged(batch.device->key, gone);
    }
    return ErrnoOf(result);
}

Errno Control::Wait(const Json::Value& command, Batch& batch, Json::Value& reply) {
    FinishRegistration(batch);
    int seen = 0;
    const bool good = command["serverID"].isString() &&
                      TakeInt(command, "revision", 0, 0x7fffffff, seen) &&
                      TakeEach(command, "tunnels", [](const Json::Value& element) {
                          std::string text;
                          return TakeText(element, "id", text) && TakeText(element, "status", text);
                      });
    if (!good) {
        return Errno::Input;
    }
    if (command["serverID"].asString() != batch.device->serverId) {
        return Errno::Auth;
    }
    // Only a batch's last command is held: otherwise the replies to those behind it would wait too.
    int revision = 0;
    return waiters_.Wait(batch.device->key, seen, batch.isLast, revision)
               ? ListTunnels(batch, revision, reply)
               : Errno::Unknown;
}

Errno Control::ListTunnels(const Batch& batch, int revision, Json::Value& reply) {
    std::vector<TunnelRecord> tunnels;
    const StoreResult result = store_.services.ListTunnels(batch.device->key, tunnels);
    std::string host = relayHost_.empty() ? batch.origin.host : relayHost_;
    if (host.front() == '[') { // brackets belong to URLs only
        host = host.substr(1, host.size() - 2);
    }
    reply["revision"] = revision;
    Json::Value& list = reply["tunnels"] = Json::Value(Json::arrayValue);
    for (const TunnelRecord& tunnel : tunnels) {
        Json::Value entry(Json::objectValue);
        entry["id"] = tunnel.id;
        entry["port"] = tunnel.port;
        entry["relay_ip"] = host;
        entry["relay_port"] = tunnel.relayPort;
        entry["relay_user"] = tunnel.user;
        entry["relay_pass"] = tunnel.password;
        entry["relay_up"] = relay_.isUp(tunnel.relayPort);
        list.append(entry);
    }
    return ErrnoOf(result);
}

void Control::FinishRegistration(Batch& batch) {
    std::vector<std::string> gone;
    if (batch.owesServices &&
        store_.services.DropStale(batch.device->key, gone) == StoreResult::Done) {
        ServicesChanged(batch.device->key, gone);
    }
    batch.owesServices = false;
}

void Control::ServicesChanged(std::int64_t device, const std::vector<std::string>& gone) {
    relay_.close(gone);
    waiters_.ListChanged(device);
}

} // namespace ZARO::RelayHub
