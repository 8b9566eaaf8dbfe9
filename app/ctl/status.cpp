#include "app/ctl/status.h"

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <map>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "app/ctl/watch.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

/// A daemon has a few services; a file with more was not written by one.
constexpr Json::ArrayIndex kMostServices = 1000;

/// The server reports only after a while that the relay's port answers, so a younger tunnel without
/// that report is no fault.
constexpr std::int64_t kYoung = 15; // seconds

/// A daemon refreshes the status file more often than that.
constexpr std::int64_t kStale = 150; // seconds

Json::Value MemberOf(const Json::Value& object, const char* key) {
    const Json::Value* member = json::Find(object, key);
    return member != nullptr ? *member : Json::Value();
}

Json::Value TimeMember(const Json::Value& object) {
    const Json::Value time = MemberOf(object, "since");
    return time.isInt64() && time.asInt64() > 0 ? Json::Value(time.asInt64()) : Json::Value();
}

Json::Value TakeTunnel(const Json::Value& from) {
    if (!from.isObject()) {
        return Json::Value();
    }
    Json::Value tunnel;
    tunnel["status"] = json::TextOf(from, "status");
    tunnel["relay_ip"] = json::TextOf(from, "relay_ip");
    tunnel["relay_port"] = json::NumberOf(from, "relay_port");
    tunnel["since"] = TimeMember(from);
    tunnel["restarts"] = json::NumberOf(from, "restarts");
    return tunnel;
}

Json::Value TakeServices(const Json::Value& list, const std::string& wanted) {
    Json::Value services(Json::arrayValue);
    for (Json::ArrayIndex i = 0; list.isArray() && i < list.size() && i < kMostServices; ++i) {
        const std::string id = json::TextOf(list[i], "id");
        if (!list[i].isObject() || (!wanted.empty() && id != wanted)) {
            continue;
        }
        Json::Value& service = services.append(Json::Value());
        service["id"] = id;
        service["name"] = json::TextOf(list[i], "name");
        service["port"] = json::NumberOf(list[i], "port");
        service["up"] = MemberOf(list[i], "up") == Json::Value(true);
        service["local"] = json::TextOf(list[i], "local");
        service["tunnel"] = TakeTunnel(MemberOf(list[i], "tunnel"));
    }
    return services;
}

/// Whether the daemon belongs to another user. The library can't send it signal 0 and takes it for
/// dead.
bool IsOthers(const Json::Value& file) {
    const int pid = json::NumberOf(file, "pid");
    return pid > 0 && kill(pid, 0) != 0 && errno == EPERM;
}

// --- words

std::string StateWords(const std::string& state) {
    static const std::map<std::string, std::string> kWords = {
        {"not_running", "not running"}, {"login", "logging in"},
        {"logout", "stopping"},         {"stoped", "switched off"},
        {"unknown", "not known"},       {"direct_connect", "connected directly"}};
    const auto words = kWords.find(state);
    return words != kWords.end() ? words->second : state;
}

Tone StateTone(const std::string& state) {
    if (IsConnected(state)) {
        return Tone::Good;
    }
    return state == "error" || state == "not_running" || state == "unknown" ? Tone::Bad
                                                                            : Tone::Warning;
}

std::string Age(const Json::Value& since, std::int64_t now) {
    return since.isInt64() ? Duration(now > since.asInt64() ? now - since.asInt64() : 0) : "";
}

Cell TunnelCell(const Json::Value& service, const std::string& state, std::int64_t now) {
    if (state == "stoped") {
        return {"switched off", Tone::Faint};
    }
    const Json::Value& tunnel = service["tunnel"];
    if (!tunnel.isObject()) {
        return {"waiting for the server", Tone::Warning};
    }
    const std::string status = tunnel["status"].asString();
    const std::string age = Age(tunnel["since"], now);
    if (service["up"].asBool()) {
        return {age.empty() ? "up" : "up for " + age, Tone::Good};
    }
    if (status == "TUNNEL_STATUS_READY") {
        const bool young = tunnel["since"].isInt64() && now - tunnel["since"].asInt64() < kYoung;
        return young ? Cell{"up, to be confirmed", Tone::Warning}
                     : Cell{"up, but the relay does not answer", Tone::Bad};
    }
    if (status == "TUNNEL_STATUS_NONE") {
        return {"being built", Tone::Warning};
    }
    const std::string ago = age.empty() ? "" : " " + age + " ago";
    return status == "TUNNEL_STATUS_CLOSE" ? Cell{"lost" + ago + ", being rebuilt", Tone::Bad}
                                           : Cell{"failed" + ago + ", trying on", Tone::Bad};
}

Cell LocalCell(const std::string& local) {
    if (local == "reachable") {
        return {"reachable", Tone::Good};
    }
    return local == "refused" ? Cell{"does not answer", Tone::Bad} : Cell{"not known", Tone::Faint};
}

std::string Address(const Json::Value& tunnel) {
    const int port = json::NumberOf(tunnel, "relay_port");
    return IsPort(port) ? HostAndPort(Clean(tunnel["relay_ip"].asString()), port) : "-";
}

std::string RenderServices(const Json::Value& document, std::int64_t now, bool colour) {
    const std::string state = document["state"].asString();
    std::vector<std::vector<Cell>> rows(1);
    for (const char* title : {"SERVICE", "NAME", "PORT", "OPEN AT", "TUNNEL", "RESTARTS", "HERE"}) {
        rows[0].push_back({title, Tone::Faint});
    }
    for (const Json::Value& service : document["service"]) {
        const Json::Value& tunnel = service["tunnel"];
        const bool up = service["up"].asBool();
        rows.push_back({{Clean(service["id"].asString())},
                        {Clean(service["name"].asString(), 32)},
                        {service["port"].asString()},
                        {Address(tunnel), up ? Tone::Plain : Tone::Faint},
                        TunnelCell(service, state, now),
                        {tunnel.isObject() ? tunnel["restarts"].asString() : "-"},
                        LocalCell(service["local"].asString())});
    }
    return Layout(rows, colour);
}

std::string AliasWords(const Json::Value& alias) {
    const std::string name = Clean(alias["name"].asString());
    const std::string status = Clean(alias["status"].asString());
    const std::string extra = Clean(alias["extra"].asString());
    if (name.empty()) {
        return "none";
    }
    return name + " (" + (status.empty() ? "not known yet" : status) +
           (extra.empty() ? "" : ", " + extra) + ")";
}

/// Warns about an old file: a daemon that can write its status touches the file every minute.
int TellAge() {
    const std::string path = paths::StatusFile();
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || time(nullptr) - info.st_mtime <= kStale) {
        return kSuccess;
    }
    return Fail(kUnusable, path + " is as it was on " + DateAndTime(info.st_mtime),
                "see whether the disk is full, or the daemon hangs");
}

int TellFault(const Status& status) {
    switch (status.code) {
    case kNotRunning:
        if (status.document["running"].asBool()) {
            return Fail(status.code, "the daemon does not publish that service",
                        "see: zarorelayctl service list");
        }
        return TellAbsent(Presence::None, status.code);
    case kNoAnswer:
        return TellAbsent(Presence::NotPermitted, status.code);
    case kUnusable:
        return Fail(status.code, paths::StatusFile() + " is unusable",
                    "make a new one with: zarorelayctl restart");
    default:
        return TellAge();
    }
}

} // namespace

bool IsConnected(const std::string& state) {
    return state == "connected" || state == "direct_connect";
}

std::string ErrorWords(const std::string& error) {
    static const std::map<std::string, std::string> kWords = {
        {"err_config", "the configuration is not usable"},
        {"err_register", "the server refused the registration"},
        {"err_network", "the server can't be reached"},
        {"err_resolv", "the server's name can't be looked up"},
        {"err_auth", "the server does not admit this device, or refuses its credentials"},
        {"err_not_support", "the server does not support this device"},
        {"err_server_busy", "the server is busy"},
        {"err_server_limit", "the server is full"},
        {"err_server_changed", "the server has moved"},
        {"err_server_ip_changed", "the server's address has changed"},
        {"err_unknown", "the server's reply was no good"}};
    const auto words = kWords.find(error);
    return words != kWords.end() ? words->second : error;
}

std::string AdmissionRemedy() {
    const std::string serial = Clean(AuthConf(true).serial); // empty for users who may not read it
    return "the hub's operator may have to type: zarorelay-hubctl admit " +
           (serial.empty() ? "SERIAL (root sees the serial here)" : serial);
}

Status ReadStatus(const std::string& serviceId) {
    Status status;
    Json::Value file;
    status.code = Daemon::GetStatus(file);
    std::string serverId;
    std::string state;
    std::string error;
    const bool others = status.code == kNotRunning && IsOthers(file);
    const char* id = serviceId.empty() ? nullptr : serviceId.c_str();
    if (!Daemon::GetStatus(serverId, state, error, id)) {
        status.code = kUnusable;
    } else if (others) {
        status.code = kNoAnswer;
    }
    bool running = status.code == kSuccess;
    if (running && state == "not_running") {
        status.code = kNotRunning;
        running = id != nullptr; // it may run without publishing that service
    }
    const bool known = status.code == kSuccess || status.code == kNotRunning;
    Json::Value& out = status.document;
    out["running"] = known ? Json::Value(running) : Json::Value();
    out["pid"] = running ? Json::Value(json::NumberOf(file, "pid")) : Json::Value();
    out["state"] = known ? state : "unknown";
    out["error"] = known ? error : "success";
    out["serverID"] = known ? serverId : "";
    out["since"] = status.code == kSuccess ? TimeMember(file) : Json::Value();
    out["version"] = running ? json::TextOf(file, "version") : "";
    const Json::Value alias = running ? MemberOf(file, "alias") : Json::Value();
    for (const char* key : {"name", "status", "extra"}) {
        out["alias"][key] = json::TextOf(alias, key);
    }
    out["service"] = TakeServices(running ? MemberOf(file, "service") : Json::Value(), serviceId);
    return status;
}

std::string RenderStatus(const Json::Value& document, std::int64_t now, bool colour) {
    const std::string state = document["state"].asString();
    const std::string error = document["error"].asString();
    std::vector<std::vector<Cell>> rows = {
        {{"State", Tone::Faint}, {StateWords(state), StateTone(state)}}};
    const auto add = [&](const char* label, const std::string& text, Tone tone = Tone::Plain) {
        rows.push_back({{label, Tone::Faint}, {text, tone}});
    };
    if (error != "success") {
        add("Error", ErrorWords(error) + " (" + error + ")", Tone::Bad);
    }
    if (error == "err_auth") {
        add("Remedy", AdmissionRemedy());
    }
    if (document["since"].isInt64()) {
        add("Since",
            DateAndTime(document["since"].asInt64()) + " (" + Age(document["since"], now) + ")");
    }
    const std::string id = Clean(document["serverID"].asString());
    add("Server id", id.empty() ? "none yet" : id);
    if (state == "not_running" || state == "unknown") {
        return Layout(rows, colour);
    }
    add("Alias", AliasWords(document["alias"]));
    const std::string top = Layout(rows, colour);
    return document["service"].empty() ? top + "\nno service is published\n"
                                       : top + "\n" + RenderServices(document, now, colour);
}

int ShowStatus(const StatusOptions& options) {
    if (options.watch) {
        return Watch(options);
    }
    const Status status = ReadStatus(options.service);
    std::cout << (options.json ? json::Pretty(status.document)
                               : RenderStatus(status.document, time(nullptr), WantsColour()))
              << std::flush;
    return TellFault(status);
}

} // namespace ZARO::Relay::ctl
