#include "app/ctl/join.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <thread>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/device_state.h"
#include "app/ctl/hub_talk.h"
#include "app/ctl/hub_url.h"
#include "app/ctl/interrupts.h"
#include "app/ctl/join_record.h"
#include "app/ctl/launch.h"
#include "app/ctl/report.h"
#include "app/ctl/status.h"
#include "base/invitation_code.h"
#include "base/json.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

using app::Clock;
using app::seconds;

int TellInterrupted() {
    return Fail(kNoAnswer, "interrupted", "the device is as it was");
}

// --- before anything is asked or changed

/// The first line of standard input.
std::string ReadLine() {
    std::string line;
    (void)std::getline(std::cin, line); // an empty one is no code
    return line;
}

/// Reads what the device is; 0 when it can join.
int ReadDevice(RelaydConf& conf) {
    const ConfigChange change;
    const int code = change.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    conf = change.Found().conf;
    (void)conf.auth.ReadConf(); // else it is not valid
    return conf.auth.IsValid()
               ? kSuccess
               : Fail(kNoAnswer, "this device has no serial, token or hardware address",
                      "see: zarorelayctl check");
}

// --- the hub's answer

/// Asks until the hub has admitted the device, or for `patience`. Nothing on the device changes
/// meanwhile, so Ctrl-C may end the program here.
int AwaitAdmission(const HubOffer& offer, const Json::Value& command, seconds patience) {
    const auto deadline = Clock::now() + patience;
    const std::string admit =
        "zarorelay-hubctl admit " + Clean(json::TextOf(command["auth"], "serial"));
    bool told = false;
    for (;;) {
        Admission admission;
        const int code = AskToJoin(offer, command, told, admission);
        if (code != kSuccess || admission.admitted) {
            return code;
        }
        if (Clock::now() + admission.retryAfter > deadline) {
            return Fail(kLocked, "the hub has not admitted this device yet",
                        "its operator types: " + admit + "; then join again");
        }
        if (!told) {
            std::cout << "Waiting to be admitted. The hub's operator types: " << admit << std::endl;
            told = true;
        }
        std::this_thread::sleep_for(admission.retryAfter);
    }
}

// --- the change

int WriteConfig(const HubOffer& offer) {
    const ConfigChange change;
    const int code = change.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    Json::Value config = change.Found().document;
    Json::Value control;
    control["protocol"] = offer.control.protocol;
    control["host"] = offer.control.host;
    control["port"] = offer.control.port;
    json::Object(config)["server_control"] = control;
    if (!offer.aliasUrl.empty()) {
        json::Object(config["server_alias"])["url"] = offer.aliasUrl;
    }
    return change.Write(config);
}

int WriteFiles(const HubOffer& offer) {
    const int code = WriteConfig(offer);
    if (code != kSuccess) {
        return code;
    }
    if (offer.sshPort != 0 && !WriteSshPort(offer.sshPort)) {
        return Fail(kNoAnswer, SshConfigFile() + " can't be written: " + strerror(errno),
                    RootOr("see whether the disk is full or read-only"));
    }
    const RelaydConf conf(nullptr);
    if (!conf.GetEnableConf() && !conf.SetEnableConf(true)) {
        return Fail(kNoAnswer, paths::InfoFile() + " can't be changed",
                    RootOr("see whether it is there and can be written"));
    }
    return kSuccess;
}

int StartOrReload() {
    if (FindDaemon() == Presence::Running) {
        return Daemon::Hup();
    }
    const int code = LaunchDaemon();
    return code == 0 ? kSuccess
                     : Fail(kNoAnswer,
                            DaemonProgram() + " did not start (code " + std::to_string(code) + ")",
                            "see what it says: zarorelayctl start");
}

/// Why the daemon is not connected, in words.
std::string ReasonOf(const Status& status) {
    if (status.code != kSuccess) {
        return "it does not run any more";
    }
    const std::string error = status.document["error"].asString();
    return error != "success" ? ErrorWords(error) : "it takes more than 30 s";
}

int AwaitConnection(const HubOffer& offer, Interrupts& interrupts, std::string& id) {
    const auto deadline = Clock::now() + kPatience;
    const auto isTaken = [&](const Json::Value& config) {
        const Json::Value* control = json::Find(config, "server_control");
        return control != nullptr && ServerConf(*control) == offer.control;
    };
    const auto isUp = [](const Status& now) {
        return now.code != kSuccess || IsConnected(now.document["state"].asString());
    };
    // Until it has taken the change in, what the status says is about the former server.
    const bool taken = AwaitReload(isTaken, deadline, interrupts);
    const Status status = taken ? AwaitStatus("", isUp, deadline, interrupts) : ReadStatus("");
    if (interrupts.Wait(app::milliseconds(0))) {
        return TellInterrupted();
    }
    if (!taken || !IsConnected(status.document["state"].asString())) {
        return Fail(kNoAnswer,
                    "the daemon did not connect to " + offer.control.host + ": " + ReasonOf(status),
                    "the device is as it was; try again, or look at the daemon's log");
    }
    id = Clean(status.document["serverID"].asString());
    return kSuccess;
}

int ChangeDevice(const HubOffer& offer, Interrupts& interrupts, std::string& id) {
    int code = WriteFiles(offer);
    if (code == kSuccess) {
        code = interrupts.Wait(app::milliseconds(0)) ? TellInterrupted() : StartOrReload();
    }
    return code == kSuccess ? AwaitConnection(offer, interrupts, id) : code;
}

/// Changes the device, or leaves it as it was.
int PointAt(const HubUrl& url, const HubOffer& offer, JoinRecord& record) {
    Interrupts interrupts;
    DeviceState before;
    int code = before.Take();
    if (code == kSuccess) {
        code = record.Begin(before);
    }
    if (code != kSuccess) {
        return code;
    }
    std::string id;
    code = ChangeDevice(offer, interrupts, id);
    if (code == kSuccess) {
        code = record.Finish(url.Text());
    }
    if (code != kSuccess) {
        (void)record.Undo(); // it says what is left to do; the cause is what counts
        return code;
    }
    std::cout << "Connected to " << offer.control.host << " as " << id << "." << std::endl;
    return kSuccess;
}

} // namespace

int Join(const JoinOptions& options) {
    const auto url = ReadHubUrl(options.url);
    if (!url) {
        return Fail(kNoAnswer, "\"" + Clean(options.url) + "\" can't be a hub's address",
                    "expected http:// or https://, a host and perhaps a port, as in "
                    "https://relay.example.org:8443");
    }
    const std::string typed = options.code == "-" ? ReadLine() : options.code;
    const auto code = ReadInvitation(typed);
    if (!options.code.empty() && !code) {
        return Fail(kNoAnswer, "the code is mistyped",
                    "compare it with what the operator gave you: 12 letters and digits");
    }
    JoinRecord record;
    RelaydConf conf(nullptr);
    HubOffer offer;
    int result = CheckMayChange();
    if (result == kSuccess) {
        result = record.Open();
    }
    if (result == kSuccess) {
        result = ReadDevice(conf);
    }
    if (result == kSuccess) {
        result = AskWhatItIs(*url, offer);
    }
    if (result != kSuccess) {
        return result;
    }
    if (offer.control.protocol == "http") {
        Warn("the hub is spoken to by plain http, so others on the way can read the device's "
             "token; better join at its https address");
    }
    result = AwaitAdmission(offer, JoinCommand(conf, code.value_or("")), seconds(options.wait));
    return result == kSuccess ? PointAt(*url, offer, record) : result;
}

} // namespace ZARO::Relay::ctl
