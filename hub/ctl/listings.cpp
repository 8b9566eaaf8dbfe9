#include "hub/ctl/listings.h"

#include <cstdint>
#include <iostream>
#include <utility>
#include <vector>

#include <json/value.h>

#include "base/json.h"
#include "base/terminal.h"
#include "hub/ctl/ask.h"
#include "hub/ctl/report.h"

namespace ZARO::RelayHub::ctl {

namespace {

using Row = std::vector<Cell>;

constexpr int kMostPages = 10000; // a hub that never comes to an end is not one

std::int64_t Number(const Json::Value& object, const char* key) {
    const Json::Value* member = json::Find(object, key);
    return member != nullptr && member->isInt64() ? member->asInt64() : 0;
}

bool IsTrue(const Json::Value& object, const char* key) {
    const Json::Value* member = json::Find(object, key);
    return member != nullptr && member->isBool() && member->asBool();
}

std::string Text(const Json::Value& object, const char* key) {
    return Clean(json::TextOf(object, key));
}

/// A text, or "-" for an empty one, which no column may be.
std::string TextOrDash(const Json::Value& object, const char* key) {
    const std::string text = Text(object, key);
    return text.empty() ? "-" : text;
}

const Json::Value& Member(const Json::Value& object, const char* key) {
    static const Json::Value kNone;
    const Json::Value* member = json::Find(object, key);
    return member != nullptr ? *member : kNone;
}

/// "5 min ago", or "-" for a time that is not known.
std::string Ago(const Json::Value& object, const char* key, std::int64_t now) {
    const std::int64_t time = Number(object, key);
    return time == 0 ? "-" : Duration(now - time) + " ago";
}

std::string Part(std::int64_t part, std::int64_t all, const char* what) {
    return std::to_string(part) + " of " + std::to_string(all) + " " + what;
}

Tone ToneOf(std::int64_t part, std::int64_t all) {
    return part == all ? Tone::Good : part == 0 ? Tone::Bad : Tone::Warning;
}

Row Head(std::initializer_list<const char*> names) {
    Row row;
    for (const char* name : names) {
        row.push_back({name, Tone::Faint});
    }
    return row;
}

/// Prints the document that the hub answered, without what is said by the exit code.
int Print(Json::Value document) {
    document.removeMember("ok");
    std::cout << json::Pretty(document) << std::flush;
    return kSuccess;
}

int Print(const std::vector<Row>& rows) {
    std::cout << Layout(rows, WantsColour()) << std::flush;
    return kSuccess;
}

Json::Value RequestOf(const char* command) {
    Json::Value request;
    request["command"] = command;
    return request;
}

Cell StateCell(const Json::Value& device) {
    const std::string state = Text(device, "state");
    return {state, state == "admitted"  ? Tone::Good
                   : state == "pending" ? Tone::Warning
                                        : Tone::Bad};
}

Cell ServicesCell(const Json::Value& device) {
    const std::int64_t all = Number(device, "services");
    const std::int64_t up = Number(device, "up");
    return all == 0 ? Cell{"-"} : Cell{Part(up, all, "up"), ToneOf(up, all)};
}

/// When the device came last.
std::string LastCame(const Json::Value& device, std::int64_t now) {
    return Text(device, "state") == "pending" ? "asked " + Ago(device, "asked", now)
                                              : Ago(device, "registered", now);
}

Row DeviceRow(const Json::Value& device, std::int64_t now) {
    return {{TextOrDash(device, "serial")}, {TextOrDash(device, "serverID")},
            {TextOrDash(device, "alias")},  StateCell(device),
            ServicesCell(device),           {LastCame(device, now)},
            {TextOrDash(device, "from")}};
}

/// Appends all devices of one state to `all`, page by page.
int ReadDevices(const std::string& data, const std::string& state, Json::Value& all) {
    Json::Value request = RequestOf("devices");
    request["state"] = state;
    for (int page = 0; page < kMostPages; ++page) {
        Json::Value reply;
        const int result = Ask(data, request, reply);
        if (result != kSuccess) {
            return result;
        }
        all["now"] = Json::Value::Int64(Number(reply, "now"));
        const Json::Value& devices = Member(reply, "device");
        for (Json::ArrayIndex i = 0; devices.isArray() && i < devices.size(); ++i) {
            all["device"].append(devices[i]);
        }
        request["after"] = json::TextOf(reply, "next");
        if (request["after"] == "") {
            return kSuccess;
        }
    }
    return Fail(kUnusable, "the hub's list of devices has no end",
                "use the zarorelay-hubctl that belongs to the hub");
}

/// "203.0.113.7:20001", or the port alone where the relay has the name of the hub.
std::string OpenAt(const Json::Value& service) {
    const std::string host = Text(service, "host");
    const int port = json::NumberOf(service, "relay_port");
    return host.empty() ? "port " + std::to_string(port) : HostAndPort(host, port);
}

std::vector<Row> ServiceRows(const Json::Value& services) {
    std::vector<Row> rows = {Head({"SERVICE", "NAME", "PORT", "OPEN AT", "RELAY", "TUNNEL"})};
    for (Json::ArrayIndex i = 0; services.isArray() && i < services.size(); ++i) {
        const Json::Value& service = services[i];
        const bool up = IsTrue(service, "up");
        rows.push_back({{TextOrDash(service, "id")},
                        {TextOrDash(service, "name")},
                        {std::to_string(Number(service, "port"))},
                        {OpenAt(service)},
                        {TextOrDash(service, "relay")},
                        {up ? "up" : "down", up ? Tone::Good : Tone::Bad}});
    }
    return rows;
}

std::vector<Row> AskingRows(const Json::Value& asking, std::int64_t now) {
    std::vector<Row> rows = {Head({"ASKS FROM", "SERVER ID", "MAC", "FIRST", "LAST"})};
    for (Json::ArrayIndex i = 0; asking.isArray() && i < asking.size(); ++i) {
        rows.push_back({{TextOrDash(asking[i], "from")},
                        {TextOrDash(asking[i], "serverID")},
                        {TextOrDash(asking[i], "mac")},
                        {Ago(asking[i], "first_asked", now)},
                        {Ago(asking[i], "asked", now)}});
    }
    return rows;
}

void PrintDevice(const Json::Value& device, std::int64_t now) {
    std::vector<Row> rows;
    const auto add = [&rows](const char* label, const std::string& text, Tone tone = Tone::Plain) {
        rows.push_back({{label, Tone::Faint}, {text.empty() ? "-" : text, tone}});
    };
    add("Serial", Text(device, "serial"));
    add("State", StateCell(device).text, StateCell(device).tone);
    add("Server id", Text(device, "serverID"));
    add("Alias", Text(device, "alias"));
    add("MAC", Text(device, "mac"));
    add("Time zone", Text(device, "timezone"));
    add("Admitted", Ago(device, "admitted", now));
    add("Registered", Ago(device, "registered", now));
    (void)Print(rows);
    if (!Member(device, "service").empty()) {
        std::cout << "\n";
        (void)Print(ServiceRows(Member(device, "service")));
    }
    if (!Member(device, "asking").empty()) {
        std::cout << "\n";
        (void)Print(AskingRows(Member(device, "asking"), now));
    }
}

Cell RelayState(const Json::Value& relay, std::int64_t now) {
    const bool isDraining = Text(relay, "state") == "draining";
    if (IsTrue(relay, "alive")) {
        return isDraining ? Cell{"hands over", Tone::Warning} : Cell{"up", Tone::Good};
    }
    return {"gone for " + Duration(now - Number(relay, "seen")), Tone::Bad};
}

/// What the hub does with unknown devices.
std::string AdmissionWords(const std::string& admission) {
    if (admission.empty()) {
        return "as the control server was started; ask there";
    }
    return admission == "open" ? "open: every device is admitted"
                               : admission + ": an unknown device waits until you admit it";
}

} // namespace

int ShowStatus(const std::string& data, bool json) {
    Json::Value reply;
    const int result = Ask(data, RequestOf("status"), reply);
    if (result != kSuccess || json) {
        return result != kSuccess ? result : Print(reply);
    }
    std::vector<Row> rows;
    const auto add = [&rows](const char* label, const std::string& text, Tone tone = Tone::Plain) {
        rows.push_back({{label, Tone::Faint}, {text, tone}});
    };
    const auto part = [&](const char* label, const char* up, const char* all, const char* what) {
        const Tone tone = ToneOf(Number(reply, up), Number(reply, all));
        add(label, Part(Number(reply, up), Number(reply, all), what), tone);
    };
    const std::int64_t pending = Number(reply, "pending");
    add("Version", Text(reply, "version"));
    add("Database", Text(reply, "database"));
    add("Admission", AdmissionWords(Text(reply, "admission")));
    part("Devices", "devices_up", "devices", "up");
    add("Pending", std::to_string(pending), pending == 0 ? Tone::Plain : Tone::Warning);
    add("Banned", std::to_string(Number(reply, "banned")));
    add("Invitations", std::to_string(Number(reply, "invitations")));
    part("Services", "services_up", "services", "up");
    part("Relays", "relays_up", "relays", "up");
    return Print(rows);
}

int ListDevices(const std::string& data, const std::string& state, bool json) {
    Json::Value all;
    all["device"] = Json::Value(Json::arrayValue);
    for (const char* one : {"pending", "admitted", "banned"}) {
        const int result = state.empty() || state == one ? ReadDevices(data, one, all) : kSuccess;
        if (result != kSuccess) {
            return result;
        }
    }
    if (json) {
        return Print(all);
    }
    const std::int64_t now = Number(all, "now");
    std::vector<Row> rows = {
        Head({"SERIAL", "SERVER ID", "ALIAS", "STATE", "SERVICES", "REGISTERED", "FROM"})};
    for (const Json::Value& device : all["device"]) {
        rows.push_back(DeviceRow(device, now));
    }
    return Print(rows);
}

int ShowDevice(const std::string& data, const std::string& device, bool json) {
    Json::Value request = RequestOf("device");
    request["device"] = device;
    Json::Value reply;
    const int result = Ask(data, request, reply);
    if (result != kSuccess || json) {
        return result != kSuccess ? result : Print(reply);
    }
    PrintDevice(Member(reply, "device"), Number(reply, "now"));
    return kSuccess;
}

int ListRelays(const std::string& data, bool json) {
    Json::Value reply;
    const int result = Ask(data, RequestOf("relays"), reply);
    if (result != kSuccess || json) {
        return result != kSuccess ? result : Print(reply);
    }
    std::vector<Row> rows = {Head({"RELAY", "STATE", "TUNNELS", "PORTS", "HOST"})};
    const Json::Value& relays = Member(reply, "relay");
    for (Json::ArrayIndex i = 0; relays.isArray() && i < relays.size(); ++i) {
        const std::int64_t up = Number(relays[i], "up");
        const std::int64_t all = Number(relays[i], "tunnels");
        rows.push_back({{TextOrDash(relays[i], "name")},
                        RelayState(relays[i], Number(reply, "now")),
                        {all == 0 ? "-" : Part(up, all, "up"), ToneOf(up, all)},
                        {std::to_string(Number(relays[i], "first_port")) + "-" +
                         std::to_string(Number(relays[i], "last_port"))},
                        {TextOrDash(relays[i], "host")}});
    }
    return Print(rows);
}

} // namespace ZARO::RelayHub::ctl
