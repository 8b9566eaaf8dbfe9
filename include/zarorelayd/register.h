/// The registration protocol with the control server.
#pragma once

#include <json/value.h>

#include <list>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/export.h>
#include <zarorelayd/tunnel.h>

namespace ZARO::Relay {

/// Builds batches of commands from what differs between the configuration and what the server has
/// acknowledged, and applies the replies. For one thread; nothing blocks except for file access.
/// What was lost with a batch is in the next one.
class ZARORELAYD_API Register {
public:
    /// Not registered and nothing acknowledged: the first batch carries everything.
    Register();
    ~Register();

    /// Sets `out` to the next batch, an array that may be empty: "register" when due, then
    /// "update_network" and "update_service". Stops the tunnels of changed and withdrawn services
    /// and takes them off the list. Another control server than last time means a new registration.
    /// True.
    bool GetChanges(const RelaydConf& conf, std::list<Tunnel>& tunnels, Json::Value& out);

    /// Sets `out` to the full batch, measured against an empty configuration; changes nothing else.
    /// True.
    bool GetDirConnRequest(const RelaydConf& conf, std::list<Tunnel>& tunnels, Json::Value& out);

    /// Applies the replies to a batch in their order; a failed one does not stop the others. The
    /// server id of the reply to "register" is written to the configuration file. False when a
    /// reply failed (logged) or is missing, or either is no array (logged, and nothing applied).
    bool ParseResponse(RelaydConf& conf, const Json::Value& request, const Json::Value& response);

    // The steps of the above.

    /// Sets `out` to the "register" command, with the token and the server id if there is one.
    /// True. (The spelling stays for all who link it.)
    bool GetReigsterCommand(const RelaydConf& conf, Json::Value& out);
    /// Sets `out` to "update_network" with the whole of `cur`'s network if it differs from `old`'s.
    /// False, `out` null, if it does not.
    bool GetNetworkChanges(const RelaydConf& old, const RelaydConf& cur, Json::Value& out);
    /// Sets `out` to "update_service" with the services added, changed and removed from `old` to
    /// `cur`; stops the tunnels of the last two and takes them off the list. False, the command's
    /// lists empty, when nothing changed.
    bool GetServiceChanges(const RelaydConf& old, const RelaydConf& cur, std::list<Tunnel>& tunnels,
                           Json::Value& out);
    /// The tunnel of that service, valid until it is erased; or the end of the list.
    std::list<Tunnel>::iterator GetTunnelByServiceId(std::list<Tunnel>& tunnels,
                                                     const std::string& id);
    /// Applies a good reply to "register": takes server id and wait-command server into `conf` and
    /// writes the id to its file. True; a failed write is logged.
    bool ParseRegisterResponse(RelaydConf& conf, const Json::Value& cmd, const Json::Value& reply);
    /// Applies a good reply to "update_network": notes what `cmd` reported as acknowledged, takes
    /// the network mode into `conf`. False, logged, unless `cmd` is an object.
    bool ParseNetworkResponse(RelaydConf& conf, const Json::Value& cmd, const Json::Value& reply);
    /// Applies a good reply to "update_service": notes the services in `cmd` as acknowledged or
    /// removed and skips invalid ones. True.
    bool ParseServiceResponse(const RelaydConf& conf, const Json::Value& cmd,
                              const Json::Value& reply);

    /// Whether `conf` names another control server than the one noted last.
    bool IsCtrlServerChanged(const RelaydConf& conf) const;
    /// URL of the control server noted last; before the first, of the device's default one.
    std::string GetOldServerUrl() const;
    /// Notes the control server of `conf`, as GetChanges does. True.
    bool SetOldServerUrl(const RelaydConf& conf);

    /// Makes the next batch begin with "register" and carry everything. True.
    bool SetAuthExpired();

    /// True in every case: there is no check.
    bool CheckServiceConf(const ServiceConf& service);

private:
    bool registered_;     ///< the server has acknowledged "register"
    RelaydConf previous_; ///< the control server noted last; network and services acknowledged
};

} // namespace ZARO::Relay
