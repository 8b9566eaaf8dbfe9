#include "hub/control.h"

#include <exception>
#include <utility>

#include "base/json.h"
#include "hub/log.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

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

Json::Value Failure(Errno error) {
    Json::Value reply(Json::objectValue);
    reply["errno"] = static_cast<int>(error);
    return reply;
}

/// An IPv6 address without its brackets, which belong to URLs only.
std::string WithoutBrackets(const std::string& host) {
    return host.front() == '[' ? host.substr(1, host.size() - 2) : host;
}

} // namespace

Waiters::Ticket Control::Answer(const std::string& body, Origin origin, std::string session,
                                Finish finish) {
    const auto batch =
        std::make_shared<Batch>(Batch{std::move(origin), std::move(session), std::move(finish)});
    try {
        return AnswerArray(body, batch);
    } catch (const std::exception& fault) {
        Fail(*batch, fault);
        return {};
    }
}

void Control::Fail(const Batch& batch, const std::exception& fault) {
    Log(Level::Error, "control", "a batch failed: %s", fault.what());
    Json::Value whole(Json::arrayValue);
    whole.append(Failure(Errno::Unknown));
    batch.finish(json::Compact(whole), batch.session);
}

Waiters::Ticket Control::AnswerArray(const std::string& body, const std::shared_ptr<Batch>& batch) {
    Json::Value commands;
    if (!ParseBatch(body, commands)) {
        batch->replies.append(Failure(Errno::Input));
        batch->finish(json::Compact(batch->replies), batch->session);
        return {};
    }
    FindDevice(*batch);
    batch->count = commands.size();
    for (const Json::Value& command : commands) {
        Json::Value reply(Json::objectValue);
        const Errno error = Execute(command, *batch, reply);
        if (!batch->heldWith) {
            AddReply(*batch, error, std::move(reply));
        }
    }
    FinishRegistration(*batch);
    if (batch->heldWith) {
        return waiters_.Hold(
            batch->device->key, *batch->heldWith,
            [this, batch](std::optional<int> revision) { return FinishWait(*batch, revision); });
    }
    batch->finish(json::Compact(batch->replies), batch->session);
    return {};
}

void Control::FindDevice(Batch& batch) {
    if (batch.session.empty()) {
        return;
    }
    const std::string session = Sha256(batch.session);
    batch.device = sessions_.Find(session);
    if (batch.device) {
        return;
    }
    Device device;
    const unsigned state = sessions_.State();
    const StoreResult found = store_.devices.FindSession(session, device);
    if (found == StoreResult::Done) {
        batch.device = device;
        sessions_.Add(session, device, state);
    }
    batch.storeFailed = found == StoreResult::Fault;
}

void Control::AddReply(Batch& batch, Errno error, Json::Value reply) {
    Log(Level::Debug, "control", "%s: command %u of %u: errno %d",
        batch.device ? batch.device->serverId.c_str() : "stranger", batch.replies.size() + 1,
        batch.count, static_cast<int>(error));
    reply["errno"] = static_cast<int>(error);
    batch.replies.append(std::move(reply));
}

Errno Control::Execute(const Json::Value& command, Batch& batch, Json::Value& reply) {
    using Handler = Errno (Control::*)(const Json::Value&, Batch&, Json::Value&);
    static const struct {
        const char* name;
        Handler handler;
        bool needsSession;
    } kCommands[] = {{"register", &Control::Register, false},
                     {"join", &Control::Join, false},
                     {"update_network", &Control::UpdateNetwork, true},
                     {"update_service", &Control::UpdateServices, true},
                     {"wait_command", &Control::Wait, true}};
    if (!command.isObject() || !command["command"].isString() || !command["version"].isInt()) {
        return Errno::Input;
    }
    if (command["version"].asInt() != 1) {
        return Errno::Version;
    }
    const std::string name = command["command"].asString();
    for (const auto& known : kCommands) {
        if (name == known.name) {
            if (!batch.device && known.needsSession) {
                return batch.storeFailed ? Errno::Unknown : Errno::NoSession;
            }
            return (this->*known.handler)(command, batch, reply);
        }
    }
    return Errno::NoSuchCommand;
}

Errno Control::Register(const Json::Value& command, Batch& batch, Json::Value& reply) {
    Identity identity;
    if (batch.hasRegistered || !TakeIdentity(command, identity)) {
        return Errno::Input;
    }
    Device device;
    std::string session = RandomText(43); // 256 bits
    const StoreResult result = store_.devices.Register(identity, Sha256(session), device);
    if (result == StoreResult::NotFound) {
        return admission_.Register(identity, batch.origin, reply);
    }
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
    sessions_.Renew(Sha256(session), device);
    batch.session = std::move(session);
    reply["serverID"] = device.serverId;
    Json::Value& wait = reply["server_wait_cmd"];
    wait["protocol"] = batch.origin.scheme;
    wait["host"] = batch.origin.host;
    wait["port"] = batch.origin.port;
    wait["page"] = "Serv.php";
    return Errno::Good;
}

Errno Control::Join(const Json::Value& command, Batch& batch, Json::Value& reply) {
    Identity identity;
    std::string code;
    if (!TakeIdentity(command, identity) || !TakeCode(command, code)) {
        return Errno::Input;
    }
    return admission_.Join(identity, code, batch.origin, reply);
}

Errno Control::UpdateNetwork(const Json::Value& command, Batch& batch, Json::Value& reply) {
    Json::Value network;
    if (!TakeNetwork(command, network)) {
        return Errno::Input;
    }
    const Errno error =
        Settle(batch, store_.devices.SetNetwork(batch.device->key, json::Compact(network)));
    if (error == Errno::Good) {
        reply["mode"] = "relay";
    }
    return error;
}

Errno Control::UpdateServices(const Json::Value& command, Batch& batch, Json::Value&) {
    std::vector<ServiceRecord> present;
    std::vector<std::string> removed;
    std::vector<TunnelKey> touched;
    // Even when the list is refused, the device has named its services: nothing is dropped then.
    batch.owesServices = false;
    if (!TakeServices(command, present, removed)) {
        return Errno::Input;
    }
    const StoreResult result = store_.services.Update(batch.device->key, present, removed, touched);
    if (result == StoreResult::Done) {
        ServicesChanged(batch.device->key, touched);
    }
    return Settle(batch, result);
}

Errno Control::Wait(const Json::Value& command, Batch& batch, Json::Value& reply) {
    FinishRegistration(batch);
    std::string serverId;
    int seen = 0;
    if (!TakeWait(command, serverId, seen)) {
        return Errno::Input;
    }
    if (serverId != batch.device->serverId) {
        return Errno::Auth;
    }
    // Only a batch's last command is held: otherwise the replies to those behind it would wait too.
    if (batch.replies.size() + 1 == batch.count) {
        batch.heldWith = seen;
        return Errno::Good;
    }
    int revision = 0;
    const StoreResult result = store_.services.Revision(batch.device->key, revision);
    return result == StoreResult::Done ? ListTunnels(batch, revision, reply)
                                       : Settle(batch, result);
}

bool Control::FinishWait(Batch& batch, std::optional<int> revision) noexcept {
    try {
        Json::Value reply(Json::objectValue);
        const Errno error =
            revision ? ListTunnels(batch, *revision, reply) : RepeatList(batch, reply);
        if (revision && error == Errno::Unknown) {
            return false;
        }
        AddReply(batch, error, std::move(reply));
        batch.finish(json::Compact(batch.replies), batch.session);
    } catch (const std::exception& fault) {
        Fail(batch, fault);
    }
    return true;
}

Errno Control::Settle(const Batch& batch, StoreResult result) {
    if (result == StoreResult::NotFound) {
        sessions_.Forget(batch.device->key);
    }
    return ErrnoOf(result);
}

Errno Control::ListTunnels(const Batch& batch, int revision, Json::Value& reply) {
    std::vector<TunnelRecord> tunnels;
    const StoreResult result = store_.services.ListTunnels(batch.device->key, tunnels);
    if (result == StoreResult::Done) {
        told_.Note(batch.device->key, revision, tunnels);
        Describe(batch, revision, tunnels, reply);
    }
    return Settle(batch, result);
}

Errno Control::RepeatList(const Batch& batch, Json::Value& reply) {
    const int revision = batch.heldWith.value_or(0);
    const auto tunnels = told_.Find(batch.device->key, revision);
    if (!tunnels) {
        return Errno::Unknown;
    }
    Describe(batch, revision, *tunnels, reply);
    return Errno::Good;
}

void Control::Describe(const Batch& batch, int revision, const std::vector<TunnelRecord>& tunnels,
                       Json::Value& reply) const {
    const std::string host = WithoutBrackets(relayHost_.empty() ? batch.origin.host : relayHost_);
    reply["revision"] = revision;
    Json::Value& list = reply["tunnels"] = Json::Value(Json::arrayValue);
    for (const TunnelRecord& tunnel : tunnels) {
        Json::Value entry(Json::objectValue);
        entry["id"] = tunnel.id;
        entry["port"] = tunnel.port;
        entry["relay_ip"] = tunnel.relayHost.empty() ? host : tunnel.relayHost;
        entry["relay_port"] = tunnel.relayPort;
        entry["relay_user"] = tunnel.user;
        entry["relay_pass"] = tunnel.password;
        entry["relay_up"] = relay_.isUp(tunnel);
        list.append(std::move(entry));
    }
    const int spread = spread_ ? spread_() : 0;
    if (spread > 0) {
        reply["spread"] = spread;
    }
}

void Control::FinishRegistration(Batch& batch) {
    std::vector<TunnelKey> touched;
    if (batch.owesServices &&
        store_.services.DropStale(batch.device->key, touched) == StoreResult::Done) {
        ServicesChanged(batch.device->key, touched);
    }
    batch.owesServices = false;
}

void Control::ServicesChanged(std::int64_t device, const std::vector<TunnelKey>& touched) {
    relay_.changed({{device}, touched});
}

} // namespace ZARO::RelayHub
