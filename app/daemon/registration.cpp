#include "app/daemon/registration.h"

#include <cerrno>
#include <string>

#include <zarorelayd/daemon.h>

#include "app/common/config_check.h"
#include "app/common/config_lock.h"
#include "app/daemon/server_reply.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"

namespace ZARO::Relay::app {

namespace {

/// How long the loop may wait for a command line that changes the configuration file.
constexpr milliseconds kFilePatience{100};

/// Whether another program keeps the lock. When the lock can't be had for another reason, such as a
/// file that belongs to root, the daemon writes all the same.
bool IsHeldByOther(ConfigLock& lock) {
    return !lock.Take(kFilePatience) && errno == EWOULDBLOCK;
}

/// A server id that can't be written into the file holds for this run only: takes it out of the
/// answer, so that the library does not try. The file must be whole, because the library would move
/// a broken one aside, and a typo would cost all services.
void HoldBackServerId(Json::Value& answer, ConfigLock& lock, RelaydConf& conf) {
    const Json::Value* id = json::Find(answer, "serverID");
    Json::Value config;
    std::string fault = ConfigLock::Path() + ": held by another program";
    if (id != nullptr && id->isString() &&
        (IsHeldByOther(lock) || !ReadConfigFile(paths::ConfigFile(), true, config, fault))) {
        RELAY_LOG(log::Warning, "the server id is not written: %s", fault.c_str());
        conf.serverID = id->asString();
        answer.removeMember("serverID");
    }
}

} // namespace

Registration::Registration(RelaydConf& conf, std::list<Tunnel>& tunnels, Session& session,
                           JobQueue& queue, JobCallback done)
    : conf_(conf), tunnels_(tunnels), session_(session), batches_("registration", queue, done) {
}

Time Registration::NextSend() const {
    return due_ && !batches_.IsOut() ? batches_.Next() : Time::max();
}

void Registration::RegisterAgain() {
    register_.SetAuthExpired();
    registered_ = false;
    due_ = true;
}

RELAYD_RET Registration::Send(Time now) {
    if (!conf_.auth.IsValid()) {
        conf_.auth.ReadConf();
    }
    const std::string url = conf_.control.GetUrl(nullptr);
    if (!conf_.auth.IsValid() || url.empty()) {
        return RELAYD_RET_CONFIG;
    }
    register_.GetChanges(conf_, tunnels_, commands_);
    due_ = false;
    if (commands_.empty()) { // also when what could not be sent is as it was before
        return RELAYD_RET_SUCCESS;
    }
    if (commands_[0U]["command"] == "register") {
        registered_ = false;
        session_.End();
    }
    return batches_.Send(session_.ControlRequest(url, commands_), now) ? RELAYD_RET_SUCCESS
                                                                       : RELAYD_RET_UNKNOWN;
}

void Registration::Resend(Time now) {
    batches_.Drop();
    batches_.WaitUntil(now);
    due_ = true;
}

Registration::Applied Registration::Apply(Json::Value& reply) {
    bool goodServer = true;
    if (!CleanBatchReply(reply, goodServer)) {
        RELAY_LOG(log::Error, "refused an id or a mode from the control server");
    }
    const ServerConf formerWait = conf_.waitcmd;
    const bool registered = HasRegistered(reply);
    ParseUnderLock(reply, registered);
    if (!conf_.waitcmd.IsValid()) { // a server of which only part was named
        conf_.waitcmd = formerWait;
        goodServer = false;
    }
    if (!goodServer) {
        RELAY_LOG(log::Error, "refused the wait-command server that the control server named");
        RegisterAgain();
        return Applied::Refused;
    }
    if (!registered) {
        return Applied::Updated;
    }
    registered_ = true;
    RELAY_LOG(log::Info, "registered as [%s]", conf_.serverID.c_str());
    return Applied::Registered;
}

/// Whether the batch asked for a registration and the reply grants it.
bool Registration::HasRegistered(const Json::Value& reply) const {
    return commands_[0U]["command"] == "register" && reply.isArray() && !reply.empty() &&
           ParseServerError(reply[0U]) == RELAYSERVER_ERR_SUCCESS;
}

/// The library writes a new server id into the configuration file, which a command line may be
/// changing.
void Registration::ParseUnderLock(Json::Value& reply, bool registered) {
    ConfigLock lock;
    if (registered) {
        HoldBackServerId(reply[0U], lock, conf_);
    }
    register_.ParseResponse(conf_, commands_, reply);
}

Outcome Registration::OutcomeOf(const Json::Value& reply) const {
    if (!reply.isArray() || reply.size() < commands_.size()) {
        const RELAYSERVER_ERR error = ParseServerError(reply);
        const bool told = error != RELAYSERVER_ERR_SUCCESS && error != RELAYSERVER_ERR_UNKNOWN;
        return {told ? RespErrMap(error) : RELAYD_RET_UNKNOWN};
    }
    for (Json::ArrayIndex i = 0; i < commands_.size(); ++i) {
        const RELAYSERVER_ERR error = ParseServerError(reply[i]);
        if (error != RELAYSERVER_ERR_SUCCESS) {
            const bool refused =
                commands_[i]["command"] == "register" && error == RELAYSERVER_ERR_AUTH;
            return {RespErrMap(error), refused, refused ? RetryAfter(reply[i]) : std::nullopt};
        }
    }
    return {};
}

} // namespace ZARO::Relay::app
