/// The replies to the operator's requests, and the numbers in these.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <json/value.h>

#include "base/json.h"

namespace ZARO::RelayHub {

/// What the operator's program ends with.
enum class AdminCode {
    No = 1, ///< there is no such thing
    NotDone = 2,
    Busy = 11,
};

inline Json::Value AdminSuccess() {
    Json::Value reply;
    reply["ok"] = true;
    return reply;
}

/// `words` = what was done, on one line for people.
inline Json::Value AdminDone(const std::string& words) {
    Json::Value reply = AdminSuccess();
    reply["done"] = words;
    return reply;
}

/// `why` = one line for people.
inline Json::Value AdminFailure(AdminCode code, const std::string& why) {
    Json::Value reply;
    reply["ok"] = false;
    reply["code"] = static_cast<int>(code);
    reply["error"] = why;
    return reply;
}

/// The member as a number, 0 when it is of another type; nothing when it is missing.
inline std::optional<std::int64_t> AdminNumber(const Json::Value& request, const char* key) {
    const Json::Value* member = json::Find(request, key);
    if (member == nullptr) {
        return std::nullopt;
    }
    return member->isInt64() ? member->asInt64() : 0;
}

} // namespace ZARO::RelayHub
