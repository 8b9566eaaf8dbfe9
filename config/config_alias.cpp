#include <zarorelayd/config_alias.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "config/defaults.h"
#include "config/json_file.h"

namespace ZARO::Relay {

namespace {

constexpr std::int32_t kDefaultPollSeconds = 7200;
constexpr const char* kDefaultUrl = ZARO_ALIAS_URL;

bool IsFilledText(const Json::Value* value) {
    return value != nullptr && value->isString() && !value->asString().empty();
}

} // namespace

// --- AliasConf

AliasConf::AliasConf() : changed(false), poll_seconds(kDefaultPollSeconds), url(kDefaultUrl) {
    srandom(static_cast<unsigned>(time(nullptr)));
}

AliasConf::~AliasConf() = default;

bool AliasConf::Overwrite(const Json::Value& v) {
    std::string newAlias;
    std::string newUrl;
    std::int32_t newPoll = 0;
    json::Get(v, "alias", newAlias);
    json::Get(v, "url", newUrl);
    json::Get(v, "poll_seconds", newPoll);
    alias_name = newAlias; // unlike the other two: settings without an alias turn it off
    if (newPoll > 0) {
        poll_seconds = newPoll;
    }
    if (!newUrl.empty()) {
        url = newUrl;
    }
    return true;
}

bool AliasConf::IsValid() const {
    if (url.empty()) {
        RELAY_LOG(log::Error, "URL is empty");
        return false;
    }
    if (poll_seconds == 0) {
        RELAY_LOG(log::Error, "Polling second is empty");
        return false;
    }
    return true;
}

bool AliasConf::Write(Json::Value& out, bool compact) const {
    json::Object(out)["alias"] = alias_name;
    if (!compact) {
        out["poll_seconds"] = poll_seconds;
        out["url"] = url;
        return true;
    }
    if (url != kDefaultUrl) {
        out["url"] = url;
    }
    if (poll_seconds != kDefaultPollSeconds) {
        out["poll_seconds"] = poll_seconds;
    }
    return true;
}

bool AliasConf::IsChanged() const {
    return changed;
}

void AliasConf::CommitChange() {
    changed = false;
}

void AliasConf::MarkChanged() {
    changed = true;
}

bool AliasConf::IsAliasEnabled() const {
    return !alias_name.empty();
}

bool AliasConf::SetAliasName(const std::string& name) {
    alias_name = name;
    return true;
}

std::string AliasConf::GetAliasName() const {
    return alias_name;
}

std::string AliasConf::GetUrl() const {
    return url;
}

int AliasConf::GetPollingTime() const {
    if (poll_seconds <= 0) {
        return kDefaultPollSeconds; // not a valid record; avoids dividing by zero
    }
    const long seconds = poll_seconds + random() % poll_seconds;
    return static_cast<int>(std::min<long>(seconds, std::numeric_limits<int>::max()));
}

// --- AliasStatus

AliasStatus::AliasStatus() {
    (void)Reload(); // true in every case
}

AliasStatus::~AliasStatus() = default;

bool AliasStatus::Reload() {
    // Any user may have set the alias and so written the file; a link could lead anywhere.
    bool readable = false;
    return ReadJsonFile(paths::AliasStatusFile(), status_, readable, Trust::NoLink);
}

bool AliasStatus::IsValid() const {
    if (!status_.isObject()) {
        RELAY_LOG(log::Error, "status should be array"); // it means an object; the text is kept
        return false;
    }
    const Json::Value* alias = json::Find(status_, "alias_name");
    const Json::Value* status = json::Find(status_, "status");
    if (alias == nullptr) {
        RELAY_LOG(log::Error, "alias name is not object member");
        return false;
    }
    if (status == nullptr) {
        RELAY_LOG(log::Error, "status is not object member");
        return false;
    }
    if (!IsFilledText(alias)) {
        RELAY_LOG(log::Error, "alias name is not string or empty");
        return false;
    }
    if (!IsFilledText(status)) {
        RELAY_LOG(log::Error, "status is not string or empty");
        return false;
    }
    return true;
}

bool AliasStatus::DumpToFile() {
    return IsValid() && RelaydConf::WriteJsonFile(paths::AliasStatusFile(), status_);
}

bool AliasStatus::SetStatus(const std::string& aliasName, const std::string& status,
                            const std::string& extra, bool dump) {
    json::Object(status_)["alias_name"] = aliasName;
    status_["status"] = status;
    status_["extra"] = extra;
    return !dump || DumpToFile();
}

bool AliasStatus::GetStatus(const std::string& aliasName, std::string& status,
                            std::string& extra) const {
    std::string stored;
    json::Get(status_, "alias_name", stored);
    if (stored != aliasName) {
        return false;
    }
    json::Get(status_, "status", status);
    json::Get(status_, "extra", extra);
    return true;
}

} // namespace ZARO::Relay
