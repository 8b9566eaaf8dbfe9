/// The daemon: one thread, one select loop.
#pragma once

#include <json/value.h>

#include <set>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>

#include "app/daemon/alias_keeper.h"
#include "app/daemon/beginning.h"
#include "app/daemon/exchange.h"
#include "app/daemon/net_watch.h"
#include "app/daemon/pass_watch.h"
#include "app/daemon/service_probes.h"
#include "app/daemon/status_file.h"
#include "app/daemon/tunnel_keeper.h"

namespace ZARO::Relay::app {

/// Owns everything that the running daemon has. To be made after the fork. Signals come through
/// libdaemon's pipe.
class RelayDaemon {
public:
    /// Writes the first status.
    explicit RelayDaemon(const RelaydConf& conf);

    /// Runs until a stop signal, and stops in an orderly way before it returns. False when it ran
    /// out of memory instead.
    bool Run();

private:
    void Pass();
    void Tick(Time now);
    void Wait(Time now);
    void OnSignals();
    void OnNetworkEvent(Time now);
    void TakeNetworkChange(Time now);
    void ReloadByUser();
    bool Reload();
    void SwitchedFrom(bool wasEnabled);
    void Stop();
    Time NextDue(Time now) const;

    RELAYD_STATE State() const;
    void WriteStatus();
    Json::Value ServiceStatus() const;
    Json::Value Dump() const;

    RelaydConf conf_;
    JobQueue queue_;
    TunnelKeeper keeper_;
    Exchange exchange_;
    AliasKeeper alias_;
    NetWatch network_;
    std::set<std::string> addresses_ = OwnAddresses(); ///< after network_, so that none is missed
    StatusFile status_;
    ServiceProbes probes_;
    Time refreshDue_{};
    Time networkCheck_ = Time::max(); ///< when to look for a change of the network
    bool hasFile_;                    ///< the configuration in force came from a file
    bool stopping_ = false;
    RELAYD_STATE shownState_ = RELAYD_STATE_STARTING;
    Beginning since_; ///< of the state
    unsigned long passes_ = 0;
    PassWatch watch_;
};

} // namespace ZARO::Relay::app
