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
/// acknowledged, and takes in the replies. One thread; a batch that was lost comes out again.
class ZARORELAYD_API Register {
public:
    Register();
    ~Register();

    /// The next batch, an array that may be empty: "register" when due, "update_network",
    /// "update_service". Stops and drops the tunnels of changed and withdrawn services at once.
    /// True.
    bool GetChanges(const RelaydConf& conf, std::list<Tunnel>& tunnels, Json::Value& out);

    /// The full batch, measured against an empty configuration; nothing else changes. True.
    bool GetDirConnRequest(const RelaydConf& conf, std::list<Tunnel>& tunnels, Json::Value& out);

    /// Applies the replies to a batch, one by one; a failed one does not stop the others. A new
    /// server id is written to the configuration file. False, logged, when any failed or is
    /// missing.
    bool ParseResponse(RelaydConf& conf, const Json::Value& request, const Json::Value& response);

    // The steps of the above.
    /// (So spelled for all who link it.)
    bool GetReigsterCommand(const RelaydConf& conf, Json::Value& out);
    /// False when nothing changed.
    bool GetNetworkChanges(const RelaydConf& old, const RelaydConf& cur, Json::Value& out);
    /// False when nothing changed.
    bool GetServiceChanges(const RelaydConf& old, const RelaydConf& cur, std::list<Tunnel>& tunnels,
                           Json::Value& out);
    /// The end of the list when there is none.
    std::list<Tunnel>::iterator GetTunnelByServiceId(std::list<Tunnel>& tunnels,
                                                     const std::string& id);
    bool ParseRegisterResponse(RelaydConf& conf, const Json::Value& cmd, const Json::Value& reply);
    bool ParseNetworkResponse(RelaydConf& conf, const Json::Value& cmd, const Json::Value& reply);
    bool ParseServiceResponse(const RelaydConf& conf, const Json::Value& cmd,
                              const Json::Value& reply);

    /// Whether the configuration names another control server than the one registered with.
    bool IsCtrlServerChanged(const RelaydConf& conf) const;
    /// URL of the control server registered with.
    std::string GetOldServerUrl() const;
    bool SetOldServerUrl(const RelaydConf& conf);

    /// The next batch begins with "register" and carries everything. True.
    bool SetAuthExpired();

    /// True: no check is made.
    bool CheckServiceConf(const ServiceConf& service);

private:
    bool registered_;
    RelaydConf previous_;
};

} // namespace ZARO::Relay
