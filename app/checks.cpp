#include "app/checks.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "app/json_io.h"

namespace ZARO::Relay::app {

namespace {

constexpr std::size_t kLongestId = 63;
constexpr std::size_t kLongestHost = 253;
constexpr std::size_t kLongestUser = 255;
constexpr std::size_t kLongestPassword = 1024;
constexpr std::size_t kLongestQuote = 64;

bool IsLetterOrDigit(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 && static_cast<unsigned char>(c) < 128;
}

bool ConsistsOf(const std::string& text, const char* extra) {
    return std::all_of(text.begin(), text.end(), [=](char c) {
        return IsLetterOrDigit(c) || (c != '\0' && strchr(extra, c) != nullptr);
    });
}

bool IsAddress(const std::string& host) {
    in6_addr address;
    return host.find('\0') == std::string::npos && // what is behind one would go unchecked
           (inet_pton(AF_INET, host.c_str(), &address) == 1 ||
            inet_pton(AF_INET6, host.c_str(), &address) == 1);
}

/// A host as it stands in a URL, where an IPv6 address is in brackets.
bool IsUrlHost(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? IsAddress(host.substr(1, host.size() - 2)) : IsRelayHost(host);
}

bool IsPassword(const std::string& password) {
    return !password.empty() && password.size() <= kLongestPassword &&
           std::none_of(password.begin(), password.end(),
                        [](char c) { return c == '\0' || c == '\n' || c == '\r'; });
}

/// Whether every member of a server that another server names is one that a URL may be made of.
bool IsServer(const Json::Value& server) {
    const auto fits = [&](const char* key, auto isGood) {
        const Json::Value* member = FindMember(server, key);
        return member == nullptr || isGood(*member);
    };
    const auto isHost = [](const Json::Value& host) {
        return host.isString() && (host.asString().empty() || IsUrlHost(host.asString()));
    };
    const auto isPage = [](const Json::Value& page) {
        return page.isString() && page.asString().size() <= kLongestHost &&
               ConsistsOf(page.asString(), "_-./");
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

bool IsSecretName(const std::string& name) {
    static constexpr const char* kNames[] = {"relay_pass", "token", "password", "secret", "cookie"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [&](const char* secret) { return name == secret; });
}

/// Masks a request body: a JSON document, or a form.
std::string MaskBody(const std::string& body) {
    Json::Value document;
    if (ParseJson(body, document) && (document.isObject() || document.isArray())) {
        MaskSecrets(document);
        return CompactJson(document);
    }
    std::string masked;
    for (std::size_t at = 0; at <= body.size();) {
        const std::size_t end = std::min(body.find('&', at), body.size());
        const std::string field = body.substr(at, end - at);
        const std::size_t equals = field.find('=');
        const bool secret = equals != std::string::npos && IsSecretName(field.substr(0, equals));
        masked += (at == 0 ? "" : "&") + (secret ? field.substr(0, equals + 1) + "***" : field);
        at = end + 1;
    }
    return masked;
}

} // namespace

bool IsServiceId(const std::string& id) {
    return !id.empty() && id.size() <= kLongestId && id[0] != '-' && id[0] != '.' &&
           ConsistsOf(id, "_-.");
}

bool IsRelayHost(const std::string& host) {
    if (IsAddress(host)) {
        return true;
    }
    return !host.empty() && host.size() <= kLongestHost && host[0] != '-' && host[0] != '.' &&
           ConsistsOf(host, "_-.");
}

bool IsRelayUser(const std::string& user) {
    // What the device's ssh takes: its configuration may put the name into a command.
    return !user.empty() && user.size() <= kLongestUser && user[0] != '-' &&
           ConsistsOf(user, "._-+=");
}

bool IsPort(int port) {
    return port >= 1 && port <= 65535;
}

bool IsAliasName(const std::string& name) {
    return !name.empty() && name.size() <= kLongestId && ConsistsOf(name, "_-.");
}

bool IsShortText(const std::string& text) {
    return Printable(text) == text;
}

bool CleanBatchReply(Json::Value& reply, bool& goodServer) {
    bool good = true;
    goodServer = true;
    if (!reply.isArray()) {
        return good;
    }
    for (Json::Value& answer : reply) {
        for (const char* key : {"serverID", "mode"}) {
            if (!IsShortText(TextMember(answer, key))) {
                answer.removeMember(key);
                good = false;
            }
        }
        const Json::Value* server = FindMember(answer, "server_wait_cmd");
        if (server != nullptr && !IsServer(*server)) {
            answer.removeMember("server_wait_cmd");
            goodServer = false;
        }
    }
    return good;
}

std::string TextMember(const Json::Value& object, const char* key) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isString() ? member->asString() : "";
}

int NumberMember(const Json::Value& object, const char* key) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isInt() ? member->asInt() : 0;
}

bool CheckTunnel(const Json::Value& assigned, const std::list<ServiceConf>& services,
                 Json::Value& tunnel, std::string& why) {
    const std::string id = TextMember(assigned, "id");
    if (!IsServiceId(id)) {
        why = "bad service id [" + Printable(id) + "]";
        return false;
    }
    const auto service = std::find_if(services.begin(), services.end(), CmprServiceId(id));
    const std::string host = TextMember(assigned, "relay_ip");
    const std::string user = TextMember(assigned, "relay_user");
    if (service == services.end()) {
        why = "no such service";
    } else if (NumberMember(assigned, "port") != service->port || !IsPort(service->port)) {
        why = "not the service's port";
    } else if (!IsRelayHost(host)) {
        why = "bad relay host [" + Printable(host) + "]";
    } else if (!IsPort(NumberMember(assigned, "relay_port"))) {
        why = "bad relay port";
    } else if (!IsRelayUser(user)) {
        why = "bad relay user [" + Printable(user) + "]";
    } else if (!IsPassword(TextMember(assigned, "relay_pass"))) {
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

std::string Printable(const std::string& text) {
    std::string printable = text.substr(0, kLongestQuote);
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return printable;
}

void MaskSecrets(Json::Value& value) {
    if (value.isArray()) {
        for (Json::Value& element : value) {
            MaskSecrets(element);
        }
    }
    if (!value.isObject()) {
        return;
    }
    for (const std::string& name : value.getMemberNames()) {
        Json::Value& member = value[name];
        if (IsSecretName(name)) {
            member = "***";
        } else if (name == "data" && member.isString()) {
            member = MaskBody(member.asString());
        } else {
            MaskSecrets(member);
        }
    }
}

} // namespace ZARO::Relay::app
