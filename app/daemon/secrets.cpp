#include "app/daemon/secrets.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "base/json.h"

namespace ZARO::Relay::app {

namespace {

bool IsSecretName(const std::string& name) {
    static constexpr const char* kNames[] = {"relay_pass", "token", "password", "secret", "cookie"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [&](const char* secret) { return name == secret; });
}

/// Masks a request body: a JSON document, or a form.
std::string MaskBody(const std::string& body) {
    Json::Value document;
    if (json::Parse(body, document, json::Grammar::Whole) &&
        (document.isObject() || document.isArray())) {
        MaskSecrets(document);
        return json::Compact(document);
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
