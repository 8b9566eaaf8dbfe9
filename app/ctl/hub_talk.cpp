#include "app/ctl/hub_talk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <zarorelayd/register.h>
#include <zarorelayd/request.h>
#include <zarorelayd/result.h>

#include "app/common/checks.h"
#include "app/ctl/probe.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/names.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::milliseconds kPatience{4000};
constexpr int kProtocol = 1;
constexpr const char* kPage = "/.well-known/zarorelay";
constexpr int kShortestRetry = 5; // seconds
constexpr int kLongestRetry = 60; // seconds

// --- what is there

int TellUnreachable(const HubUrl& url, const ServerProbe& probe) {
    const NetworkConf network(true);
    const bool noWay = probe.reached == Stage::Nothing || probe.fault == strerror(ENETUNREACH);
    if (noWay && network.gateway.empty()) {
        return Fail(kNoAnswer, url.Text() + ": " + probe.fault + ", and this device has no gateway",
                    "connect it to a network");
    }
    switch (probe.reached) {
    case Stage::Nothing:
        return Fail(kNoAnswer, url.host + ": " + probe.fault,
                    "see whether the name is right and the device has a name server");
    case Stage::Name:
        return Fail(kNoAnswer, url.Text() + ": " + probe.fault,
                    "see whether host and port are right, the hub runs, and firewalls let it "
                    "through");
    default:
        return Fail(kNoAnswer, url.Text() + ": " + probe.fault,
                    "see whether that port speaks TLS (a hub's does at 8443) and its certificate "
                    "names the host");
    }
}

int TellNoHub(const std::string& page, const std::string& answer) {
    return Fail(kNoAnswer, page + " " + answer, "see whether host and port are those of a hub");
}

/// What became of a request that got no good answer, in words.
std::string WordsFor(Request& request) {
    if (request.GetCurlResult() != CURLE_OK) {
        return std::string("gave no answer: ") + curl_easy_strerror(request.GetCurlResult());
    }
    return "answered with status " + std::to_string(request.GetHttpStatus());
}

/// Takes the parts that become part of URLs and files; false if one of them must not.
bool TakeOffer(const Json::Value& document, HubOffer& offer) {
    static const Json::Value kNone;
    const auto part = [&](const char* key) -> const Json::Value& {
        const Json::Value* found = json::Find(document, key);
        return found != nullptr ? *found : kNone;
    };
    ServerConf& control = offer.control;
    control.protocol = json::TextOf(part("control"), "protocol");
    control.host = json::TextOf(part("control"), "host");
    if (IsAddress(control.host)) {
        control.host = ForUrl(control.host);
    }
    control.port = json::NumberOf(part("control"), "port");
    offer.sshPort = json::NumberOf(part("relay"), "ssh_port");
    const std::string alias = json::TextOf(part("alias"), "url");
    const auto url = ReadHubUrl(alias);
    offer.aliasUrl = url ? url->Text() : "";
    return control.IsValid() && app::IsUrlHost(control.host) && IsPort(control.port) &&
           (alias.empty() || url) && (offer.sshPort == 0 || IsPort(offer.sshPort));
}

// --- whether it lets the device in

int TellRefused(const std::string& reason, const std::string& serial) {
    const std::string askAgain = "ask the hub's operator for a new one: zarorelay-hubctl invite";
    const struct {
        const char* reason;
        std::string what, remedy;
    } kReasons[] = {
        {"code_unknown", "the hub does not know this code",
         "compare it with what the operator gave you, or " + askAgain},
        {"code_expired", "this code has expired", askAgain},
        {"code_used", "this code is used up", askAgain},
        {"token", "the hub knows the serial " + serial + " with other credentials",
         "if this device was reset, the operator removes the old one: zarorelay-hubctl forget " +
             serial},
        {"server_id", "another device of this hub has this one's server id",
         "see whether two devices have one hardware address; the operator finds the other one "
         "with: zarorelay-hubctl devices"},
        {"banned", "the hub's operator has banned this device",
         "the operator lifts that with: zarorelay-hubctl admit " + serial}};
    for (const auto& each : kReasons) {
        if (reason == each.reason) {
            return Fail(kNoAnswer, each.what, each.remedy);
        }
    }
    return Fail(kNoAnswer, "the hub refused this device: " + Clean(reason),
                "ask the hub's operator");
}

app::seconds RetryAfterOf(const Json::Value& answer) {
    return app::seconds(
        std::clamp(json::NumberOf(answer, "retry_after"), kShortestRetry, kLongestRetry));
}

int TellBusy(RELAYSERVER_ERR error, const Json::Value& answer) {
    const int wait = std::max(1, json::NumberOf(answer, "retry_after"));
    return Fail(kLocked,
                error == RELAYSERVER_ERR_SERVER_LIMIT ? "the hub has had too many tries for now"
                                                      : "the hub can't answer for now",
                "try again in " + Duration(wait));
}

int TakeAnswer(const Json::Value& answer, const std::string& serial, bool patient,
               Admission& admission) {
    const RELAYSERVER_ERR error = ParseServerError(answer);
    const std::string state = json::TextOf(answer, "state");
    const bool busy = error == RELAYSERVER_ERR_SERVER_LIMIT ||
                      json::NumberOf(answer, "errno") == RELAYSERVER_ERR_UNKNOWN;
    if (error == RELAYSERVER_ERR_SUCCESS && state == "admitted") {
        admission.admitted = true;
        return kSuccess;
    }
    if ((error == RELAYSERVER_ERR_AUTH && state == "pending") || (busy && patient)) {
        admission.retryAfter = RetryAfterOf(answer);
        return kSuccess;
    }
    if (error == RELAYSERVER_ERR_AUTH && state == "refused") {
        return TellRefused(json::TextOf(answer, "reason"), serial);
    }
    if (busy) {
        return TellBusy(error, answer);
    }
    return Fail(kNoAnswer, "the hub's answer was no good: " + GetServerErrorStr(error),
                "see whether zarorelayd is as new as the hub");
}

} // namespace

int AskWhatItIs(const HubUrl& url, HubOffer& offer) {
    std::vector<ServerProbe> probes(1);
    probes[0].url = url.Text() + "/";
    RunProbes(probes, kPatience);
    if (!probes[0].fault.empty()) {
        return TellUnreachable(url, probes[0]);
    }
    const std::string page = url.Text() + kPage;
    Request request(page.c_str(), nullptr, true); // without data a GET
    if (!request.Send()) {
        return TellNoHub(page, WordsFor(request));
    }
    Json::Value document;
    if (!json::Parse(request.GetResponse(), document, json::Grammar::Strict) ||
        json::TextOf(document, "hub") != "zarorelay") {
        return TellNoHub(page, "is not the page of a hub");
    }
    if (json::NumberOf(document, "protocol") != kProtocol) {
        return Fail(kNoAnswer, "the hub is of another generation than this zarorelayctl",
                    "update the older one of both");
    }
    return TakeOffer(document, offer) ? kSuccess
                                      : Fail(kNoAnswer, page + " names servers that can't be right",
                                             "ask the hub's operator to look at its --host option");
}

Json::Value JoinCommand(const RelaydConf& conf, const std::string& code) {
    Json::Value command;
    (void)Register().GetReigsterCommand(conf, command); // true in every case
    command["command"] = "join";
    if (!code.empty()) {
        command["code"] = code;
    }
    return command;
}

int AskToJoin(const HubOffer& offer, const Json::Value& command, bool patient,
              Admission& admission) {
    Json::Value batch(Json::arrayValue);
    batch.append(command);
    const std::string page = offer.control.GetUrl(nullptr);
    Request request(page, batch, true);
    if (!request.Send()) {
        admission.retryAfter = app::seconds(kShortestRetry);
        return patient ? kSuccess
                       : Fail(kNoAnswer, page + " " + WordsFor(request), "try again in a moment");
    }
    Json::Value reply;
    if (!json::Parse(request.GetResponse(), reply, json::Grammar::Strict) || !reply.isArray() ||
        reply.empty()) {
        return TellNoHub(page, "does not answer as a hub does");
    }
    return TakeAnswer(reply[0U], json::TextOf(command["auth"], "serial"), patient, admission);
}

} // namespace ZARO::Relay::ctl
