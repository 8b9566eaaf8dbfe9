#include "hub/command.h"

#include <cstddef>
#include <optional>

#include "base/invitation_code.h"
#include "base/json.h"
#include "base/names.h"
#include "hub/names.h"

namespace ZARO::RelayHub {

namespace {

constexpr Json::ArrayIndex kMaxCommands = 16;   // an honest batch has 3
constexpr Json::ArrayIndex kMaxElements = 1024; // of any array within a command
constexpr std::size_t kMaxText = 255;
constexpr std::size_t kMaxAddressText = 45;   // an IPv6 address at its longest
constexpr std::size_t kMaxInterfaceName = 15; // the kernel's own limit
constexpr Json::ArrayIndex kMaxInterfaces = 32;

/// Whether a document has far more values than any honest one. The parser needs a hundred bytes of
/// memory for a value that may be two bytes long.
bool HasManyValues(const std::string& text) {
    constexpr int kMaxValues = 8192; // 256 services take 1300
    int values = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted && c == '\\') {
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == ',' || c == '[' || c == '{')) {
            ++values;
        }
    }
    return values > kMaxValues;
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

/// Copies the text at `key` from one object to another, "" for none.
bool CopyText(const Json::Value& from, const char* key, std::size_t longest, Json::Value& to) {
    std::string text;
    const bool good = TakeText(from, key, text, longest);
    to[key] = text;
    return good;
}

bool CopyInterface(const Json::Value& from, Json::Value& to) {
    return CopyText(from, "name", kMaxInterfaceName, to) &&
           CopyText(from, "ip", kMaxAddressText, to) && CopyText(from, "mask", kMaxAddressText, to);
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

} // namespace

bool ParseBatch(const std::string& body, Json::Value& commands) {
    return !HasManyValues(body) && json::Parse(body, commands, json::Grammar::Strict) &&
           commands.isArray() && commands.size() <= kMaxCommands;
}

bool TakeIdentity(const Json::Value& command, Identity& identity) {
    const Json::Value& auth = command["auth"];
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

bool TakeCode(const Json::Value& command, std::string& code) {
    std::string typed;
    if (!TakeText(command, "code", typed)) {
        return false;
    }
    const std::optional<std::string> read = ReadInvitation(typed);
    code = read.value_or("");
    return read || typed.empty();
}

bool TakeNetwork(const Json::Value& command, Json::Value& network) {
    network = Json::Value(Json::objectValue);
    Json::Value& interfaces = network["interface"] = Json::Value(Json::arrayValue);
    const auto takeInterface = [&interfaces](const Json::Value& element) {
        Json::Value kept(Json::objectValue);
        const bool good = CopyInterface(element, kept);
        if (interfaces.size() < kMaxInterfaces) { // a container host may have any number
            interfaces.append(kept);
        }
        return good;
    };
    return CopyText(command, "gateway", kMaxAddressText, network) &&
           CopyText(command, "ddns", kMaxText, network) &&
           CopyText(command, "mode", kMaxAddressText, network) &&
           TakeEach(command, "interface", takeInterface);
}

bool TakeServices(const Json::Value& command, std::vector<ServiceRecord>& present,
                  std::vector<std::string>& removed) {
    const auto addService = [&present](const Json::Value& element) {
        return TakeService(element, present.emplace_back());
    };
    const auto addRemoved = [&removed](const Json::Value& element) {
        return TakeText(element, "id", removed.emplace_back()) && IsServiceId(removed.back());
    };
    return TakeEach(command, "service_rm", addRemoved) &&
           TakeEach(command, "service_update", addService) &&
           TakeEach(command, "service_add", addService);
}

bool TakeWait(const Json::Value& command, std::string& serverId, int& revision) {
    const auto takeTunnel = [](const Json::Value& element) { // checked, but not used
        std::string text;
        return TakeText(element, "id", text) && TakeText(element, "status", text);
    };
    if (!command["serverID"].isString() || !TakeInt(command, "revision", 0, 0x7fffffff, revision) ||
        !TakeEach(command, "tunnels", takeTunnel)) {
        return false;
    }
    serverId = command["serverID"].asString();
    return true;
}

} // namespace ZARO::RelayHub
