#include "app/ctl/publish.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/common/local_service.h"
#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/definition.h"
#include "app/ctl/interrupts.h"
#include "app/ctl/launch.h"
#include "app/ctl/report.h"
#include "app/ctl/service_list.h"
#include "app/ctl/status.h"
#include "base/ascii.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr std::size_t kLongestPort = 5; // digits

/// What is to be published.
struct Plan {
    std::string id;
    int port = 0;
    bool defines = false; ///< the definition is to be written first
    bool isNew = false;   ///< there was none
};

/// The port that a text of digits means: -1 for a text with other characters, 0 for no port.
int PortIn(const std::string& text) {
    if (text.empty() || !std::all_of(text.begin(), text.end(), IsDigit)) {
        return -1;
    }
    const int port = text.size() <= kLongestPort ? std::stoi(text) : 0;
    return IsPort(port) ? port : 0;
}

int TellNoPort(const std::string& text) {
    return Fail(kNoAnswer, Clean(text) + " is no port", "expected 1 to 65535");
}

// --- before anything changes

/// Whether the platform reads a definition by that id, and no command takes the id for a port.
bool IsNewId(const std::string& id) {
    return IsServiceId(id) && IsAlphanumeric(id.front()) && PortIn(id) < 0;
}

int CheckOptions(const PublishOptions& options) {
    if (PortIn(options.target) == 0) {
        return TellNoPort(options.target);
    }
    if (!options.id.empty() && !IsNewId(options.id)) {
        return Fail(kNoAnswer, "\"" + Clean(options.id) + "\" can't be a service's id",
                    "expected 1 to 63 of letters, digits, \"_\", \"-\", \".\", beginning with a "
                    "letter or digit, not a number");
    }
    if (!options.title.empty() && !IsTitle(options.title)) {
        return Fail(kNoAnswer, "\"" + Clean(options.title) + "\" can't be a title",
                    "expected one line of at most 127 bytes without quotes");
    }
    return kSuccess;
}

/// 0 when there is a daemon that can publish something.
int CheckDaemon() {
    const Presence presence = FindDaemon();
    if (presence != Presence::Running) {
        return TellAbsent(presence, kNoAnswer);
    }
    const std::string state = ReadStatus("").document["state"].asString();
    if (state == "stoped") {
        return Fail(kNoAnswer, "the relay is switched off",
                    "join a hub with: zarorelayctl join URL [CODE], or: zarorelayctl enable");
    }
    Json::Value config;
    const int code = ReadConfig(config);
    if (code != kSuccess) {
        return code;
    }
    return IsConnected(state) || json::Find(config, "server_control") != nullptr
               ? kSuccess
               : Fail(kNoAnswer, "this device has not joined a hub",
                      "join one with: zarorelayctl join URL [CODE]");
}

/// For a service that is there. Its title can change only where Publish has written it.
int PlanKnown(const PublishOptions& options, const ServiceEntry& known, Plan& plan) {
    plan.port = known.conf.port;
    if (!options.id.empty() && options.id != plan.id) {
        return Fail(kNoAnswer,
                    "port " + std::to_string(plan.port) + " is the service \"" + Clean(plan.id) +
                        "\" already",
                    "leave --id out");
    }
    plan.defines = !options.title.empty() && options.title != known.conf.name;
    if (plan.defines && !IsOwnDefinition(plan.id)) {
        return Fail(kNoAnswer, "the service \"" + Clean(plan.id) + "\" has a title of its own",
                    "leave --title out, or change it in " + paths::ServicesDir());
    }
    return kSuccess;
}

int PlanNew(const PublishOptions& options, const ServiceEntries& entries, Plan& plan) {
    plan.defines = true;
    plan.isNew = true;
    plan.id = options.id.empty() ? IdFor(options.title, plan.port) : options.id;
    const auto isTaken = [&] {
        const auto known = entries.find(plan.id); // the configuration may set a port of its own
        return IsTaken(plan.id) || (known != entries.end() && IsPort(known->second.conf.port));
    };
    if (options.id.empty() && isTaken()) {
        plan.id += "-" + std::to_string(plan.port);
    }
    return !isTaken() ? kSuccess
                      : Fail(kNoAnswer, "there is another service \"" + Clean(plan.id) + "\"",
                             "choose another id with --id");
}

int MakePlan(const PublishOptions& options, const Json::Value& config, Plan& plan) {
    const ServiceEntries entries = ReadServices(config);
    plan.port = PortIn(options.target);
    plan.id = plan.port > 0 ? ServiceWithPort(entries, plan.port) : options.target;
    if (plan.port > 0 && plan.id.empty()) {
        return PlanNew(options, entries, plan);
    }
    const auto known = entries.find(plan.id);
    return known != entries.end() && IsPort(known->second.conf.port)
               ? PlanKnown(options, known->second, plan)
               : TellNoService(plan.id);
}

// --- the change

/// Writes definition and list under the lock of the configuration; both or neither.
int Write(const PublishOptions& options, Plan& plan) {
    const ConfigChange change;
    int code = change.CheckChangeable();
    if (code == kSuccess) {
        code = MakePlan(options, change.Found().document, plan);
    }
    if (code != kSuccess) {
        return code;
    }
    if (plan.defines && !WriteDefinition(plan.id, options.title, plan.port)) {
        return Fail(kNoAnswer,
                    "no definition can be written into " + paths::ServicesDir() + ": " +
                        strerror(errno),
                    RootOr("see whether the disk is full or read-only"));
    }
    bool changed = false;
    code = ChangeServiceList(change, plan.id, true, changed);
    if (code != kSuccess && plan.isNew) {
        (void)RemoveDefinition(plan.id); // unused, it does no harm
    }
    return code;
}

/// Why visitors can't open it, in words.
std::string ReasonOf(const Status& now) {
    const Json::Value& status = now.document;
    const std::string error = status["error"].asString();
    if (!status["running"].asBool()) {
        return "the daemon does not run any more";
    }
    if (error != "success") {
        return ErrorWords(error);
    }
    return status["service"].empty() || !status["service"][0U]["tunnel"].isObject()
               ? "the hub has assigned no tunnel"
               : "its tunnel is not up";
}

int TellAddress(const Plan& plan, const Status& status) {
    const Json::Value& services = status.document["service"];
    if (services.empty() || !services[0U]["up"].asBool()) {
        return Fail(kNotRunning,
                    Clean(plan.id) + " is published, but can't be opened yet: " + ReasonOf(status),
                    "see: zarorelayctl check");
    }
    const Json::Value& tunnel = services[0U]["tunnel"];
    const std::string name = Clean(services[0U]["name"].asString());
    std::cout << (name.empty() ? Clean(plan.id) : name) << " is open at http://"
              << HostAndPort(Clean(json::TextOf(tunnel, "relay_ip"), 255),
                             json::NumberOf(tunnel, "relay_port"))
              << "/" << std::endl;
    return kSuccess;
}

int AwaitVisitors(const Plan& plan, Interrupts& interrupts) {
    const auto deadline = app::Clock::now() + kPatience;
    const auto isTaken = [&](const Json::Value& config) {
        const ServiceEntries now = ReadPublished(config);
        return now.count(plan.id) != 0;
    };
    const auto isUp = [](const Status& now) {
        return now.code != kSuccess ||
               (!now.document["service"].empty() && now.document["service"][0U]["up"].asBool());
    };
    (void)AwaitReload(isTaken, deadline, interrupts); // else the status says what is wrong
    const Status status = AwaitStatus(plan.id, isUp, deadline, interrupts);
    return interrupts.Wait(app::milliseconds(0))
               ? Fail(kNoAnswer, Clean(plan.id) + " is published; whether it is open is not known",
                      "see: zarorelayctl status")
               : TellAddress(plan, status);
}

} // namespace

int Publish(const PublishOptions& options) {
    Interrupts interrupts;
    Plan plan;
    int code = CheckOptions(options);
    if (code == kSuccess) {
        code = CheckDaemon();
    }
    if (code == kSuccess) {
        code = Write(options, plan);
    }
    if (code == kSuccess) {
        code = Daemon::Hup();
    }
    if (code != kSuccess) {
        return code;
    }
    if (app::ProbeLocalPort(plan.port) != app::Reachable::Yes) {
        Warn("nothing answers on port " + std::to_string(plan.port) +
             " of this device; start that service");
    }
    return AwaitVisitors(plan, interrupts);
}

int Unpublish(const std::string& target) {
    const int port = PortIn(target);
    if (port == 0) {
        return TellNoPort(target);
    }
    const ConfigChange change;
    int code = change.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    const ServiceEntries entries = ReadServices(change.Found().document);
    const std::string id = port > 0 ? ServiceWithPort(entries, port) : target;
    if (entries.count(id) == 0) {
        return Fail(kNoAnswer, "no service \"" + Clean(target) + "\" is defined or published",
                    "see: zarorelayctl service list");
    }
    bool changed = false;
    code = ChangeServiceList(change, id, false, changed);
    if (code != kSuccess) {
        return code;
    }
    if (!RemoveDefinition(id)) {
        Warn("its definition in " + paths::ServicesDir() + " can't be removed: " + strerror(errno));
    }
    if (changed) {
        return Apply(Clean(id) + " is withdrawn");
    }
    std::cout << Clean(id) << " is not published" << std::endl;
    return kSuccess;
}

} // namespace ZARO::Relay::ctl
