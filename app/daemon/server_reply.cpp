#include "app/daemon/server_reply.h"

#include <algorithm>

#include "app/common/checks.h"
#include "base/json.h"
#include "base/names.h"
#include "base/text.h"

namespace ZARO::Relay::app {

namespace {

constexpr std::size_t kLongestPassword = 1024;
constexpr int kShortestRetry = 5; // seconds
constexpr int kLongestRetry = 60; // seconds

bool IsPassword(const std::string& password) {
    return !password.empty() && password.size() <= kLongestPassword &&
           std::none_of(password.begin(), password.end(),
                        [](char c) { return c == '\0' || c == '\n' || c == '\r'; });
}

/// Whether every member of a server that a reply names may become part of a URL.
bool IsServer(const Json::Value& server) {
    const auto fits = [&](const char* key, auto isGood) {
        const Json::Value* member = json::Find(server, key);
        return member == nullptr || isGood(*member);
    };
    const auto isHost = [](const Json::Value& host) {
        return host.isString() && (host.asString().empty() || IsUrlHost(host.asString()));
    };
    const auto isPage = [](const Json::Value& page) {
        return page.isString() && IsPagePath(page.asString());
    };
    const auto isPort = [](const Json::Value& port) {
        return port.isInt() && IsPort(port.asInt());
    };
    const auto isProtocol = [](const Json::Value& protocol) {
        return protocol == "http" || protocol == "https";
    };
    return server.isObject() && fits("host", isHost) && fits("ip", isHost) &&
           fits("page", isPage) && fits("port", isPort) && fits("protocol", isProtocol);
}

} // namespace

const Json::Value& AnswerOf(const Json::Value& reply) {
    return reply.isArray() ? reply[0U] : reply;
}

std::optional<seconds> RetryAfter(const Json::Value& answer) {
    std::int32_t wait = 0;
    if (!json::Get(answer, "retry_after", wait)) {
        return std::nullopt;
    }
    return seconds(std::clamp(wait, kShortestRetry, kLongestRetry));
}

bool CleanBatchReply(Json::Value& reply, bool& goodServer) {
    bool good = true;
    goodServer = true;
    if (!reply.isArray()) {
        return good;
    }
    for (Json::Value& answer : reply) {
        for (const char* key : {"serverID", "mode"}) {
            if (!IsPrintable(json::TextOf(answer, key))) {
                answer.removeMember(key);
                good = false;
            }
        }
        const Json::Value* server = json::Find(answer, "server_wait_cmd");
        if (server != nullptr && !IsServer(*server)) {
            answer.removeMember("server_wait_cmd");
            goodServer = false;
        }
    }
    return good;
}

bool CheckTunnel(const Json::Value& assigned, const std::list<ServiceConf>& services,
                 Json::Value& tunnel, std::string& why) {
    const std::string id = json::TextOf(assigned, "id");
    if (!IsServiceId(id)) {
        why = "bad service id [" + Printable(id) + "]";
        return false;
    }
    const auto service = std::find_if(services.begin(), services.end(), CmprServiceId(id));
    const std::string host = json::TextOf(assigned, "relay_ip");
    const std::string user = json::TextOf(assigned, "relay_user");
    if (service == services.end()) {
        why = "no such service";
    } else if (json::NumberOf(assigned, "port") != service->port || !IsPort(service->port)) {
        why = "not the service's port";
    } else if (!IsRelayHost(host)) {
        why = "bad relay host [" + Printable(host) + "]";
    } else if (!IsPort(json::NumberOf(assigned, "relay_port"))) {
        why = "bad relay port";
    } else if (!IsRelayUser(user)) {
        why = "bad relay user [" + Printable(user) + "]";
    } else if (!IsPassword(json::TextOf(assigned, "relay_pass"))) {
        why = "bad relay password";
    } else {
        tunnel = Json::Value(Json::objectValue);
        for (const char* key :
             {"id", "port", "relay_ip", "relay_port", "relay_user", "relay_pass"}) {
            tunnel[key] = assigned[key];
        }
        return true;
    }
    why = "service " + id + ": " + why;
    return false;
}

} // namespace ZARO::Relay::app
