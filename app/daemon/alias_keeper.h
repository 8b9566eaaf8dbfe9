/// Keeps the device's alias alive at the alias server.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/request_alias.h>

#include "app/daemon/backoff.h"

namespace ZARO::Relay::app {

/// Maps the alias when it is new or changed, keeps it alive, and gives it up when it is cleared.
/// Runs on the job queue of the daemon's one loop; nothing blocks. One object per process.
class AliasKeeper {
public:
    /// `dropNames` is called when the alias server can't be reached: it may have moved.
    AliasKeeper(RelaydConf& conf, JobQueue& queue, std::function<void()> dropNames);
    AliasKeeper(const AliasKeeper&) = delete;
    AliasKeeper& operator=(const AliasKeeper&) = delete;
    ~AliasKeeper();

    /// Starts what is due; the device must be registered.
    void Tick(Time now);
    /// When Tick is to be called next, at the latest.
    Time NextDue() const;
    bool IsBusy() const { return runs_; }
    /// The path to the servers is back.
    void RetryNow(Time now);
    void Stop();

    /// Name and last outcome, for the status file.
    Json::Value Describe() const;

private:
    static bool OnDone(boost::shared_ptr<Request> request);
    void TakeChange(Time now);
    ALIAS_REQUEST_CMD NextCommand() const;
    void Start(ALIAS_REQUEST_CMD command, const std::string& alias, Time now);
    void Done(const boost::shared_ptr<Request>& request, Time now);
    void Schedule(ALIAS_RET outcome, const std::string& alias, Time now);

    RelaydConf& conf_;
    JobQueue& queue_;
    std::function<void()> dropNames_;
    Backoff backoff_{seconds(5), seconds(300)};
    Time next_{};
    ALIAS_REQUEST_CMD running_ = ALIAS_REQUEST_NONE;
    bool runs_ = false;
    bool known_ = false;   ///< the settings were read once
    bool refused_ = false; ///< only other settings can help
    std::string mapped_;   ///< the alias that the server keeps for us
    std::string status_;
    std::string extra_;
};

} // namespace ZARO::Relay::app
