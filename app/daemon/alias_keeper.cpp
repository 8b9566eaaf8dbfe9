#include "app/daemon/alias_keeper.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <zarorelayd/daemon.h>

#include "app/common/checks.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/text.h"

namespace ZARO::Relay::app {

namespace {

AliasKeeper* gAliasKeeper = nullptr;

/// The protocol calls every failed transfer "unknown"; the request can tell more.
ALIAS_RET PathFault(const Request& request, ALIAS_RET outcome) {
    if (outcome != ALIAS_RET_UNKNOWN) {
        return outcome;
    }
    switch (request.GetError()) {
    case RELAYD_RET_RESOLV:
        return ALIAS_RET_DNS;
    case RELAYD_RET_NETWORK:
        return request.GetCurlResult() != CURLE_OK ? ALIAS_RET_NETWORK : outcome;
    case RELAYD_RET_SERVER_BUSY:
        return ALIAS_RET_SERVER_BUSY;
    default:
        return outcome;
    }
}

/// Whether the server certainly no longer keeps the alias for us, after a request to give it up or
/// to keep it alive had this outcome.
bool IsGone(ALIAS_RET outcome) {
    ALIAS_RETRY_TYPE retry = ALIAS_RETRY_NORMAL;
    (void)AliasRequest::GetRetryType(outcome, retry);
    return outcome == ALIAS_RET_SUCCESS || outcome == ALIAS_RET_NOT_FOUND ||
           retry == ALIAS_RETRY_REFUSED;
}

} // namespace

AliasKeeper::AliasKeeper(RelaydConf& conf, JobQueue& queue, std::function<void()> dropNames)
    : conf_(conf), queue_(queue), dropNames_(std::move(dropNames)) {
    gAliasKeeper = this;
}

AliasKeeper::~AliasKeeper() {
    gAliasKeeper = nullptr;
}

bool AliasKeeper::OnDone(boost::shared_ptr<Request> request) {
    try {
        gAliasKeeper->Done(request, Clock::now());
        return true;
    } catch (const std::exception& fault) { // nothing may cross libcurl's queue
        RELAY_LOG(log::Error, "an alias reply could not be taken in: %s", fault.what());
        gAliasKeeper->Schedule(ALIAS_RET_SERVER_BUSY, "", Clock::now());
        return false;
    }
}

void AliasKeeper::Tick(Time now) {
    if (!known_ || conf_.alias.IsChanged()) {
        TakeChange(now);
    }
    const ALIAS_REQUEST_CMD command = NextCommand();
    if (runs_ || command == ALIAS_REQUEST_NONE || now < next_) {
        return;
    }
    Start(command, command == ALIAS_REQUEST_DELETE ? mapped_ : conf_.alias.GetAliasName(), now);
}

/// New settings: what was refused may be granted now. At the daemon's start the status file tells
/// which alias the server keeps for us.
void AliasKeeper::TakeChange(Time now) {
    if (!known_) {
        Json::Value file;
        if (IsTrustedFile(paths::AliasStatusFile())) { // in a folder that anybody may write to
            RelaydConf::ReadJsonFile(paths::AliasStatusFile(), file);
        }
        const std::string alias = json::TextOf(file, "alias_name");
        if (json::TextOf(file, "status") == "success" && IsAliasName(alias)) {
            mapped_ = alias;
        }
    }
    const bool sameAlias = mapped_ == conf_.alias.GetAliasName();
    if (known_ && sameAlias) {
        mapped_.clear(); // another server or interval: map it there
    }
    known_ = true;
    refused_ = conf_.alias.IsAliasEnabled() && !IsAliasName(conf_.alias.GetAliasName());
    if (refused_) {
        RELAY_LOG(log::Error,
                  "server_alias.alias: expected 1 to 63 of letters, digits, \"_\", \"-\", \".\"");
    }
    backoff_.Reset();
    next_ = now;
    conf_.alias.CommitChange();
}

ALIAS_REQUEST_CMD AliasKeeper::NextCommand() const {
    const std::string alias = conf_.alias.GetAliasName();
    if (!mapped_.empty() && mapped_ != alias) {
        return ALIAS_REQUEST_DELETE;
    }
    if (alias.empty() || refused_) {
        return ALIAS_REQUEST_NONE;
    }
    return mapped_.empty() ? ALIAS_REQUEST_MAP : ALIAS_REQUEST_KEEP_ALIVE;
}

void AliasKeeper::Start(ALIAS_REQUEST_CMD command, const std::string& alias, Time now) {
    Json::Value data;
    conf_.DumpDataForAliasReq(data);
    data["alias"] = alias;
    AliasRequest request;
    if (!request.SetRequest(command, data) || !queue_.Add(request.GetSharedRequest(), OnDone, 0)) {
        next_ = now + backoff_.Failed(now);
        return;
    }
    running_ = command;
    runs_ = true;
}

void AliasKeeper::Done(const boost::shared_ptr<Request>& request, Time now) {
    runs_ = false;
    ALIAS_RET outcome = ALIAS_RET_UNKNOWN;
    std::string extra;
    std::string alias;
    (void)AliasRequest::GetResponseForDaemon(request, outcome, extra); // an unknown word is logged
    (void)AliasRequest::GetAliasName(request, alias);
    outcome = PathFault(*request, outcome);
    const std::string former = status_;
    AliasRequest::ResponseToString(outcome, status_);
    extra_ = Printable(extra);
    const bool gone = running_ == ALIAS_REQUEST_DELETE && IsGone(outcome);
    AliasStatus().SetStatus(alias, gone ? "deleted" : status_, extra_, true);
    if (former != status_) {
        RELAY_LOG(outcome == ALIAS_RET_SUCCESS ? log::Info : log::Warning, "alias [%s]: %s",
                  Printable(alias).c_str(), status_.c_str());
    }
    Schedule(outcome, alias, now);
}

void AliasKeeper::Schedule(ALIAS_RET outcome, const std::string& alias, Time now) {
    runs_ = false;
    ALIAS_RETRY_TYPE retry = ALIAS_RETRY_NORMAL;
    (void)AliasRequest::GetRetryType(outcome, retry);
    if (retry == ALIAS_RETRY_PATH) {
        dropNames_();
        next_ = now + backoff_.Failed(now);
        return;
    }
    backoff_.Succeeded(now);
    next_ = now + seconds(conf_.alias.GetPollingTime());
    if (running_ == ALIAS_REQUEST_DELETE) {
        if (IsGone(outcome)) { // the alias that is wanted now comes next
            mapped_.clear();
            next_ = now;
        }
        return;
    }
    if (outcome == ALIAS_RET_SUCCESS) {
        mapped_ = alias;
    } else if (IsGone(outcome)) {
        // An alias that ran out while we were away is mapped again at once.
        next_ = running_ == ALIAS_REQUEST_KEEP_ALIVE && retry != ALIAS_RETRY_REFUSED ? now : next_;
        mapped_.clear();
    }
    refused_ = retry == ALIAS_RETRY_REFUSED;
}

Time AliasKeeper::NextDue() const {
    return runs_ || NextCommand() == ALIAS_REQUEST_NONE ? Time::max() : next_;
}

void AliasKeeper::RetryNow(Time now) {
    if (!status_.empty() && status_ != "success" && !refused_) {
        backoff_.Reset();
        next_ = std::min(next_, now);
    }
}

void AliasKeeper::Stop() {
    queue_.Remove(OnDone);
    runs_ = false;
}

Json::Value AliasKeeper::Describe() const {
    Json::Value description;
    description["name"] = conf_.alias.GetAliasName();
    description["status"] = status_;
    description["extra"] = extra_;
    return description;
}

} // namespace ZARO::Relay::app
