/// The control server: a JSON array of commands in, a JSON array of their replies out.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "hub/admission.h"
#include "hub/changes.h"
#include "hub/command.h"
#include "hub/log.h"
#include "hub/origin.h"
#include "hub/session_cache.h"
#include "hub/store.h"
#include "hub/told_lists.h"
#include "hub/waiters.h"

namespace ZARO::RelayHub {

/// What control needs of the relay.
struct RelayControl {
    std::function<bool(const TunnelRecord&)> isUp; ///< whether its port is open for visitors
    std::function<void(const Changes&)> changed;   ///< ends tunnels that are gone, wakes who waits
};

/// Answers batches on workers. To be destroyed after the loops have stopped.
class Control {
public:
    /// Gets the replies, and the session that the sender is to use from then on.
    using Finish = std::function<void(std::string replies, const std::string& session)>;
    /// Over how many seconds the devices are to spread what they all do at once; 0 = as they like.
    using Spread = std::function<int()>;

    /// `relayHost` is what devices are told to connect to when the relay itself has no name; empty
    /// = the host of their own request.
    Control(Store& store, Waiters& waiters, RelayControl relay, std::string relayHost,
            Spread spread = nullptr)
        : store_(store), waiters_(waiters), relay_(std::move(relay)),
          relayHost_(std::move(relayHost)), spread_(std::move(spread)), admission_(store) {}

    /// Answers one batch; `session` is the one that came with it, or "". Calls `finish` once: from
    /// within, or later from another worker if the last command is held, which the ticket then
    /// names. Blocks for the store. Never throws, and `finish` must not either.
    Waiters::Ticket Answer(const std::string& body, Origin origin, std::string session,
                           Finish finish);

private:
    /// What the commands of one batch share.
    struct Batch {
        const Origin origin;
        std::string session;
        const Finish finish;
        Json::Value replies = Json::Value(Json::arrayValue);
        unsigned count = 0; ///< of its commands
        std::optional<Device> device = std::nullopt;
        bool storeFailed = false; ///< so that the device is unknown
        bool hasRegistered = false;
        bool owesServices = false; ///< it registered, but has not named its services yet
        std::optional<int> heldWith =
            std::nullopt; ///< its last command waits for another revision than this
    };

    Waiters::Ticket AnswerArray(const std::string& body, const std::shared_ptr<Batch>& batch);
    void FindDevice(Batch& batch);
    static void AddReply(Batch& batch, Errno error, Json::Value reply);
    Errno Execute(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno Register(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno Join(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno UpdateNetwork(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno UpdateServices(const Json::Value& command, Batch& batch, Json::Value& reply);
    Errno Wait(const Json::Value& command, Batch& batch, Json::Value& reply);
    /// The hold is over. False when the store failed.
    bool FinishWait(Batch& batch, std::optional<int> revision) noexcept;
    /// Notices when the device is no longer admitted.
    Errno Settle(const Batch& batch, StoreResult result);
    Errno ListTunnels(const Batch& batch, int revision, Json::Value& reply);
    /// Tells the device again what it knows, as the database is away.
    Errno RepeatList(const Batch& batch, Json::Value& reply);
    void Describe(const Batch& batch, int revision, const std::vector<TunnelRecord>& tunnels,
                  Json::Value& reply) const;
    /// Removes the services of a device that registered and named none: it has none then.
    void FinishRegistration(Batch& batch);
    void ServicesChanged(std::int64_t device, const std::vector<TunnelKey>& touched);
    /// Answers the whole batch with a failure.
    static void Fail(const Batch& batch, const std::exception& fault);

    Store& store_;
    Waiters& waiters_;
    const RelayControl relay_;
    const std::string relayHost_;
    const Spread spread_;
    Admission admission_;
    SessionCache sessions_;
    ToldLists told_;
    LogQuota refusals_;
    LogQuota registrations_{Level::Info, 100};
};

} // namespace ZARO::RelayHub
