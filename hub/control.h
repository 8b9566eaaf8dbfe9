/// The control server: a JSON array of commands in, a JSON array of their replies out.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "hub/log.h"
#include "hub/origin.h"
#include "hub/store.h"
#include "hub/waiters.h"

namespace ZARO::RelayHub {

/// The numbers of the protocol.
enum class Errno {
    Good = 0,
    Unknown = 1,
    Auth = 2,
    NoSuchCommand = 3,
    Version = 5,
    NoSession = 6,
    Input = 9,
    Limit = 11,
};

/// What control needs of the relay.
struct RelayControl {
    std::function<bool(const TunnelRecord&)> isUp; ///< whether its port is open for visitors
    std::function<void(const std::vector<TunnelKey>&)> close; ///< ends tunnels that are gone
};

/// May be called from any thread; a wait command blocks its thread for the hold time at most.
class Control {
public:
    /// `relayHost` is what devices are told to connect to; empty = the host of their own request.
    Control(Store& store, Waiters& waiters, RelayControl relay, std::string relayHost)
        : store_(store), waiters_(waiters), relay_(std::move(relay)),
          relayHost_(std::move(relayHost)) {}

    /// Answers one batch. `session` holds the session that came with it, or ""; afterwards it holds
    /// the one that the sender is to use from then on. Never throws.
    std::string Answer(const std::string& body, const Origin& origin, std::string& session);

private:
    /// What the commands of one batch share.
    struct Batch {
        const Origin& origin;
        std::string& session;
        std::optional<Device> device;
        bool hasRegistered = false;
        bool owesServices = false; ///< it registered, but has not named its services yet
        bool isLast = false;       ///< the current command is the last one
    };

    std::string AnswerArray(const std::string& body, Batch& batch);
    Errno Execute(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno Register(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno UpdateNetwork(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno UpdateServices(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno Wait(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno ListTunnels(const Batch& batch, int revision, Json::Value& reply);
    /// Removes the services of a device that registered and named none: it has none then.
    void FinishRegistration(Batch& batch);
    void ServicesChanged(std::int64_t device, const std::vector<TunnelKey>& gone);

    Store& store_;
    Waiters& waiters_;
    const RelayControl relay_;
    const std::string relayHost_;
    LogQuota refusals_;
    LogQuota registrations_{Level::Info, 100};
};

} // namespace ZARO::RelayHub
